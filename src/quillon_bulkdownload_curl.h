// The transfer of a bulk download on a thread of its own, and the ring of chunks through which the response comes to the
// application's thread.
#pragma once

#include <curl/curl.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "quillon.h"

namespace qlk {

enum BulkDownloadErrorCode : int;

constexpr size_t kChunksMax = 50;

// The transfer thread fills the slot at head, and the application's thread takes from the one at tail. A slot that is not between
// the two is the transfer thread's alone, so it is filled without the lock.
struct _ThrdsSharedData {
  char *chunkArr[kChunksMax];  // each with a zero at its end; kept after it was taken, until the slot is filled again
  size_t head;
  size_t tail;
  size_t count;
  bool curlThrdFinished;
  std::atomic<bool> stopWrite;  // set under the lock, and looked at without it while curl waits for the server
  pthread_mutex_t mutex;        // of all above
  pthread_cond_t notEmpty;
  pthread_cond_t notFull;
  // Private additions: of the chunks, without the zero, and of the memory that they lie in.
  size_t chunkLength[kChunksMax];
  size_t chunkCapacity[kChunksMax];
};
using ThrdsSharedData = _ThrdsSharedData;

void initThrdsSharedData(ThrdsSharedData *shared);
void freeThrdsSharedData(ThrdsSharedData *shared);

// Starts the transfer of an iterator. Any thread.
BulkDownloadErrorCode curlInvoke(quillon_bulkdownload_iter *iter);

// Makes the transfer give up, waits until it has, and joins its thread. Any thread but that one.
BulkDownloadErrorCode curlEnd(quillon_bulkdownload_iter *iter);

// The body of the POST; null when memory is exhausted.
quillon_string *createRequestContent(const quillon_bulkdownload *bulkdownload);

// What follows runs on the transfer thread: its body, and curl's callbacks.
void *curlThrdFunc(void *userdata);
size_t write(char *ptr, size_t size, size_t nmemb, void *userdata);
int curl_logtrace(CURL *handle, curl_infotype type, char *data, size_t size, void *userp);
CURLcode _ssl_ctx_cb(CURL *curl, void *sslctx, void *parm);

}  // namespace qlk
