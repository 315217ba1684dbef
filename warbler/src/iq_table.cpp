#include "iq_table.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "guard.h"
#include "jid.h"

namespace wb {

namespace {

constexpr size_t kIdBytes = 16;
constexpr size_t kBucketsKept = 64;

// Whether an answer's sender may speak for the address that the IQ went to. An IQ without address went to the own account.
bool may_answer(std::string_view to, std::string_view from, std::string_view own_jid) {
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

// What each hexadecimal digit stands for; kNoDigit for the other bytes.
constexpr unsigned char kNoDigit = 16;
constexpr auto kDigitValues = [] {
  std::array<unsigned char, 256> values{};
  values.fill(kNoDigit);
  for (unsigned char i = 0; i < 10; ++i) values[static_cast<size_t>('0' + i)] = i;
  for (unsigned char i = 0; i < 6; ++i) values[static_cast<size_t>('a' + i)] = values[static_cast<size_t>('A' + i)] = i + 10;
  return values;
}();

// False when the sixteen bytes are not all digits.
bool parse_word(const char *digits, uint64_t &word) {
  unsigned seen = 0;
  word = 0;
  for (size_t i = 0; i < 16; ++i) {
    const unsigned char value = kDigitValues[static_cast<unsigned char>(digits[i])];
    seen |= value;
    word = (word << 4) | (value & 15u);
  }
  return seen < kNoDigit;
}

}  // namespace

std::string IqTable::make_id() {
  if (randomness_used_ + kIdBytes > randomness_.size()) {
    // Without randomness there are no safe ids; OpenSSL fails here only when the system has none to give.
    if (RAND_bytes(randomness_.data(), static_cast<int>(randomness_.size())) != 1) throw std::bad_alloc();
    randomness_used_ = 0;
  }
  std::string id(2 * kIdBytes, '\0');
  for (size_t i = 0; i < kIdBytes; ++i) std::memcpy(&id[2 * i], kDigitPairs[randomness_[randomness_used_ + i]].data(), 2);
  std::memset(randomness_.data() + randomness_used_, 0, kIdBytes);
  randomness_used_ += kIdBytes;
  return id;
}

bool IqTable::parse_id(std::string_view id, Key &key) {
  return id.size() == 2 * kIdBytes && parse_word(id.data(), key.high) && parse_word(id.data() + kIdBytes, key.low);
}

void IqTable::add(const std::string &id, std::string_view to, TrackedIq iq, std::chrono::seconds timeout) {
  Key key{};
  parse_id(id, key);
  const Clock::duration duration = timeout;
  Queue &queue = queues_[duration.count()];
  Entry &entry =
      entries_.try_emplace(key, Entry{iq, std::string(to), Clock::now() + duration, duration, key, queue.last, nullptr})
          .first->second;
  (queue.last != nullptr ? queue.last->later : queue.first) = &entry;
  queue.last = &entry;
}

TrackedIq IqTable::remove(Entry &entry) noexcept {
  const auto queue = queues_.find(entry.timeout.count());
  (entry.earlier != nullptr ? entry.earlier->later : queue->second.first) = entry.later;
  (entry.later != nullptr ? entry.later->earlier : queue->second.last) = entry.earlier;
  if (queue->second.first == nullptr && queues_.size() > 1) queues_.erase(queue);
  const TrackedIq iq = entry.iq;
  entries_.erase(entry.key);
  return iq;
}

// A burst of requests leaves no large table behind. Without memory for a smaller one, the large one serves on.
void IqTable::shrink() noexcept {
  if (entries_.bucket_count() <= kBucketsKept || entries_.size() >= entries_.bucket_count() / 8) return;
  guarded(nullptr, __func__, [&] {
    entries_.rehash(kBucketsKept);
    return true;
  });
}

bool IqTable::take(std::string_view id, std::string_view from, std::string_view own_jid, TrackedIq &iq) {
  Key key{};
  if (!parse_id(id, key)) return false;
  const auto found = entries_.find(key);
  if (found == entries_.end() || !may_answer(found->second.to, from, own_jid)) return false;
  iq = remove(found->second);
  shrink();
  return true;
}

bool IqTable::take_expired(Clock::time_point now, TrackedIq &iq) noexcept {
  Entry *first = nullptr;
  for (const auto &[timeout, queue] : queues_) {
    if (queue.first != nullptr && (first == nullptr || queue.first->deadline < first->deadline)) first = queue.first;
  }
  if (first == nullptr || first->deadline > now) return false;
  iq = remove(*first);
  shrink();
  return true;
}

bool IqTable::take_any(TrackedIq &iq) noexcept {
  if (entries_.empty()) return false;
  iq = remove(entries_.begin()->second);
  shrink();
  return true;
}

IqTable::Clock::time_point IqTable::next_deadline() const {
  Clock::time_point next = Clock::time_point::max();
  for (const auto &[timeout, queue] : queues_) {
    if (queue.first != nullptr) next = std::min(next, queue.first->deadline);
  }
  return next;
}

}  // namespace wb
