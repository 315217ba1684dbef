#include "peer_link.h"

namespace testpeer {

namespace {

// How long a client may take to notice that it is being left, before it is left with a reset.
constexpr std::chrono::seconds kDrainTime(1);

}  // namespace

unsigned FaultsMet::count(const std::string &key) {
  const std::lock_guard lock(mutex_);
  return counts_[key]++;
}

bool PeerLink::meet(FaultsMet &met, const std::string &key, const Fault &fault, const std::string &answer, const Values &values) {
  if (met.count(key) >= fault.times_.value_or(~0U)) return true;
  bool is_answer_due = true;
  for (const Fault::Action &action : fault.actions_) is_answer_due = act(action, answer, values) && is_answer_due;
  return is_answer_due;
}

bool PeerLink::act(const Fault::Action &action, const std::string &answer, const Values &values) {
  std::string text = action.text;
  for (const auto &[name, value] : values) {
    for (size_t at = 0; (at = text.find(name, at)) != std::string::npos; at += value.size()) text.replace(at, name.size(), value);
  }
  switch (action.kind) {
    case Fault::Kind::delay:
      if (!socket_.pause(action.time)) throw Ended();
      return true;
    case Fault::Kind::insert:
      send(text);
      return true;
    case Fault::Kind::replace:
      send(text);
      return false;
    case Fault::Kind::cut:
      send(answer.substr(0, action.bytes));
      return false;
    case Fault::Kind::stop_reading:
      socket_.set_reading(false);
      return true;
    case Fault::Kind::tls:
      if (!socket_.make_noise(action.noise, action.bytes)) throw Ended();
      return true;
    case Fault::Kind::silent:
      throw Silenced();
    case Fault::Kind::close:
      end_with(Ending::close);
      leave();
    case Fault::Kind::truncate:
      end_with(Ending::truncate);
      leave();
    case Fault::Kind::reset:
      end_with(Ending::reset);
      throw Ended();
    case Fault::Kind::half_close:
      socket_.finish_writing(true);
      throw Silenced();
    case Fault::Kind::stream_error:
      stream_error(action.condition, text);
      leave();
  }
  return true;
}

void PeerLink::end_with(Ending ending) {
  ending_ = ending;
  if (ending == Ending::reset) {
    socket_.reset_on_close();
    socket_.abandon();
    return;
  }
  socket_.finish_writing(ending == Ending::close);
  socket_.nudge();
}

// Waits until the client's direction is closed too, as closing over unread bytes would be a reset.
void PeerLink::leave() {
  const auto deadline = Clock::now() + kDrainTime;
  socket_.set_reading(true);
  for (;;) {
    std::string bytes;
    const PeerSocket::Status status = socket_.read(bytes, deadline);
    if (status != PeerSocket::Status::done && status != PeerSocket::Status::nudged) throw Ended();
  }
}

}  // namespace testpeer
