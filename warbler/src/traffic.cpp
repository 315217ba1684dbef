#include "traffic.h"

#include <utility>

#include "byte_buffer.h"
#include "guard.h"
#include "secrets.h"
#include "serializer.h"

namespace wb {

void Traffic::read(wb_client_statistics &statistics) const {
  statistics.stanzas_sent = stanzas_sent_.load(std::memory_order_relaxed);
  statistics.stanzas_received = stanzas_received_.load(std::memory_order_relaxed);
  statistics.bytes_sent = bytes_sent_.load(std::memory_order_relaxed);
  statistics.bytes_received = bytes_received_.load(std::memory_order_relaxed);
  statistics.bytes_waiting = waiting_.load(std::memory_order_relaxed);
  statistics.bytes_waiting_highest = waiting_highest_.load(std::memory_order_relaxed);
}

void Traffic::set_trace(wb_client_trace function, void *arg) {
  const std::lock_guard lock(mutex_);
  function_ = function;
  arg_ = arg;
  is_traced_.store(function != nullptr, std::memory_order_relaxed);
}

void Traffic::show(wb_trace_direction direction, std::string_view xml) {
  std::unique_lock lock(mutex_);
  const wb_client_trace function = function_;
  void *const arg = arg_;
  lock.unlock();
  if (function == nullptr) return;
  guarded(nullptr, __func__, [&] {
    std::string shown(xml);
    hide_secrets(shown.data());
    function(direction, shown.c_str(), shown.size(), arg);
    return true;
  });
}

void Traffic::show_sent(const std::vector<std::string> &elements) {
  for (const std::string &element : elements) show(WB_TRACE_SENT, element);
}

void Traffic::show_received(const wb_dom_node *element) {
  ByteBuffer bytes;
  if (serialize(element, stream_namespace(), bytes, nullptr)) show(WB_TRACE_RECEIVED, bytes.view());
}

}  // namespace wb
