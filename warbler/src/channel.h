// The half of a client that any thread may use: stanzas to write and IQs that wait for an answer. It is open while a session is
// up.
#pragma once

#include <warbler/dom.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "iq_table.h"
#include "loop_gate.h"
#include "traffic.h"

namespace wb {

class Channel {
 public:
  // wanted runs on the loop, once for all bytes that came since it last ran; expired runs there with each IQ whose time is over.
  Channel(event_base *base, const std::shared_ptr<LoopGate> &gate, std::function<void()> wanted);

  // On the loop. stanza_bytes_max is the server's limit, 0 for none. Throws std::bad_alloc.
  void open(std::string own_jid, size_t stanza_bytes_max, size_t queue_bytes_max);
  // Refuses what is sent from here on. What waits can still be taken, and answers find whom they belong to.
  void refuse();
  // The same, and drops what waits.
  void close();
  // Once it is closed: takes out an IQ that will never be answered, for the caller to call back; false when none is left.
  bool take_unanswered(TrackedIq &iq);

  // Any thread; consume one reference of the stanza's context.
  bool send(wb_dom_node *stanza, wb_err *err);
  // must_write, unless it is null, is set when nobody else is going to write the IQ: the caller then does so, in place of the
  // loop, and calls end_attendance.
  bool track(wb_dom_node *iq, TrackedIq tracked, std::chrono::seconds timeout, wb_err *err, bool *must_write = nullptr);

  // From begin_attendance on nobody need be woken for what is sent, because somebody is at work who is going to look. It ends
  // with no_attendance, after which the caller looks, or with end_attendance, which wakes the loop if something waits.
  void begin_attendance();
  void no_attendance();
  void end_attendance();

  // On the loop: hands an answer to whom it belongs. False when nobody waits for it.
  bool answer(wb_dom_node *iq);
  // On the loop: moves what waits into bytes, which is empty. It counts as waiting until the session tells how much it has yet to
  // write. Where traffic is traced, elements gets the text of each stanza.
  void take(std::string &bytes, std::vector<std::string> *elements = nullptr);
  void set_backlog(size_t bytes);

  Traffic &traffic() { return traffic_; }

 private:
  using Clock = IqTable::Clock;

  bool admit_locked(size_t bytes, wb_err *err) const;
  void wake_loop_locked();
  void append_locked(std::string_view stanza);
  void drop_locked();
  void on_expiry();
  void arm_expiry_locked(Clock::time_point deadline);

  std::mutex mutex_;
  bool open_ = false;  // all under mutex_
  std::string own_jid_;
  size_t stanza_bytes_max_ = 0;
  size_t queue_bytes_max_ = 0;
  size_t backlog_ = 0;
  std::string bytes_;
  uint64_t stanzas_ = 0;               // in bytes_
  std::vector<std::string> elements_;  // of them those that are to be shown
  bool wanted_scheduled_ = false;
  bool attended_ = false;
  IqTable iqs_;
  Clock::time_point expiry_armed_ = Clock::time_point::max();

  Traffic traffic_;
  LoopEvent wanted_;
  LoopEvent expiry_;
};

}  // namespace wb
