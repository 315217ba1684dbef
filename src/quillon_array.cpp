// Nothing here throws: memory comes from malloc.
#include "quillon_array.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t kInitialSlots = 16;

void **allocate_slots(int32_t count) { return static_cast<void **>(std::calloc(static_cast<size_t>(count), sizeof(void *))); }

// Doubles the slots. When memory is exhausted the array stays as it is.
void _increase(quillon_array *array) {
  if (array->max > INT32_MAX / 2) return;
  void **grown = allocate_slots(array->max * 2);
  if (grown == nullptr) return;
  std::memcpy(grown, array->items, static_cast<size_t>(array->max) * sizeof(void *));
  std::free(array->items);
  array->items = grown;
  array->max *= 2;
}

}  // namespace

bool qlk::array_add(quillon_array *array, void *item) {
  if (array == nullptr) return false;
  // One slot is kept free. It is used up when growing fails, and growing is then tried again with every further item.
  if (array->max <= array->size + 1) _increase(array);
  if (array->size >= array->max) return false;
  array->items[array->size++] = item;
  return true;
}

void quillon_array_create(quillon_array **out, quillon_array_items_equal_callback equal_callback,
                          quillon_array_items_free_callback free_callback) {
  if (out == nullptr) return;
  *out = nullptr;
  auto *array = static_cast<quillon_array *>(std::malloc(sizeof(quillon_array)));
  if (array == nullptr) return;
  *array = {allocate_slots(kInitialSlots), 0, kInitialSlots, equal_callback, free_callback};
  if (array->items == nullptr) {
    std::free(array);
    return;
  }
  *out = array;
}

void quillon_array_destroy(quillon_array *array) {
  if (array == nullptr) return;
  if (array->free_callback != nullptr) {
    for (int32_t i = 0; i < array->size; ++i) {
      void *item = array->items[i];
      array->items[i] = nullptr;
      array->free_callback(item);
    }
  }
  std::free(array->items);
  std::free(array);
}

void quillon_array_add(quillon_array *array, void *item) { qlk::array_add(array, item); }

int32_t quillon_array_index_of(const quillon_array *array, const void *item) {
  if (array == nullptr) return -1;
  for (int32_t i = 0; i < array->size; ++i) {
    if (array->equal_callback != nullptr ? array->equal_callback(array->items[i], item) : array->items[i] == item) return i;
  }
  return -1;
}

void quillon_array_remove(quillon_array *array, const void *item) {
  const int32_t index = quillon_array_index_of(array, item);
  if (index < 0) return;
  void **slot = array->items + index;
  if (array->free_callback != nullptr) array->free_callback(*slot);
  std::memmove(slot, slot + 1, static_cast<size_t>(array->size - index - 1) * sizeof(void *));
  --array->size;
}

void *quillon_array_get(const quillon_array *array, int32_t index) {
  return array != nullptr && index >= 0 && index < array->size ? array->items[index] : nullptr;
}

int32_t quillon_array_size(const quillon_array *array) { return array != nullptr ? array->size : -1; }

bool quillon_array_string_equal(const void *item1, const void *item2) {
  return quillon_string_equals(static_cast<const quillon_string *>(item1), static_cast<const quillon_string *>(item2));
}

void quillon_array_string_free(void *item) {
  auto *string = static_cast<quillon_string *>(item);
  quillon_string_destroy(&string);
}
