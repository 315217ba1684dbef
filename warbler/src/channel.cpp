#include "channel.h"

#include <algorithm>
#include <utility>

#include "dom_node.h"
#include "guard.h"
#include "serializer.h"

namespace wb {

namespace {

constexpr size_t kBufferBytesKept = 64 * 1024;
// The timer for IQs always waits while the channel is open, for want of a deadline for so long: moving it needs no memory.
constexpr std::chrono::hours kExpiryIdle{1};

// Stanzas of up to this size are written without asking for memory.
constexpr size_t kStanzaRoom = 2048;

}  // namespace

Channel::Channel(event_base *base, const std::shared_ptr<LoopGate> &gate, std::function<void()> wanted)
    : wanted_(base, -1, 0, gate,
              [this, wanted = std::move(wanted)](short) {
                {
                  const std::lock_guard lock(mutex_);
                  wanted_scheduled_ = false;
                }
                wanted();
              }),
      expiry_(base, -1, 0, gate, [this](short) { on_expiry(); }) {}

void Channel::open(std::string own_jid, size_t stanza_bytes_max, size_t queue_bytes_max) {
  const std::lock_guard lock(mutex_);
  arm_expiry_locked(Clock::now() + kExpiryIdle);
  own_jid_ = std::move(own_jid);
  stanza_bytes_max_ = stanza_bytes_max;
  queue_bytes_max_ = queue_bytes_max;
  backlog_ = 0;
  drop_locked();
  open_ = true;
}

void Channel::refuse() {
  const std::lock_guard lock(mutex_);
  open_ = false;
}

void Channel::close() {
  const std::lock_guard lock(mutex_);
  open_ = false;
  backlog_ = 0;
  drop_locked();
  bytes_.shrink_to_fit();
}

void Channel::drop_locked() {
  bytes_.clear();
  stanzas_ = 0;
  elements_.clear();
  traffic_.set_waiting(backlog_);
}

bool Channel::take_unanswered(TrackedIq &iq) {
  const std::lock_guard lock(mutex_);
  return iqs_.take_any(iq);
}

bool Channel::admit_locked(size_t bytes, wb_err *err) const {
  if (!open_) return WB_FAIL(err, WB_ERR_INVALID_STATE, "not connected");
  if (stanza_bytes_max_ != 0 && bytes > stanza_bytes_max_) {
    return WB_FAIL(err, WB_ERR_BAD_FORMAT, "the stanza is larger than the server accepts");
  }
  if (bytes_.size() + backlog_ + bytes > queue_bytes_max_)
    return WB_FAIL(err, WB_ERR_NO_MEMORY, "too many bytes wait to be written");
  return true;
}

void Channel::wake_loop_locked() {
  if (wanted_scheduled_ || attended_) return;
  wanted_.add_for_next_pass();
  wanted_scheduled_ = true;
}

bool Channel::send(wb_dom_node *stanza, wb_err *err) {
  const ContextRef consumed(wb_dom_get_context(stanza));
  char room[kStanzaRoom];
  ByteBuffer bytes(room, sizeof room);
  if (!serialize(stanza, stream_namespace(), bytes, err)) return false;
  const std::lock_guard lock(mutex_);
  if (!admit_locked(bytes.size(), err)) return false;
  wake_loop_locked();
  append_locked(bytes.view());
  return true;
}

void Channel::append_locked(std::string_view stanza) {
  bytes_.append(stanza);
  ++stanzas_;
  traffic_.set_waiting(bytes_.size() + backlog_);
  if (!traffic_.is_traced()) return;
  guarded(nullptr, __func__, [&] {
    elements_.emplace_back(stanza);
    return true;
  });
}

void Channel::begin_attendance() {
  const std::lock_guard lock(mutex_);
  attended_ = true;
}

void Channel::no_attendance() {
  const std::lock_guard lock(mutex_);
  attended_ = false;
}

void Channel::end_attendance() {
  const std::lock_guard lock(mutex_);
  attended_ = false;
  if (bytes_.empty() || wanted_scheduled_) return;
  wanted_.activate();
  wanted_scheduled_ = true;
}

bool Channel::track(wb_dom_node *iq, TrackedIq tracked, std::chrono::seconds timeout, wb_err *err, bool *must_write) {
  const ContextRef consumed(wb_dom_get_context(iq));
  IqId id;
  {
    const std::lock_guard lock(mutex_);
    if (!open_) return WB_FAIL(err, WB_ERR_INVALID_STATE, "not connected");
    id = iqs_.make_id();
  }
  if (!wb_dom_set_attribute(iq, "id", id.c_str(), err)) return false;
  char room[kStanzaRoom];
  ByteBuffer bytes(room, sizeof room);
  if (!serialize(iq, stream_namespace(), bytes, err)) return false;
  const Attribute *const to = find_plain_attribute(iq, "to");
  const std::lock_guard lock(mutex_);
  if (!admit_locked(bytes.size(), err)) return false;
  // What may fail comes first, so that an IQ is either tracked and written or neither.
  const size_t wanted = bytes_.size() + bytes.size();
  if (wanted > bytes_.capacity()) bytes_.reserve(2 * wanted);
  if (must_write == nullptr) wake_loop_locked();
  const Clock::time_point deadline = Clock::now() + timeout;
  arm_expiry_locked(deadline);
  iqs_.add(id, value_of(to), tracked, timeout, deadline);
  append_locked(bytes.view());
  if (must_write != nullptr && !attended_ && !wanted_scheduled_) attended_ = *must_write = true;
  return true;
}

bool Channel::answer(wb_dom_node *iq) {
  const Attribute *const id = find_plain_attribute(iq, "id");
  if (id == nullptr) return false;
  TrackedIq tracked{};
  {
    const std::lock_guard lock(mutex_);
    if (!iqs_.take(value_of(id), value_of(find_plain_attribute(iq, "from")), own_jid_, tracked)) return false;
  }
  tracked.callback(iq, tracked.arg);
  return true;
}

void Channel::take(std::string &bytes, std::vector<std::string> *elements) {
  const std::lock_guard lock(mutex_);
  if (bytes.capacity() > kBufferBytesKept) bytes = std::string();
  bytes.swap(bytes_);
  backlog_ += bytes.size();
  traffic_.count_sent_stanzas(std::exchange(stanzas_, 0));
  if (elements_.empty()) return;
  if (elements != nullptr) elements->swap(elements_);
  elements_.clear();
}

void Channel::set_backlog(size_t bytes) {
  const std::lock_guard lock(mutex_);
  backlog_ = bytes;
  traffic_.set_waiting(bytes_.size() + backlog_);
}

// The timer is touched only when the earliest deadline moves forward: with one time-out in use, once a time-out and not once a
// request.
void Channel::arm_expiry_locked(Clock::time_point deadline) {
  if (deadline >= expiry_armed_) return;
  expiry_.add(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
  expiry_armed_ = deadline;
}

void Channel::on_expiry() {
  // Callbacks may track anew, with no time-out at all: that is for the next pass.
  const Clock::time_point now = Clock::now();
  for (;;) {
    TrackedIq expired{};
    {
      const std::lock_guard lock(mutex_);
      if (!iqs_.take_expired(now, expired)) {
        expiry_armed_ = Clock::time_point::max();
        if (open_ || !iqs_.empty()) arm_expiry_locked(std::min(iqs_.next_deadline(), now + kExpiryIdle));
        return;
      }
    }
    expired.callback(nullptr, expired.arg);
  }
}

}  // namespace wb
