// Nothing here throws: memory comes from malloc, or from new that returns null.
#include "quillon_bulkdownload.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "guard.h"
#include "owners.h"
#include "pthread_lock.h"
#include "quillon_config.h"
#include "quillon_string.h"

#define TEXT_OF_NUMBER(number) #number
#define TEXT_OF(number) TEXT_OF_NUMBER(number)
#define THIS_PLACE __FILE__ ":" TEXT_OF(__LINE__)

namespace {

void set_string(quillon_bulkdownload *bulkdownload, quillon_string *_quillon_bulkdownload::*field, qlk::StringPtr fresh) {
  qlk::StringPtr old;
  const qlk::PthreadLock lock(bulkdownload->settings);
  old.reset(bulkdownload->*field);
  bulkdownload->*field = fresh.release();
}

void free_iter(quillon_bulkdownload_iter *iter) {
  qlk::xmlParserFree(iter);
  qlk::cleanParseData(&iter->parseData);
  qlk::freeThrdsSharedData(&iter->thrdsSharedData);
  delete iter;
}

quillon_bulkdownload_iter *_createBulkDownloadIter(quillon_bulkdownload *bulkdownload) {
  qlk::trace(__func__);
  auto *const iter = new (std::nothrow) quillon_bulkdownload_iter{};
  if (iter == nullptr) {
    wb_log(WB_LOG_ERROR, "malloc() failed at file %s line %d\n", __FILE__, __LINE__);
    return nullptr;
  }
  iter->bulkdownload = bulkdownload;
  qlk::initThrdsSharedData(&iter->thrdsSharedData);
  qlk::initParseData(&iter->parseData);
  if (qlk::xmlParserCreate(iter) == qlk::eERR_SUCC) return iter;
  free_iter(iter);
  return nullptr;
}

QUILLON_STATUS quillon_bulkdownload_iter_open(quillon_bulkdownload *bulkdownload, quillon_bulkdownload_iter **iter) {
  qlk::trace(__func__);
  *iter = _createBulkDownloadIter(bulkdownload);
  if (*iter == nullptr) return QUILLON_STATUS_MALLOC_ERROR;
  return qlk::curlInvoke(*iter) == qlk::eERR_SUCC ? QUILLON_STATUS_OK : QUILLON_STATUS_REST_ERROR;
}

// Takes the next chunk out of the ring, waiting for one. False: there will be no more.
bool take_chunk(qlk::ThrdsSharedData &shared, qlk::ParseData &data) {
  const qlk::PthreadLock lock(shared.mutex);
  while (shared.count == 0 && !shared.curlThrdFinished) pthread_cond_wait(&shared.notEmpty, &shared.mutex);
  if (shared.count == 0) return false;
  --shared.count;
  const size_t slot = shared.tail;
  qlk::setChunk(&data, shared.chunkArr[slot], shared.chunkLength[slot], shared.chunkCapacity[slot]);
  shared.tail = (slot + 1) % qlk::kChunksMax;
  pthread_cond_signal(&shared.notFull);
  return true;
}

QUILLON_STATUS refuse_closed(int line) {
  wb_log(WB_LOG_ERROR, "Invalid object %s line %d\n", __FILE__, line);
  return QUILLON_STATUS_INVALID_ARGS;
}

}  // namespace

void qlk::_default_ssl_ctx_cb(quillon_bulkdownload *bulkdownload, void *ssl_ctx, void * /*user_data*/) {
  trace(__func__);
  if (bulkdownload == nullptr) return wb_log(WB_LOG_ERROR, " null object at %s", THIS_PLACE);
  quillon_config_fill_ssl_ctx(bulkdownload->config, ssl_ctx, true);
}

QUILLON_STATUS quillon_bulkdownload_default_create(quillon_bulkdownload **bulkdownload) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  *bulkdownload = new (std::nothrow) quillon_bulkdownload{};
  if (*bulkdownload == nullptr) {
    wb_log(WB_LOG_ERROR, " null object at %s", THIS_PLACE);
    return QUILLON_STATUS_MALLOC_ERROR;
  }
  quillon_bulkdownload_default_initialize(*bulkdownload);
  return QUILLON_STATUS_OK;
}

void quillon_bulkdownload_default_initialize(quillon_bulkdownload *bulkdownload) {
  qlk::trace(__func__);
  bulkdownload->config = nullptr;
  bulkdownload->ssl_ctx_cb = nullptr;
  bulkdownload->iter = nullptr;
  bulkdownload->ssl_ctx_cb_user_data = nullptr;
  bulkdownload->user_name = nullptr;
  bulkdownload->zebUrl = nullptr;
  bulkdownload->request = nullptr;
  bulkdownload->result_cb = nullptr;
  bulkdownload->result_cb_user_data = nullptr;
}

QUILLON_STATUS quillon_bulkdownload_create(quillon_bulkdownload **bulkdownload, quillon_config *config) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  *bulkdownload = nullptr;
  if (config == nullptr) {
    wb_log(WB_LOG_ERROR, " null object at %s", THIS_PLACE);
    return QUILLON_STATUS_INVALID_ARGS;
  }
  QUILLON_STATUS status = quillon_bulkdownload_default_create(bulkdownload);
  if (status != QUILLON_STATUS_OK) return status;
  (*bulkdownload)->config = config;
  (*bulkdownload)->ssl_ctx_cb = qlk::_default_ssl_ctx_cb;
  status = quillon_string_copy_create(&(*bulkdownload)->user_name, config->user_name);
  if (status != QUILLON_STATUS_OK) {
    quillon_bulkdownload_destroy(bulkdownload);
    return status;
  }
  (*bulkdownload)->curlErrorCode = CURLE_OK;
  (*bulkdownload)->status = QUILLON_STATUS_OK;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_bulkdownload_destroy(quillon_bulkdownload **bulkdownload) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr || *bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  quillon_bulkdownload_iter_free((*bulkdownload)->iter);
  quillon_string_destroy(&(*bulkdownload)->user_name);
  quillon_string_destroy(&(*bulkdownload)->zebUrl);
  quillon_string_destroy(&(*bulkdownload)->request);
  delete *bulkdownload;
  *bulkdownload = nullptr;
  return QUILLON_STATUS_OK;
}

void quillon_bulkdownload_set_ssl_ctx_cb(quillon_bulkdownload *bulkdownload, quillon_bulkdownload_ssl_ctx_cb callback) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return;
  const qlk::PthreadLock lock(bulkdownload->settings);
  bulkdownload->ssl_ctx_cb = callback;
}

void quillon_bulkdownload_set_ssl_ctx_cb_user_data(quillon_bulkdownload *bulkdownload, void *user_data) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return;
  const qlk::PthreadLock lock(bulkdownload->settings);
  bulkdownload->ssl_ctx_cb_user_data = user_data;
}

QUILLON_STATUS quillon_bulkdownload_set_url(quillon_bulkdownload *bulkdownload, const char *url) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr || url == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  const size_t length = std::strlen(url);
  if (!qlk::string_length_ok(length)) return QUILLON_STATUS_INVALID_ARGS;
  quillon_string *fresh = nullptr;
  const QUILLON_STATUS status = quillon_string_create(&fresh, url, length);
  if (status == QUILLON_STATUS_OK) set_string(bulkdownload, &_quillon_bulkdownload::zebUrl, qlk::StringPtr(fresh));
  return status;
}

QUILLON_STATUS quillon_bulkdownload_set_request(quillon_bulkdownload *bulkdownload, wb_dom_node *request) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  set_string(bulkdownload, &_quillon_bulkdownload::request, nullptr);
  quillon_string *fresh = nullptr;
  if (const QUILLON_STATUS status = quillon_string_default_create(&fresh); status != QUILLON_STATUS_OK) return status;
  qlk::StringPtr string(fresh);
  char *xml = nullptr;
  size_t length = 0;
  if (!wb_serialize_xml(request, &xml, &length, nullptr)) {
    wb_log(WB_LOG_ERROR, "error serialize");
    return QUILLON_STATUS_WB_ERROR;
  }
  if (!qlk::string_length_ok(length)) {
    std::free(xml);
    return QUILLON_STATUS_INVALID_ARGS;
  }
  quillon_string_set(fresh, xml, length + 1, length);
  set_string(bulkdownload, &_quillon_bulkdownload::request, std::move(string));
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_bulkdownload_open(quillon_bulkdownload *bulkdownload) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  if (!quillon_string_validate(bulkdownload->request)) return qlk::refuse("a bulk download needs a request");
  if (bulkdownload->iter != nullptr) {
    if (bulkdownload->iter->is_started) return qlk::refuse("the bulk download is open already");
    free_iter(bulkdownload->iter);  // an earlier open could not start its thread
  }
  return quillon_bulkdownload_iter_open(bulkdownload, &bulkdownload->iter);
}

QUILLON_STATUS quillon_bulkdownload_next(quillon_bulkdownload *bulkdownload, wb_dom_node **p_node) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  return quillon_bulkdownload_iter_next(bulkdownload->iter, p_node);
}

QUILLON_STATUS quillon_bulkdownload_iter_next(quillon_bulkdownload_iter *iter, wb_dom_node **p_node) {
  qlk::trace(__func__);
  if (iter != nullptr && p_node == nullptr) return refuse_closed(__LINE__);
  if (iter == nullptr) {
    if (p_node != nullptr) *p_node = nullptr;
    return refuse_closed(__LINE__);
  }
  *p_node = qlk::getNextItemNode(&iter->parseData);
  qlk::BulkDownloadErrorCode parsed = qlk::eERR_SUCC;
  while (parsed == qlk::eERR_SUCC && *p_node == nullptr) {
    if (!take_chunk(iter->thrdsSharedData, iter->parseData)) break;
    qlk::cleanItemsNodesArr(&iter->parseData);
    parsed = qlk::xmlParse(iter);
    if (parsed == qlk::eERR_SUCC) *p_node = qlk::getNextItemNode(&iter->parseData);
  }
  if (const QUILLON_STATUS status = iter->bulkdownload->status; status != QUILLON_STATUS_OK) return status;
  if (parsed == qlk::eERR_SUCC) return QUILLON_STATUS_OK;
  wb_log(WB_LOG_ERROR, "next() failed at file %s line %d\n", __FILE__, __LINE__);
  return QUILLON_STATUS_XML_ERROR;
}

QUILLON_STATUS quillon_bulkdownload_close(quillon_bulkdownload *bulkdownload) {
  qlk::trace(__func__);
  if (bulkdownload == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  if (bulkdownload->iter == nullptr) return refuse_closed(__LINE__);
  const bool ended = qlk::curlEnd(bulkdownload->iter) == qlk::eERR_SUCC;
  quillon_bulkdownload_iter_free(bulkdownload->iter);
  return ended ? QUILLON_STATUS_OK : QUILLON_STATUS_REST_ERROR;
}

void quillon_bulkdownload_iter_free(quillon_bulkdownload_iter *iter) {
  qlk::trace(__func__);
  if (iter == nullptr) return;
  if (iter->is_started) qlk::curlEnd(iter);
  if (iter->bulkdownload->iter == iter) iter->bulkdownload->iter = nullptr;
  free_iter(iter);
}

QUILLON_STATUS quillon_bulkdownload_get_error_details(quillon_bulkdownload *bulkdownload, char *description,
                                                      int description_length) {
  if (bulkdownload == nullptr || description == nullptr || description_length < 1) return QUILLON_STATUS_INVALID_ARGS;
  const auto room = static_cast<size_t>(description_length);
  std::memset(description, 0, room);
  const char *const text = curl_easy_strerror(bulkdownload->curlErrorCode);
  std::memcpy(description, text, std::min(std::strlen(text) + 1, room) - 1);
  return QUILLON_STATUS_OK;
}
