/* Items of a large XML document. The document is read in whatever pieces it comes, and each element at one depth is handed out as
 * a tree in a context of its own. What stands around the items is checked and dropped, so that a document of any length takes
 * little memory.
 *
 * Items carry names, attributes and texts, but no namespace declarations. A document type may be named, but not declare
 * anything, so that there are no entities but those that XML itself knows; what it refers to is not fetched. Comments and
 * processing instructions are passed over. */
#ifndef WARBLER_ITEMS_H
#define WARBLER_ITEMS_H

#include <stdbool.h>
#include <stddef.h>
#include <warbler/dom.h>
#include <warbler/err.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads one document. */
typedef struct wb_item_reader wb_item_reader;

/* Receives an item. Its context has one reference, the receiver's, who ends it with
 * wb_dom_context_destroy(wb_dom_get_context(item)). Runs inside wb_item_reader_feed; it may not call the reader. */
typedef void (*wb_item_callback)(wb_dom_node *item, void *arg);

/* How to read; zero stands for the value in brackets. */
typedef struct wb_item_reader_options {
  unsigned item_depth;      /* how many elements are open around an item; 0: the root is the one item */
  unsigned depth_max;       /* elements that may be open at once [16384] */
  size_t item_bytes_max;    /* memory that one item may take, in bytes; text in pieces takes up to half more [64 MiB] */
  size_t token_bytes_max;   /* length of one tag, comment or processing instruction, in bytes [4 MiB] */
  bool text_waits;          /* text goes to the element whose end tag comes next, all in one; else it stays where it stands */
  wb_item_callback on_item; /* receives each item as its end tag is read */
  void (*on_text_before_child)(void *arg); /* a child begins while text waits; NULL: nobody is told */
  void *arg;                               /* passed to the callbacks */
} wb_item_reader_options;

/* Makes a reader at the beginning of a document. Fails with WB_ERR_INVALID_ARG (a NULL argument or no on_item) or
 * WB_ERR_NO_MEMORY. */
WB_API bool wb_item_reader_create(const wb_item_reader_options *options, wb_item_reader **out, wb_err *err);

/* Reads the next piece of the document; the callbacks run inside, also for what is whole before a fault. A document is not told
 * its end: one that breaks off is no failure.
 * Fails with WB_ERR_BAD_FORMAT (no XML, misused namespaces, declarations in the document type, or over a limit), WB_ERR_NO_MEMORY
 * or WB_ERR_INVALID_ARG (NULL). After a failure every further piece fails in the same way. */
WB_API bool wb_item_reader_feed(wb_item_reader *reader, const char *bytes, size_t length, wb_err *err);

/* Frees the reader; an item that is not whole goes with it, those that were handed out stay. NULL is harmless. */
WB_API void wb_item_reader_destroy(wb_item_reader *reader);

#ifdef __cplusplus
}
#endif

#endif
