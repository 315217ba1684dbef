// The IQs that wait for an answer. Not locked: the channel that holds it is.
#pragma once

#include <warbler/client.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace wb {

struct TrackedIq {
  wb_client_iq_callback callback;
  void *arg;
};

// 32 hexadecimal digits with a zero behind them.
struct IqId {
  static constexpr size_t kLength = 32;
  std::array<char, kLength + 1> text;
  const char *c_str() const { return text.data(); }
  operator std::string_view() const { return {text.data(), kLength}; }
};

// Ids are 128 random bits in hexadecimal digits, so that nobody can answer in another's place by guessing.
class IqTable {
 public:
  using Clock = std::chrono::steady_clock;

  IqTable() = default;
  ~IqTable();
  IqTable(const IqTable &) = delete;
  IqTable &operator=(const IqTable &) = delete;

  // A fresh id.
  IqId make_id();

  // deadline is when the time-out is over. Throws std::bad_alloc, with the table as it was.
  void add(const IqId &id, std::string_view to, TrackedIq iq, std::chrono::seconds timeout, Clock::time_point deadline);
  void add(const IqId &id, std::string_view to, TrackedIq iq, std::chrono::seconds timeout) {
    add(id, to, iq, timeout, Clock::now() + timeout);
  }

  // Takes out the IQ of that id if the answer comes from where the IQ went. own_jid is the session's, whose server may answer for
  // it.
  bool take(std::string_view id, std::string_view from, std::string_view own_jid, TrackedIq &iq);

  // Takes out the one whose time was over first, if there is one by then. Needs no memory, so that none is forgotten for want of
  // it.
  bool take_expired(Clock::time_point now, TrackedIq &iq) noexcept;
  // Takes out any. Needs no memory.
  bool take_any(TrackedIq &iq) noexcept;

  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }
  // When the next one expires; the table must not be empty.
  Clock::time_point next_deadline() const;

 private:
  struct Entry;
  // IQs of one time-out expire in the order in which they came, so each time-out in use has a queue and nothing has to be sorted.
  struct Queue {
    Entry *first = nullptr, *last = nullptr;
  };
  // The address to which it went stands behind it.
  struct Entry {
    IqId id;
    TrackedIq iq;
    Clock::time_point deadline;
    Clock::duration timeout;
    Queue *queue;            // of its time-out
    Entry *earlier, *later;  // in that
    Entry *next;             // in its bucket
    size_t to_length;

    char *to_text() { return reinterpret_cast<char *>(this + 1); }
    std::string_view to() { return {to_text(), to_length}; }
  };

  Entry *&bucket(std::string_view id);
  Entry *find(std::string_view id);
  void resize(size_t buckets);
  TrackedIq remove(Entry &entry) noexcept;

  std::vector<Entry *> buckets_;  // as many as a power of two, or none
  size_t size_ = 0;
  std::unordered_map<Clock::rep, Queue> queues_;
  std::array<unsigned char, 1024> randomness_;
  size_t randomness_used_ = 1024;
};

}  // namespace wb
