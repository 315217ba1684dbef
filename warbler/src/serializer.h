// Writes trees as XML.
//
// Declarations that a node carries are written as they are. Beyond them an element is written, in this order of preference:
// without a prefix when its namespace is the default; with a prefix that stands for its namespace; with a default namespace of
// its own; and, where somebody declared another default, which names in texts may rely on, with a prefix made up for it.
#pragma once

#include <warbler/dom.h>

#include "byte_buffer.h"
#include "names.h"

namespace wb {

// The namespaces that are in force where a tree is written: none, and that of the stanzas of a client's stream.
const Symbol &no_namespace();
const Symbol &stream_namespace();

// Appends the node to the buffer. Where it will stand, default_namespace is in force. On failure the buffer is as it
// was: WB_ERR_INVALID_ARG (no node), WB_ERR_BAD_FORMAT (bytes that are not UTF-8 or no XML characters), WB_ERR_NO_MEMORY.
bool serialize(const wb_dom_node *node, const Symbol &default_namespace, ByteBuffer &out, wb_err *err);

}  // namespace wb
