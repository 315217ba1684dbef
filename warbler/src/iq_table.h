// The IQs that wait for an answer. Not locked: the channel that holds it is.
#pragma once

#include <warbler/client.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace wb {

struct TrackedIq {
  wb_client_iq_callback callback;
  void *arg;
};

// Ids are 128 random bits in hexadecimal digits, so that nobody can answer in another's place by guessing.
class IqTable {
 public:
  using Clock = std::chrono::steady_clock;

  // A fresh id: 32 digits.
  std::string make_id();

  // Throws std::bad_alloc, with the table as it was.
  void add(const std::string &id, std::string_view to, TrackedIq iq, std::chrono::seconds timeout);

  // Takes out the IQ of that id if the answer comes from where the IQ went. own_jid is the session's, whose server may answer for
  // it.
  bool take(std::string_view id, std::string_view from, std::string_view own_jid, TrackedIq &iq);

  // Takes out the one whose time was over first, if there is one by then. Needs no memory, so that none is forgotten for want of
  // it.
  bool take_expired(Clock::time_point now, TrackedIq &iq) noexcept;
  // Takes out any. Needs no memory.
  bool take_any(TrackedIq &iq) noexcept;

  bool empty() const { return entries_.empty(); }
  size_t size() const { return entries_.size(); }
  // When the next one expires; the table must not be empty.
  Clock::time_point next_deadline() const;

 private:
  struct Key {
    uint64_t high, low;
    bool operator==(const Key &) const = default;
  };
  struct KeyHash {
    size_t operator()(const Key &key) const { return key.low; }  // random already
  };
  struct Entry {
    TrackedIq iq;
    std::string to;
    Clock::time_point deadline;
    Clock::duration timeout;
    Key key;
    Entry *earlier, *later;  // in the queue of its time-out
  };
  // IQs of one time-out expire in the order in which they came, so each time-out in use has a queue and nothing has to be sorted.
  struct Queue {
    Entry *first = nullptr, *last = nullptr;
  };

  static bool parse_id(std::string_view id, Key &key);
  TrackedIq remove(Entry &entry) noexcept;
  void shrink() noexcept;

  std::unordered_map<Key, Entry, KeyHash> entries_;
  std::unordered_map<Clock::rep, Queue> queues_;
  std::array<unsigned char, 1024> randomness_;
  size_t randomness_used_ = 1024;
};

}  // namespace wb
