// One bulk download: what the application sets, and, while it is open, the transfer thread, the ring between the two threads and
// the parser.
#pragma once

#include <curl/curl.h>
#include <pthread.h>
#include <warbler/items.h>

#include <atomic>
#include <ctime>

#include "quillon.h"
#include "quillon_bulkdownload_curl.h"
#include "quillon_bulkdownload_xml_parse.h"

struct _quillon_bulkdownload {
  quillon_config *config;  // borrowed
  quillon_bulkdownload_ssl_ctx_cb ssl_ctx_cb;
  quillon_bulkdownload_iter *iter;  // null: not open
  void *ssl_ctx_cb_user_data;
  quillon_string *user_name;
  quillon_string *zebUrl;
  quillon_string *request;
  quillon_bulkdownload_open_result_cb result_cb;  // as its user data: nobody's
  void *result_cb_user_data;
  std::atomic<CURLcode> curlErrorCode;  // of the last transfer; written by its thread, as is status
  std::atomic<QUILLON_STATUS> status;
  // Private addition, held while ssl_ctx_cb, its user data, zebUrl or request are set, and while the transfer thread reads them.
  mutable pthread_mutex_t settings = PTHREAD_MUTEX_INITIALIZER;
};

struct _quillon_bulkdownload_iter {
  quillon_bulkdownload *bulkdownload;
  time_t begin;  // as end: nobody's
  time_t end;
  pthread_t thrd;
  qlk::ThrdsSharedData thrdsSharedData;
  wb_item_reader *parser;
  qlk::ParseData parseData;
  bool is_started;  // private addition: thrd is to be joined
};

namespace qlk {

enum BulkDownloadErrorCode : int { eERR_SUCC = 0, eERR_FAILED = 1 };

// The TLS-context callback of an object for which none was set: fills the context from the configuration.
void _default_ssl_ctx_cb(quillon_bulkdownload *bulkdownload, void *ssl_ctx, void *user_data);

}  // namespace qlk
