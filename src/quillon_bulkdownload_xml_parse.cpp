#include "quillon_bulkdownload_xml_parse.h"

#include <warbler/items.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "quillon_bulkdownload.h"

namespace {

constexpr size_t kFirstItems = 32;

// False when memory is exhausted; the item stays the caller's.
bool append_item(qlk::ParseData &data, wb_dom_node *item) {
  if (data.arrLen == data.arrCapacity) {
    const size_t capacity = std::max(kFirstItems, data.arrCapacity * 2);
    auto **const grown = static_cast<wb_dom_node **>(std::realloc(data.itemsNodesArr, capacity * sizeof(wb_dom_node *)));
    if (grown == nullptr) return false;
    data.itemsNodesArr = grown;
    data.arrCapacity = capacity;
  }
  data.itemsNodesArr[data.arrLen++] = item;
  return true;
}

void on_item(wb_dom_node *item, void *arg) {
  auto &data = *static_cast<qlk::ParseData *>(arg);
  if (append_item(data, item)) return;
  data.lacksItem = true;
  wb_log(WB_LOG_ERROR, "realloc() failed at file %s line %d\n", __FILE__, __LINE__);
  wb_dom_context_destroy(wb_dom_get_context(item));
}

void on_text_before_child(void * /*arg*/) {
  wb_log(WB_LOG_ERROR, "startElementHandler - text should have been NULL at file %s line %d\n", __FILE__, __LINE__);
}

}  // namespace

qlk::BulkDownloadErrorCode qlk::xmlParserCreate(quillon_bulkdownload_iter *iter) {
  if (iter == nullptr) return eERR_FAILED;
  wb_item_reader_options options = {};
  options.item_depth = ITEM_ELEMENT_DEPTH;
  options.text_waits = true;
  options.on_item = on_item;
  options.on_text_before_child = on_text_before_child;
  options.arg = &iter->parseData;
  if (wb_item_reader_create(&options, &iter->parser, nullptr)) return eERR_SUCC;
  wb_log(WB_LOG_ERROR, "XML_ParserCreateNS() failed at file %s line %d\n", __FILE__, __LINE__);
  return eERR_FAILED;
}

void qlk::xmlParserFree(quillon_bulkdownload_iter *iter) {
  if (iter != nullptr) wb_item_reader_destroy(std::exchange(iter->parser, nullptr));
}

qlk::BulkDownloadErrorCode qlk::xmlParse(quillon_bulkdownload_iter *iter) {
  if (iter == nullptr) return eERR_FAILED;
  wb_err err = {};
  const bool fed = wb_item_reader_feed(iter->parser, iter->parseData.chunk, iter->parseData.chunkLength, &err);
  if (std::exchange(iter->parseData.lacksItem, false)) return eERR_FAILED;
  if (fed) return eERR_SUCC;
  wb_log_err(WB_LOG_ERROR, &err, "the response cannot be read");
  wb_log(WB_LOG_ERROR, "XML_Parse() failed at file %s line %d\n", __FILE__, __LINE__);
  return eERR_FAILED;
}

void qlk::initParseData(ParseData *data) {
  if (data != nullptr) *data = {};
}

void qlk::cleanItemsNodesArr(ParseData *data) {
  if (data == nullptr) return;
  for (size_t i = data->nextIdx; i < data->arrLen; ++i) wb_dom_context_destroy(wb_dom_get_context(data->itemsNodesArr[i]));
  data->arrLen = 0;
  data->nextIdx = 0;
}

void qlk::cleanParseData(ParseData *data) {
  if (data == nullptr) return;
  cleanItemsNodesArr(data);
  std::free(data->itemsNodesArr);
  std::free(data->chunk);
  *data = {};
}

void qlk::setChunk(ParseData *data, char *&chunk, size_t &length, size_t &capacity) {
  if (data == nullptr) return;
  data->chunkLength = chunk != nullptr ? length : 0;
  length = 0;
  if (chunk == nullptr) return;
  std::swap(data->chunk, chunk);
  std::swap(data->chunkCapacity, capacity);
}

wb_dom_node *qlk::getNextItemNode(ParseData *data) {
  if (data == nullptr || data->nextIdx >= data->arrLen) return nullptr;
  return std::exchange(data->itemsNodesArr[data->nextIdx++], nullptr);
}
