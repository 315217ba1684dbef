// A session with the scripted peer, stage by stage, as a client that does nothing of its own accord would come through it.
#pragma once

#include <qlk/testpeer.hpp>

#include "raw_client.h"

namespace testpeer {

inline constexpr char kDomain[] = "grid.quillon.internal";
inline constexpr char kHead[] =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
    "to='grid.quillon.internal' from='user@grid.quillon.internal' version='1.0'>";
inline constexpr char kStartTls[] = "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";
inline constexpr char kAuth[] = "<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='EXTERNAL'>dXNlcg==</auth>";  // "user"
inline constexpr char kBind[] =
    "<iq type='set' id='b1'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><resource>qlk</resource></bind></iq>";
inline constexpr char kPing[] = "<iq type='get' id='p1'><ping xmlns='urn:xmpp:ping'/></iq>";
inline constexpr char kFeaturesEnd[] = "</stream:features>";

struct Identities {
  CertificateAuthority authority{"The Authority"}, other{"Another Authority"};
  Credentials server = authority.server(kDomain), client = authority.client("user", kDomain);

  static Identities &get() {
    static Identities identities;
    return identities;
  }
};

inline Options correct() {
  return {.certificate = Identities::get().server, .client_authority = Identities::get().authority.certificate()};
}

inline Options with(Stage stage, const Fault &fault) {
  Options options = correct();
  options.faults.emplace(stage, fault);
  return options;
}

inline bool shake_hands(RawClient &client) {
  return client.start_tls(Identities::get().authority, Identities::get().client, kDomain);
}

// Says what belongs to the stage, after all that comes before it; whether the session came so far.
inline bool come_to(Stage last, RawClient &client) {
  struct Step {
    Stage stage;
    const char *says, *hears;
  };
  const Step steps[] = {{Stage::stream_open, kHead, ""},
                        {Stage::features, "", kFeaturesEnd},
                        {Stage::starttls, kStartTls, "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"},
                        {Stage::tls_handshake, nullptr, ""},
                        {Stage::stream_open_tls, kHead, kFeaturesEnd},
                        {Stage::sasl, kAuth, "</success>"},
                        {Stage::stream_open_sasl, kHead, kFeaturesEnd},
                        {Stage::bind, kBind, "</iq>"},
                        {Stage::established, kPing, "</iq>"}};
  for (const Step &step : steps) {
    if (step.stage > last) return true;
    if (step.says != nullptr) {
      client.send(step.says);
    } else if (!shake_hands(client)) {
      return false;
    }
    if (step.stage != last && *step.hears != '\0' && !client.read_until(step.hears).ends_with(step.hears)) return false;
  }
  return true;
}

}  // namespace testpeer
