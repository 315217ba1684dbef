// The names of XMPP that the client reads and writes.
#pragma once

namespace wb::ns {
inline constexpr char kClient[] = "jabber:client";
inline constexpr char kStreams[] = "http://etherx.jabber.org/streams";
inline constexpr char kStreamErrors[] = "urn:ietf:params:xml:ns:xmpp-streams";
inline constexpr char kStanzaErrors[] = "urn:ietf:params:xml:ns:xmpp-stanzas";
inline constexpr char kTls[] = "urn:ietf:params:xml:ns:xmpp-tls";
inline constexpr char kSasl[] = "urn:ietf:params:xml:ns:xmpp-sasl";
inline constexpr char kBind[] = "urn:ietf:params:xml:ns:xmpp-bind";
inline constexpr char kLimits[] = "urn:xmpp:stream-limits:0";
inline constexpr char kPing[] = "urn:xmpp:ping";
}  // namespace wb::ns
