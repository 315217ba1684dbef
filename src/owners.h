// Owners of the library's C objects: whoever creates one puts it into its owner at once, so that every way out frees it.
#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>

#include "quillon.h"

namespace qlk {

struct StringDelete {
  void operator()(quillon_string *string) const { quillon_string_destroy(&string); }
};
struct ListDelete {
  void operator()(quillon_list *list) const { quillon_list_destroy(&list); }
};
struct ArrayDelete {
  void operator()(quillon_array *array) const { quillon_array_destroy(array); }
};
struct QueueDelete {
  void operator()(quillon_queue *queue) const { quillon_queue_destroy(queue); }
};
struct MonitorDelete {
  void operator()(quillon_monitor *monitor) const {
    if (monitor != nullptr) quillon_monitor_destroy(monitor);
  }
};
struct DomContextDelete {
  void operator()(wb_dom_ctx *context) const { wb_dom_context_destroy(context); }
};
struct TableDelete {
  void operator()(wb_htable *table) const { wb_htable_destroy(table); }
};
struct MallocDelete {
  void operator()(void *memory) const { std::free(memory); }
};

using StringPtr = std::unique_ptr<quillon_string, StringDelete>;
using ListPtr = std::unique_ptr<quillon_list, ListDelete>;
using ArrayPtr = std::unique_ptr<quillon_array, ArrayDelete>;
using QueuePtr = std::unique_ptr<quillon_queue, QueueDelete>;
using MonitorPtr = std::unique_ptr<quillon_monitor, MonitorDelete>;
using DomContextPtr = std::unique_ptr<wb_dom_ctx, DomContextDelete>;  // one reference of the context
using TablePtr = std::unique_ptr<wb_htable, TableDelete>;
template <typename T>
using MallocPtr = std::unique_ptr<T, MallocDelete>;

// A string of its own that holds the text; null when the text is empty or longer than a string may be, or memory is exhausted.
inline StringPtr make_string(std::string_view text) {
  quillon_string *string = nullptr;
  quillon_string_create(&string, text.data(), text.size());
  return StringPtr(string);
}

// The string's text, valid while the string is; empty for null and for a string without content.
inline std::string_view text_of(const quillon_string *string) {
  return string != nullptr && string->buffer != nullptr ? std::string_view(string->buffer, string->data_len) : std::string_view();
}

}  // namespace qlk
