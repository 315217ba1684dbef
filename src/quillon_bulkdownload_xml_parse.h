// The items of the response, chunk by chunk. Building them is the XMPP layer's item reader's; here are its set-up and the batch
// of items that one chunk completed. All of it runs on the application's thread.
#pragma once

#include <cstddef>

#include "quillon.h"

namespace qlk {

enum BulkDownloadErrorCode : int;

// Items are the grandchildren of the document's root.
constexpr unsigned ITEM_ELEMENT_DEPTH = 2;

// The item that is being built is the reader's, so the fields that would hold it stay empty: bParsingItem, stack, stackLen, pCtx
// and text.
struct _ParseData {
  bool bParsingItem;
  wb_dom_node **itemsNodesArr;  // in document order, each in a context of its own; null where it was handed out
  size_t arrLen;
  size_t nextIdx;
  char *chunk;
  wb_dom_node **stack;
  size_t stackLen;
  wb_dom_ctx *pCtx;
  char *text;
  // Private additions: places in itemsNodesArr; the length of chunk without the zero at its end, and the memory that it lies in;
  // whether there was no place for an item of the chunk.
  size_t arrCapacity;
  size_t chunkLength;
  size_t chunkCapacity;
  bool lacksItem;
};
using ParseData = _ParseData;

BulkDownloadErrorCode xmlParserCreate(quillon_bulkdownload_iter *iter);
void xmlParserFree(quillon_bulkdownload_iter *iter);

// Parses the chunk; the items that it completes join the batch. It fails when one of them could not.
BulkDownloadErrorCode xmlParse(quillon_bulkdownload_iter *iter);

void initParseData(ParseData *data);
void cleanItemsNodesArr(ParseData *data);
void cleanParseData(ParseData *data);

// Takes a chunk with its memory and leaves that of the former one in its place. A null chunk is taken as an empty one.
void setChunk(ParseData *data, char *&chunk, size_t &length, size_t &capacity);

// The next item of the batch, the caller's with its context; null when the batch is used up.
wb_dom_node *getNextItemNode(ParseData *data);

}  // namespace qlk
