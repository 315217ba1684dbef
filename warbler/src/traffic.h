// What passes through a client: counted always, and shown where somebody wants to see it.
#pragma once

#include <warbler/inspect.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace wb {

class Traffic {
 public:
  Traffic() = default;
  Traffic(const Traffic &) = delete;
  Traffic &operator=(const Traffic &) = delete;

  // Within a pass, in which one thread at a time is: no counter needs more than to be read whole.
  void count_sent_stanzas(uint64_t stanzas) { add(stanzas_sent_, stanzas); }
  void count_received_stanza() { add(stanzas_received_, 1); }
  void count_sent_bytes(size_t bytes) { add(bytes_sent_, bytes); }
  void count_received_bytes(size_t bytes) { add(bytes_received_, bytes); }
  // With the channel's lock held.
  void set_waiting(size_t bytes) {
    waiting_.store(bytes, std::memory_order_relaxed);
    if (bytes > waiting_highest_.load(std::memory_order_relaxed)) waiting_highest_.store(bytes, std::memory_order_relaxed);
  }

  // Any thread.
  void read(wb_client_statistics &statistics) const;
  bool is_traced() const { return is_traced_.load(std::memory_order_relaxed); }
  void set_trace(wb_client_trace function, void *arg);

  // On the loop, with no lock held: the text of one element, or several. What there is no memory for is left out.
  void show(wb_trace_direction direction, std::string_view xml);
  void show_sent(const std::vector<std::string> &elements);
  // What came.
  void show_received(const wb_dom_node *element);

 private:
  static void add(std::atomic<uint64_t> &counter, uint64_t more) {
    counter.store(counter.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
  }

  std::atomic<uint64_t> stanzas_sent_ = 0, stanzas_received_ = 0, bytes_sent_ = 0, bytes_received_ = 0;
  std::atomic<size_t> waiting_ = 0, waiting_highest_ = 0;

  std::atomic<bool> is_traced_ = false;
  std::mutex mutex_;
  wb_client_trace function_ = nullptr;  // under mutex_
  void *arg_ = nullptr;                 // under mutex_
};

}  // namespace wb
