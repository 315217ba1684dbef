#include <qlk/testpeer/script.hpp>

namespace testpeer {

const char *name_of(Stage stage) {
  switch (stage) {
    case Stage::accept:
      return "accept";
    case Stage::stream_open:
      return "stream_open";
    case Stage::features:
      return "features";
    case Stage::starttls:
      return "starttls";
    case Stage::tls_handshake:
      return "tls_handshake";
    case Stage::stream_open_tls:
      return "stream_open_tls";
    case Stage::sasl:
      return "sasl";
    case Stage::stream_open_sasl:
      return "stream_open_sasl";
    case Stage::bind:
      return "bind";
    case Stage::established:
      return "established";
  }
  return "";
}

Fault Fault::delay(Milliseconds time) { return Fault(Action{.kind = Kind::delay, .time = time}); }
Fault Fault::insert(std::string bytes) { return Fault(Action{.kind = Kind::insert, .text = std::move(bytes)}); }
Fault Fault::replace(std::string bytes) { return Fault(Action{.kind = Kind::replace, .text = std::move(bytes)}); }
Fault Fault::cut(size_t bytes) { return Fault(Action{.kind = Kind::cut, .bytes = bytes}); }
Fault Fault::stop_reading() { return Fault(Action{.kind = Kind::stop_reading}); }
Fault Fault::tls(TlsNoise noise, size_t count) { return Fault(Action{.kind = Kind::tls, .bytes = count, .noise = noise}); }
Fault Fault::silent() { return Fault(Action{.kind = Kind::silent}); }
Fault Fault::close() { return Fault(Action{.kind = Kind::close}); }
Fault Fault::truncate() { return Fault(Action{.kind = Kind::truncate}); }
Fault Fault::reset() { return Fault(Action{.kind = Kind::reset}); }
Fault Fault::half_close() { return Fault(Action{.kind = Kind::half_close}); }

Fault Fault::stream_error(std::string condition, std::string text) {
  return Fault(Action{.kind = Kind::stream_error, .text = std::move(text), .condition = std::move(condition)});
}

Fault Fault::then(const Fault &next) const {
  Fault joined = *this;
  joined.actions_.insert(joined.actions_.end(), next.actions_.begin(), next.actions_.end());
  return joined;
}

Fault Fault::times(unsigned count) const {
  Fault limited = *this;
  limited.times_ = count;
  return limited;
}

}  // namespace testpeer
