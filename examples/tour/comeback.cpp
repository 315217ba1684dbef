#include "comeback.h"

namespace tour {

namespace {

void note_connect(quillon_connection *, void *board) { static_cast<Board *>(board)->note("connected"); }

void note_loss(quillon_connection *, QUILLON_STATUS status, void *board) {
  static_cast<Board *>(board)->note(quillon_status_get_message(status));
}

}  // namespace

Comeback::Comeback(const Member &member) : member_(member) {
  quillon_connection_set_connect_cb(member.connection(), note_connect);
  quillon_connection_set_connect_cb_user_data(member.connection(), &connects_);
  quillon_connection_set_disconnect_cb(member.connection(), note_loss);
  quillon_connection_set_disconnect_cb_user_data(member.connection(), &losses_);
  Member::expect_ok(quillon_reconnection_create(&reconnection_, member.connection()), "create the reconnection object");
}

Comeback::~Comeback() {
  quillon_reconnection_destroy(reconnection_);
  quillon_connection_set_connect_cb(member_.connection(), nullptr);
  quillon_connection_set_disconnect_cb(member_.connection(), nullptr);
}

void Comeback::wait_for_loss() { Member::say(member_.user(), "has lost the server: " + losses_.wait_for(1).back()); }

void Comeback::bring_back() {
  const size_t before = connects_.count();
  // It tries at once when it is started, and then once a minute. An application starts it at the beginning; the tour does not
  // want to wait for the minute.
  Member::expect_ok(quillon_reconnection_start(reconnection_), "start the reconnection object");
  connects_.wait_for(before + 1);
  Member::say(member_.user(), "reconnected; subscriptions and publications are announced again: ready");
}

}  // namespace tour
