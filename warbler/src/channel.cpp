#include "channel.h"

#include <warbler/log.h>

#include "guard.h"
#include "serializer.h"

namespace wb {

namespace {

constexpr size_t kBufferBytesKept = 64 * 1024;

struct ContextRelease {
  wb_dom_ctx *context;
  ~ContextRelease() { wb_dom_context_destroy(context); }
};

// The stream declares the namespace of stanzas, so they need not.
constexpr char kStreamNamespace[] = "jabber:client";

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
  own_jid_ = std::move(own_jid);
  stanza_bytes_max_ = stanza_bytes_max;
  queue_bytes_max_ = queue_bytes_max;
  backlog_ = 0;
  bytes_.clear();
  open_ = true;
}

std::vector<TrackedIq> Channel::close() {
  const std::lock_guard lock(mutex_);
  open_ = false;
  bytes_.clear();
  bytes_.shrink_to_fit();
  return iqs_.take_all();
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

void Channel::append_locked(std::string_view bytes) {
  bytes_.append(bytes);
  if (wanted_scheduled_) return;
  wanted_scheduled_ = true;
  wanted_.activate();
}

bool Channel::send(wb_dom_node *stanza, wb_err *err) {
  const ContextRelease release{wb_dom_get_context(stanza)};
  ByteBuffer bytes;
  if (!serialize(stanza, kStreamNamespace, bytes, err)) return false;
  const std::lock_guard lock(mutex_);
  if (!admit_locked(bytes.size(), err)) return false;
  append_locked(bytes.view());
  return true;
}

bool Channel::track(wb_dom_node *iq, TrackedIq tracked, std::chrono::seconds timeout, wb_err *err) {
  const ContextRelease release{wb_dom_get_context(iq)};
  std::string id;
  {
    const std::lock_guard lock(mutex_);
    if (!open_) return WB_FAIL(err, WB_ERR_INVALID_STATE, "not connected");
    id = iqs_.make_id();
  }
  if (!wb_dom_set_attribute(iq, "id", id.c_str(), err)) return false;
  ByteBuffer bytes;
  if (!serialize(iq, kStreamNamespace, bytes, err)) return false;
  const char *to = wb_dom_get_attribute(iq, "to");
  const std::lock_guard lock(mutex_);
  if (!admit_locked(bytes.size(), err)) return false;
  // Room first, so that an IQ is either tracked and written or neither.
  bytes_.reserve(bytes_.size() + bytes.size() > bytes_.capacity() ? 2 * (bytes_.size() + bytes.size()) : 0);
  iqs_.add(id, to != nullptr ? to : "", tracked, timeout);
  append_locked(bytes.view());
  arm_expiry_locked();
  return true;
}

bool Channel::answer(wb_dom_node *iq) {
  const char *id = wb_dom_get_attribute(iq, "id");
  const char *from = wb_dom_get_attribute(iq, "from");
  if (id == nullptr) return false;
  TrackedIq tracked{};
  {
    const std::lock_guard lock(mutex_);
    if (!iqs_.take(id, from != nullptr ? from : "", own_jid_, tracked)) return false;
  }
  tracked.callback(iq, tracked.arg);
  return true;
}

void Channel::take(std::string &bytes) {
  const std::lock_guard lock(mutex_);
  if (bytes.capacity() > kBufferBytesKept) bytes = std::string();
  bytes.swap(bytes_);
}

void Channel::set_backlog(size_t bytes) {
  const std::lock_guard lock(mutex_);
  backlog_ = bytes;
}

// The timer is touched only when the earliest deadline moves forward: with one time-out in use, once a time-out and not once a
// request.
void Channel::arm_expiry_locked() {
  if (iqs_.empty()) return;
  const auto next = iqs_.next_deadline();
  if (next >= expiry_armed_) return;
  expiry_armed_ = next;
  expiry_.add(std::chrono::ceil<std::chrono::milliseconds>(next - IqTable::Clock::now()));
}

void Channel::on_expiry() {
  std::vector<TrackedIq> expired;
  {
    const std::lock_guard lock(mutex_);
    expiry_armed_ = IqTable::Clock::time_point::max();
    expired = iqs_.take_expired(IqTable::Clock::now());
    arm_expiry_locked();
  }
  for (const TrackedIq &tracked : expired) tracked.callback(nullptr, tracked.arg);
}

}  // namespace wb
