// Nothing here throws: memory comes from malloc.
#include "quillon_list.h"

#include <cstdlib>

#include "guard.h"
#include "owners.h"

namespace {

const void *address(const void *pointer) { return pointer; }

// The link that points to the node at the index, or the null link at the end.
_node **link_at(quillon_list *list, size_t index) {
  _node **link = &list->head;
  for (; index > 0 && *link != nullptr; --index) link = &(*link)->next;
  return link;
}

_node **last_link(quillon_list *list) {
  _node **link = &list->head;
  while (*link != nullptr) link = &(*link)->next;
  return link;
}

}  // namespace

_node *qlk::createnode(void *data) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(data='%p' \n)", __func__, address(data));
  auto *created = static_cast<_node *>(std::calloc(1, sizeof(_node)));
  if (created != nullptr) {
    created->data = data;
  } else {
    qlk::out_of_memory(__func__);
  }
  return created;
}

void quillon_list_default_initialize(quillon_list *list) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p' \n)", __func__, address(list));
  *list = {};
}

QUILLON_STATUS quillon_list_default_create(quillon_list **out) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p' \n)", __func__, address(out));
  if (out == nullptr) return qlk::refuse("list is null");
  *out = static_cast<quillon_list *>(std::calloc(1, sizeof(quillon_list)));
  return *out != nullptr ? QUILLON_STATUS_OK : qlk::out_of_memory(__func__);
}

QUILLON_STATUS quillon_list_create(quillon_list **out, void (*free_callback)(void *data),
                                   bool (*compare_callback)(const void *element, const void *value)) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', fcb='%p', ccb='%p' \n)", __func__, address(out),
         reinterpret_cast<const void *>(free_callback), reinterpret_cast<const void *>(compare_callback));
  if (out == nullptr) return qlk::refuse("list is null");
  *out = nullptr;
  const QUILLON_STATUS status = quillon_list_default_create(out);
  if (status != QUILLON_STATUS_OK) return status;
  (*out)->fcb = free_callback;
  (*out)->ccb = compare_callback;
  return QUILLON_STATUS_OK;
}

void quillon_list_destroy(quillon_list **list) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p' \n)", __func__, address(list));
  if (list == nullptr || *list == nullptr) return;
  quillon_list_delete(*list);
  std::free(*list);
  *list = nullptr;
}

bool quillon_list_push_back(quillon_list *list, void *data) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', data='%p' \n)", __func__, address(list), address(data));
  if (list == nullptr || data == nullptr) return false;
  _node *added = qlk::createnode(data);
  if (added == nullptr) return false;
  *last_link(list) = added;
  ++list->length;
  return true;
}

void quillon_list_remove_or_delete(quillon_list *list, size_t index, bool isdelete) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', index='%zu', isdelete='%d' \n)", __func__, address(list), index, isdelete);
  if (list == nullptr) return;
  _node **link = link_at(list, index);
  const qlk::MallocPtr<_node> removed(*link);
  if (removed == nullptr) return;
  *link = removed->next;
  --list->length;
  if (isdelete && list->fcb != nullptr) list->fcb(removed->data);
}

void quillon_list_erase_at(quillon_list *list, size_t index) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', index='%zu' \n)", __func__, address(list), index);
  quillon_list_remove_or_delete(list, index, true);
}

void quillon_list_clear_at(quillon_list *list, size_t index) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', index='%zu' \n)", __func__, address(list), index);
  quillon_list_remove_or_delete(list, index, false);
}

void *quillon_list_get_at(const quillon_list *list, size_t index) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', index='%zu' \n)", __func__, address(list), index);
  if (list == nullptr || index >= list->length) return nullptr;
  const _node *found = list->head;
  for (; index > 0 && found != nullptr; --index) found = found->next;
  return found != nullptr ? found->data : nullptr;
}

size_t quillon_list_size(const quillon_list *list) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p' \n)", __func__, address(list));
  if (list == nullptr) return 0;
  size_t count = 0;
  for (const _node *next = list->head; next != nullptr && count < list->length; next = next->next) ++count;
  return count;
}

void quillon_list_delete(quillon_list *list) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p' \n)", __func__, address(list));
  if (list == nullptr) return;
  while (list->length != 0 && list->head != nullptr) {
    const qlk::MallocPtr<_node> removed(list->head);
    list->head = removed->next;
    --list->length;
    if (list->fcb != nullptr) list->fcb(removed->data);
  }
  list->length = 0;
  list->head = nullptr;
}

int quillon_list_find(const quillon_list *list, const void *value) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(list='%p', data='%p' \n)", __func__, address(list), address(value));
  if (list == nullptr || list->ccb == nullptr) return -1;
  int index = 0;
  for (const _node *next = list->head; next != nullptr; next = next->next, ++index) {
    if (list->ccb(next->data, value)) return index;
  }
  return -1;
}
