// Nothing here throws.
#include <cstdlib>

#include "owners.h"
#include "pthread_lock.h"
#include "quillon.h"

namespace {

_linked_list *unlink_first(quillon_queue *queue) {
  _linked_list *first = queue->first;
  if (first == nullptr) return nullptr;
  queue->first = first->next;
  if (queue->first == nullptr) queue->last = nullptr;
  return first;
}

}  // namespace

void quillon_queue_create(quillon_queue **out, quillon_queue_items_free_callback free_callback) {
  if (out == nullptr) return;
  *out = nullptr;
  qlk::MallocPtr<quillon_queue> queue(static_cast<quillon_queue *>(std::calloc(1, sizeof(quillon_queue))));
  if (queue == nullptr) return;
  queue->free_callback = free_callback;
  if (pthread_mutex_init(&queue->mutex, nullptr) != 0) return;
  if (pthread_cond_init(&queue->cond, nullptr) != 0) {
    pthread_mutex_destroy(&queue->mutex);
    return;
  }
  *out = queue.release();
}

void quillon_queue_push(quillon_queue *queue, void *item) {
  if (queue == nullptr) return;
  auto *added = static_cast<_linked_list *>(std::malloc(sizeof(_linked_list)));
  if (added == nullptr) return;
  *added = {item, nullptr};
  const qlk::PthreadLock lock(queue->mutex);
  (queue->last != nullptr ? queue->last->next : queue->first) = added;
  queue->last = added;
  pthread_cond_signal(&queue->cond);
}

void *quillon_queue_pop(quillon_queue *queue) {
  if (queue == nullptr) return nullptr;
  qlk::MallocPtr<_linked_list> popped;  // freed after the lock is let go
  {
    const qlk::PthreadLock lock(queue->mutex);
    if (queue->first == nullptr) pthread_cond_wait(&queue->cond, &queue->mutex);
    popped.reset(unlink_first(queue));
  }
  return popped != nullptr ? popped->item : nullptr;
}

void quillon_queue_destroy(quillon_queue *queue) {
  if (queue == nullptr) return;
  while (const qlk::MallocPtr<_linked_list> node{unlink_first(queue)}) {
    if (queue->free_callback != nullptr) queue->free_callback(node->item);
  }
  pthread_cond_destroy(&queue->cond);
  pthread_mutex_destroy(&queue->mutex);
  std::free(queue);
}

void quillon_queue_string_free(void *item) {
  auto *string = static_cast<quillon_string *>(item);
  quillon_string_destroy(&string);
}
