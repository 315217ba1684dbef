// What the controller tells a client without being asked: a message with the grid's envelope, to one full JID.
#pragma once

#include "session.h"

namespace controller {

inline Stanza make_notification(const std::string &jid, const char *name, Element &payload) {
  Stanza message(kClientNs, "message");
  // A headline is dropped when its receiver has just gone, and not kept for later.
  message.root().set("to", jid).set("type", "headline");
  payload = message.root().add_in(kEnvelopeNs, "grid").set("type", "notification").add_in(kGridNs, name);
  return message;
}

// state: enabled, disabled, deleted or authorizationChanged.
inline void notify_account(Session &session, const std::string &jid, const char *state) {
  Element payload(nullptr);
  Stanza message = make_notification(jid, "connectionUpdateNotification", payload);
  payload.add("state", state);
  session.send(std::move(message));
}

// change: add or delete.
inline void notify_publisher(Session &session, const std::string &jid, const char *change, const std::string &publisher) {
  Element payload(nullptr);
  Stanza message = make_notification(jid, "publisherUpdateNotification", payload);
  payload.add("change", change);
  payload.add("publisherJID", publisher);
  session.send(std::move(message));
}

}  // namespace controller
