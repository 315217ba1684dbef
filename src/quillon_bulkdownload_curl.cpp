#include "quillon_bulkdownload_curl.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bulk_transfers.h"
#include "guard.h"
#include "owners.h"
#include "pthread_lock.h"
#include "quillon_bulkdownload.h"
#include "quillon_grid.h"
#include "signals_blocked.h"

namespace {

constexpr size_t CURL_TO_WBLOG_BUFFER_SIZE = 32768;
constexpr long kConnectSeconds = 50;  // TCP and TLS
// A parser takes 2 ms and more for a full ring.
constexpr timespec kNap = {.tv_sec = 0, .tv_nsec = 200'000};
constexpr unsigned kNapsMax = 10;
constexpr char contentFormat[] = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?> )";
constexpr char xmltaghead[] = "Content-Type: application/xml";
constexpr char usertag[] = "user:";
constexpr char domain[] = "@" GRID_DOMAIN;

struct EasyCleanup {
  void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
};
using EasyPtr = std::unique_ptr<CURL, EasyCleanup>;
struct SlistFree {
  void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
using SlistPtr = std::unique_ptr<curl_slist, SlistFree>;

// What curl reads until the transfer is over.
struct Transfer {
  qlk::StringPtr user;
  EasyPtr handle;
  SlistPtr headers;
  qlk::StringPtr body;
  char error[CURL_ERROR_SIZE];
};

// curl's global state is counted, and since 7.84 setting it up is safe beside other users of curl in the process. It is never
// given back: others may be inside curl at any time, and it is one block for the life of the process.
bool is_curl_ready() {
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ready;
}

// curl asks here at least once a second, also while it resolves the name, connects or waits: what lets a close break it off.
int on_progress(void *userdata, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<const qlk::ThrdsSharedData *>(userdata)->stopWrite ? 1 : 0;
}

bool append_header(SlistPtr &headers, const char *line) {
  curl_slist *const longer = curl_slist_append(headers.get(), line);
  if (longer == nullptr) return false;
  static_cast<void>(headers.release());
  headers.reset(longer);
  return true;
}

// "user:" and the bare JID; empty when something is missing.
void fill_user_header(quillon_string *header, const quillon_string *user_name) {
  const bool filled = quillon_string_assign_cstr(header, usertag, sizeof usertag - 1) == QUILLON_STATUS_OK &&
                      quillon_string_append(header, user_name) == QUILLON_STATUS_OK &&
                      quillon_string_append_cstr(header, domain, sizeof domain - 1) == QUILLON_STATUS_OK;
  if (!filled) quillon_string_set_data_len(header, 0);
}

// Leaves copy null when nothing is set. False when memory is exhausted.
bool copy_setting(const quillon_bulkdownload &bulkdownload, quillon_string *_quillon_bulkdownload::*field, qlk::StringPtr &copy) {
  const qlk::PthreadLock lock(bulkdownload.settings);
  if (bulkdownload.*field == nullptr) return true;
  quillon_string *fresh = nullptr;
  const bool copied = quillon_string_copy_create(&fresh, bulkdownload.*field) == QUILLON_STATUS_OK;
  copy.reset(fresh);
  return copied;
}

void set_url(CURL *handle, const quillon_string *url) {
  const bool given = quillon_string_validate(url);
  wb_log(given ? WB_LOG_INFO : WB_LOG_ERROR, "curl_easy_setopt() for CURLOPT_URL: '%s'\n", quillon_string_cstr(url));
  if (given) curl_easy_setopt(handle, CURLOPT_URL, quillon_string_cstr(url));
}

struct TlsCallback {
  quillon_bulkdownload_ssl_ctx_cb function;
  void *user_data;
};

TlsCallback tls_callback_of(const quillon_bulkdownload &bulkdownload) {
  const qlk::PthreadLock lock(bulkdownload.settings);
  return {bulkdownload.ssl_ctx_cb, bulkdownload.ssl_ctx_cb_user_data};
}

// What the service is asked, and by whom. False when memory is exhausted: half a request is not sent.
bool make_request(Transfer &transfer, const quillon_bulkdownload &bulkdownload) {
  transfer.body.reset(qlk::createRequestContent(&bulkdownload));
  if (transfer.body == nullptr || !append_header(transfer.headers, xmltaghead)) return false;
  fill_user_header(transfer.user.get(), bulkdownload.user_name);
  const bool has_user = quillon_string_validate(transfer.user.get());
  if (!has_user) return !quillon_string_validate(bulkdownload.user_name);
  return append_header(transfer.headers, quillon_string_cstr(transfer.user.get()));
}

// False when memory is exhausted.
bool set_options(Transfer &transfer, quillon_bulkdownload_iter &iter) {
  const quillon_bulkdownload &bulkdownload = *iter.bulkdownload;
  CURL *const handle = transfer.handle.get();
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, transfer.error);
  curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, qlk::curl_logtrace);
  curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L);
  qlk::StringPtr url;
  if (!copy_setting(bulkdownload, &_quillon_bulkdownload::zebUrl, url)) return false;
  set_url(handle, url.get());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, transfer.headers.get());
  curl_easy_setopt(handle, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY));
  // The peer is verified by the TLS context as the callback prepares it.
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
  if (quillon_string_validate(transfer.body.get())) {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, quillon_string_cstr(transfer.body.get()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(quillon_string_length(transfer.body.get())));
  }
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, qlk::write);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &iter.thrdsSharedData);
  if (tls_callback_of(bulkdownload).function != nullptr) {
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, qlk::_ssl_ctx_cb);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &iter);
  }

  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, on_progress);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &iter.thrdsSharedData);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  // A handshake that cannot go on, for want of memory for example, fails after this and not after five minutes.
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // Else curl adds the authorities that the system trusts to those of the TLS context.
  curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr);
  curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
#if LIBCURL_VERSION_NUM >= 0x075700
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);  // a name that is still being looked up does not hold a close
#endif
  return curl_easy_setopt(handle, CURLOPT_PROXY, "") == CURLE_OK;  // else one is taken from the environment
}

void fail_for_memory(quillon_bulkdownload &bulkdownload) {
  bulkdownload.status = QUILLON_STATUS_MALLOC_ERROR;
  wb_log(WB_LOG_ERROR, "curlThrdFunc failed: QUILLON_STATUS_MALLOC_ERROR at file %s line %d\n", __FILE__, __LINE__);
}

void perform(Transfer &transfer, quillon_bulkdownload_iter &iter) {
  quillon_bulkdownload &bulkdownload = *iter.bulkdownload;
  quillon_string *user = nullptr;
  const bool made = quillon_string_default_create(&user) == QUILLON_STATUS_OK;
  transfer.user.reset(user);
  if (!made || !make_request(transfer, bulkdownload)) return fail_for_memory(bulkdownload);
  bulkdownload.status = QUILLON_STATUS_OK;
  if (is_curl_ready()) transfer.handle.reset(curl_easy_init());
  if (transfer.handle == nullptr) {
    bulkdownload.status = QUILLON_STATUS_REST_INIT_ERROR;
    return wb_log(WB_LOG_ERROR, "curlThrdFunc failed: unable to initialize curl at file %s line %d\n", __FILE__, __LINE__);
  }
  if (!set_options(transfer, iter)) return fail_for_memory(bulkdownload);
  const CURLcode result = curl_easy_perform(transfer.handle.get());
  bulkdownload.curlErrorCode = result;
  bulkdownload.status = result == CURLE_OK ? QUILLON_STATUS_OK : QUILLON_STATUS_REST_ERROR;
  if (result == CURLE_OK) return;
  wb_log(WB_LOG_ERROR, "curl_easy_perform() failed: (%d) %s at file %s line %d\n", static_cast<int>(result),
         curl_easy_strerror(result), __FILE__, __LINE__);
}

void finish(qlk::ThrdsSharedData &shared) {
  const qlk::PthreadLock lock(shared.mutex);
  shared.curlThrdFinished = true;
  pthread_cond_signal(&shared.notEmpty);
}

bool is_full(qlk::ThrdsSharedData &shared) {
  const qlk::PthreadLock lock(shared.mutex);
  return shared.count == qlk::kChunksMax && !shared.stopWrite;
}

// Waits until the slot at head may be filled. False: the transfer is to give up.
bool wait_for_room(qlk::ThrdsSharedData &shared) {
  // A parser at work makes room in a moment, and it is what a download waits for: to be woken costs it a system call for each
  // chunk. So the transfer looks again a few times by itself.
  for (unsigned naps = 0; naps < kNapsMax && is_full(shared); ++naps) nanosleep(&kNap, nullptr);
  const qlk::PthreadLock lock(shared.mutex);
  while (shared.count == qlk::kChunksMax && !shared.stopWrite) pthread_cond_wait(&shared.notFull, &shared.mutex);
  return !shared.stopWrite;
}

// Puts the bytes into the slot, into its old memory if there is room. False when memory is exhausted; the slot is empty then.
bool fill_slot(qlk::ThrdsSharedData &shared, size_t slot, const char *bytes, size_t length) {
  char *&chunk = shared.chunkArr[slot];
  if (chunk == nullptr || shared.chunkCapacity[slot] < length + 1) {
    std::free(chunk);
    chunk = static_cast<char *>(std::malloc(length + 1));
    shared.chunkCapacity[slot] = chunk != nullptr ? length + 1 : 0;
    if (chunk == nullptr) return false;
  }
  std::memcpy(chunk, bytes, length);
  chunk[length] = '\0';
  shared.chunkLength[slot] = length;
  return true;
}

}  // namespace

void qlk::initThrdsSharedData(ThrdsSharedData *shared) {
  if (shared == nullptr) return;
  std::fill(std::begin(shared->chunkArr), std::end(shared->chunkArr), nullptr);
  std::fill(std::begin(shared->chunkLength), std::end(shared->chunkLength), 0);
  std::fill(std::begin(shared->chunkCapacity), std::end(shared->chunkCapacity), 0);
  shared->head = shared->tail = shared->count = 0;
  shared->curlThrdFinished = false;
  shared->stopWrite = false;
  pthread_mutex_init(&shared->mutex, nullptr);
  pthread_cond_init(&shared->notEmpty, nullptr);
  pthread_cond_init(&shared->notFull, nullptr);
}

void qlk::freeThrdsSharedData(ThrdsSharedData *shared) {
  if (shared == nullptr) return;
  for (char *&chunk : shared->chunkArr) {
    std::free(chunk);
    chunk = nullptr;
  }
  pthread_mutex_destroy(&shared->mutex);
  pthread_cond_destroy(&shared->notEmpty);
  pthread_cond_destroy(&shared->notFull);
}

qlk::BulkDownloadErrorCode qlk::curlInvoke(quillon_bulkdownload_iter *iter) {
  if (iter == nullptr) return eERR_FAILED;
  // A write to a connection that the server has closed raises SIGPIPE, which curl leaves to us.
  const SignalsBlocked blocked;
  iter->is_started = pthread_create(&iter->thrd, nullptr, curlThrdFunc, iter) == 0;
  if (iter->is_started) return eERR_SUCC;
  finish(iter->thrdsSharedData);  // a next would wait for it
  wb_log(WB_LOG_ERROR, "pthread_create() failed at file %s line %d\n", __FILE__, __LINE__);
  return eERR_FAILED;
}

qlk::BulkDownloadErrorCode qlk::curlEnd(quillon_bulkdownload_iter *iter) {
  if (iter == nullptr) return eERR_FAILED;
  stop_transfer(iter->thrdsSharedData);
  const bool joined = iter->is_started && pthread_join(iter->thrd, nullptr) == 0;
  iter->is_started = false;
  if (joined) return eERR_SUCC;
  wb_log(WB_LOG_ERROR, "pthread_join() failed at file %s line %d\n", __FILE__, __LINE__);
  return eERR_FAILED;
}

quillon_string *qlk::createRequestContent(const quillon_bulkdownload *bulkdownload) {
  if (bulkdownload == nullptr) return nullptr;
  StringPtr content = make_string(std::string_view(contentFormat, sizeof contentFormat - 1)), request;
  if (content == nullptr || !copy_setting(*bulkdownload, &_quillon_bulkdownload::request, request)) return nullptr;
  const QUILLON_STATUS appended = quillon_string_append(content.get(), request.get());
  if (appended == QUILLON_STATUS_MALLOC_ERROR) return nullptr;
  if (appended != QUILLON_STATUS_OK) {
    wb_log(WB_LOG_ERROR, "quillon_string_insert_cstr() failed at file %s line %d\n", __FILE__, __LINE__);
  }
  return content.release();
}

void *qlk::curlThrdFunc(void *userdata) {
  trace(__func__);
  auto *const iter = static_cast<quillon_bulkdownload_iter *>(userdata);
  if (iter == nullptr || iter->bulkdownload == nullptr) {
    wb_log(WB_LOG_ERROR, "curlThrdFunc failed: Invalid user data at file %s line %d\n", __FILE__, __LINE__);
    if (iter != nullptr) finish(iter->thrdsSharedData);
    return nullptr;
  }
  const QUILLON_STATUS performed = guarded(__func__, [&]() -> QUILLON_STATUS {
    const BulkTransfer under_way(iter->thrdsSharedData);
    Transfer transfer;
    if (under_way) {
      perform(transfer, *iter);
    } else {
      iter->bulkdownload->status = QUILLON_STATUS_REST_ERROR;
    }
    return QUILLON_STATUS_OK;
  });
  if (performed != QUILLON_STATUS_OK) fail_for_memory(*iter->bulkdownload);
  finish(iter->thrdsSharedData);
  return nullptr;
}

size_t qlk::write(char *ptr, size_t size, size_t nmemb, void *userdata) {
  if (userdata == nullptr) return 0;
  trace(__func__);
  const size_t length = size * nmemb;
  wb_log(WB_LOG_DEBUG, "Curl write callback - chunk size = %zu bytes\n", length);
  ThrdsSharedData &shared = *static_cast<ThrdsSharedData *>(userdata);
  if (!wait_for_room(shared)) return 0;
  const bool filled = fill_slot(shared, shared.head, ptr, length);
  if (!filled) wb_log(WB_LOG_ERROR, "malloc() failed at file %s line %d\n", __FILE__, __LINE__);
  const PthreadLock lock(shared.mutex);
  ++shared.count;
  if (filled) shared.head = (shared.head + 1) % kChunksMax;
  pthread_cond_signal(&shared.notEmpty);
  return filled ? length : 0;
}

int qlk::curl_logtrace(CURL * /*handle*/, curl_infotype type, char *data, size_t size, void * /*userp*/) {
  if (type != CURLINFO_TEXT || wb_log_get_level() < WB_LOG_DEBUG) return 0;
  char text[CURL_TO_WBLOG_BUFFER_SIZE];
  const size_t length = std::min(size, sizeof text - 1);
  std::memcpy(text, data, length);
  text[length] = '\0';
  wb_log(WB_LOG_DEBUG, "CURL Info: %s", text);
  return 0;
}

CURLcode qlk::_ssl_ctx_cb(CURL * /*curl*/, void *sslctx, void *parm) {
  trace(__func__);
  if (parm == nullptr) return CURLE_GOT_NOTHING;
  auto *const context = static_cast<SSL_CTX *>(sslctx);
  // curl lets the environment name a file for the session's secrets.
  if (context != nullptr) SSL_CTX_set_keylog_callback(context, nullptr);
  quillon_bulkdownload &bulkdownload = *static_cast<quillon_bulkdownload_iter *>(parm)->bulkdownload;
  const TlsCallback callback = tls_callback_of(bulkdownload);
  if (callback.function != nullptr) callback.function(&bulkdownload, sslctx, callback.user_data);
  // Else OpenSSL would read on for as long as the service sends new keys and tickets, and a close would wait for it.
  if (context != nullptr) SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  if (context != nullptr && SSL_CTX_get_min_proto_version(context) < TLS1_2_VERSION) {
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  }
  return CURLE_OK;
}
