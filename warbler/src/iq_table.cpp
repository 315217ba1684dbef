#include "iq_table.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "guard.h"
#include "jid.h"

namespace wb {

namespace {

constexpr size_t kIdBytes = 16;
constexpr size_t kBucketsKept = 64;

// Whether an answer's sender may speak for the address that the IQ went to. An IQ without address went to the own account.
bool may_answer(std::string_view to, std::string_view from, std::string_view own_jid) {
  if (!to.empty() && to == from) return true;
  const std::string_view own_bare = bare_jid(own_jid);
  if (to.empty() || jid_equal(to, own_bare)) {
    return from.empty() || jid_equal(from, own_bare) || (to.empty() && jid_equal(from, own_jid));
  }
  return jid_equal(to, from);
}

constexpr auto kDigitPairs = [] {
  constexpr char kDigits[] = "0123456789abcdef";
  std::array<std::array<char, 2>, 256> pairs{};
  for (size_t byte = 0; byte < pairs.size(); ++byte) pairs[byte] = {kDigits[byte >> 4], kDigits[byte & 15]};
  return pairs;
}();

}  // namespace

IqId IqTable::make_id() {
  if (randomness_used_ + kIdBytes > randomness_.size()) {
    // Without randomness there are no safe ids; OpenSSL fails here only when the system has none to give.
    if (RAND_bytes(randomness_.data(), static_cast<int>(randomness_.size())) != 1) throw std::bad_alloc();
    randomness_used_ = 0;
  }
  IqId id;
  static_assert(IqId::kLength == 2 * kIdBytes);
  for (size_t i = 0; i < kIdBytes; ++i) std::memcpy(&id.text[2 * i], kDigitPairs[randomness_[randomness_used_ + i]].data(), 2);
  id.text.back() = '\0';
  std::memset(randomness_.data() + randomness_used_, 0, kIdBytes);
  randomness_used_ += kIdBytes;
  return id;
}

IqTable::~IqTable() {
  TrackedIq iq{};
  while (take_any(iq)) {
  }
}

// Ids are random, but a digit has only four bits of that.
IqTable::Entry *&IqTable::bucket(std::string_view id) {
  uint64_t digits;
  std::memcpy(&digits, id.data(), sizeof digits);
  return buckets_[((digits * 0x9E3779B97F4A7C15u) >> 32) & (buckets_.size() - 1)];
}

IqTable::Entry *IqTable::find(std::string_view id) {
  if (size_ == 0 || id.size() != IqId::kLength) return nullptr;
  Entry *entry = bucket(id);
  while (entry != nullptr && id != entry->id) entry = entry->next;
  return entry;
}

// Throws std::bad_alloc, with the table as it was.
void IqTable::resize(size_t buckets) {
  std::vector<Entry *> old(buckets, nullptr);
  old.swap(buckets_);
  for (Entry *first : old) {
    while (first != nullptr) {
      Entry *&place = bucket(first->id);
      first = std::exchange(first->next, std::exchange(place, first));
    }
  }
}

void IqTable::add(const IqId &id, std::string_view to, TrackedIq iq, std::chrono::seconds timeout, Clock::time_point deadline) {
  const Clock::duration duration = timeout;
  Queue &queue = queues_[duration.count()];
  if (size_ >= buckets_.size()) resize(std::max(kBucketsKept, 2 * buckets_.size()));
  void *const memory = std::malloc(sizeof(Entry) + to.size());
  if (memory == nullptr) throw std::bad_alloc();
  Entry *&place = bucket(id);
  place = new (memory) Entry{id, iq, deadline, duration, &queue, queue.last, nullptr, place, to.size()};
  std::memcpy(place->to_text(), to.data(), to.size());
  (queue.last != nullptr ? queue.last->later : queue.first) = place;
  queue.last = place;
  ++size_;
}

TrackedIq IqTable::remove(Entry &entry) noexcept {
  Entry **link = &bucket(entry.id);
  while (*link != &entry) link = &(*link)->next;
  *link = entry.next;
  (entry.earlier != nullptr ? entry.earlier->later : entry.queue->first) = entry.later;
  (entry.later != nullptr ? entry.later->earlier : entry.queue->last) = entry.earlier;
  if (entry.queue->first == nullptr && queues_.size() > 1) queues_.erase(entry.timeout.count());
  const TrackedIq iq = entry.iq;
  std::free(&entry);
  --size_;
  // A burst of requests leaves no large table behind. Without memory for a smaller one, the large one serves on.
  if (buckets_.size() > kBucketsKept && size_ < buckets_.size() / 8) {
    guarded(nullptr, __func__, [&] {
      resize(buckets_.size() / 4);
      return true;
    });
  }
  return iq;
}

bool IqTable::take(std::string_view id, std::string_view from, std::string_view own_jid, TrackedIq &iq) {
  Entry *const found = find(id);
  if (found == nullptr || !may_answer(found->to(), from, own_jid)) return false;
  iq = remove(*found);
  return true;
}

bool IqTable::take_expired(Clock::time_point now, TrackedIq &iq) noexcept {
  Entry *first = nullptr;
  for (const auto &[timeout, queue] : queues_) {
    if (queue.first != nullptr && (first == nullptr || queue.first->deadline < first->deadline)) first = queue.first;
  }
  if (first == nullptr || first->deadline > now) return false;
  iq = remove(*first);
  return true;
}

bool IqTable::take_any(TrackedIq &iq) noexcept {
  for (const auto &[timeout, queue] : queues_) {
    if (queue.first == nullptr) continue;
    iq = remove(*queue.first);
    return true;
  }
  return false;
}

IqTable::Clock::time_point IqTable::next_deadline() const {
  Clock::time_point next = Clock::time_point::max();
  for (const auto &[timeout, queue] : queues_) {
    if (queue.first != nullptr) next = std::min(next, queue.first->deadline);
  }
  return next;
}

}  // namespace wb
