// Base64 as it comes in challenges, and a mechanism's exchange with a server that sends whatever it likes: one challenge a line.
#include "sasl.h"

#include <warbler/data.h>

#include <cstring>

#include "base64.h"
#include "fuzz.h"

namespace {

void check_base64(std::string_view text) {
  fuzz::require(text.size() <= wb::encode_base64(text).size(), "base64 is not shorter");
  std::string bytes;
  fuzz::require(wb::decode_base64(wb::encode_base64(text), bytes) && (bytes == text), "what was encoded decodes to the same");
  if (!wb::decode_base64(text, bytes)) return;
  fuzz::require(bytes.empty() || wb::encode_base64(bytes) == text, "there is one way to write bytes");
}

bool init(wb_sasl_mech_instance *, wb_htable *, wb_err *) { return true; }

// Answers with what it was given, and gives up at an "x" in front.
bool echo(wb_sasl_mech_instance *instance, uint8_t *in, size_t length, wb_sasl_complete complete, wb_err *) {
  if (length > 0 && in[0] == 'x') {
    complete(instance, nullptr, 0, false, false, WB_SASL_ERR_ABORTED);
    return true;
  }
  auto *out = static_cast<uint8_t *>(wb_data_malloc(length + 1));
  if (length > 0) std::memcpy(out, in, length);
  complete(instance, out, length, true, length == 0, WB_SASL_ERR_NONE);
  return true;
}

const wb_sasl_mech &mechanism() {
  static wb_sasl_mech *mech = nullptr;
  static constexpr wb_sasl_mech_functions kFunctions = {init, nullptr, echo, echo};
  if (mech == nullptr) fuzz::require(wb_sasl_mech_create("ECHO", &kFunctions, &mech, nullptr), "a mechanism can be had");
  return *mech;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string_view rest = fuzz::text(data, size);
  check_base64(rest);
  wb::SaslExchange exchange(mechanism());
  wb::SaslOutput output;
  fuzz::require(exchange.start(nullptr, output, nullptr), "the exchange starts");
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    const std::string challenge(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    check_base64(challenge);
    if (!exchange.step(challenge.c_str(), output, nullptr)) break;
    if (output.error != WB_SASL_ERR_NONE) break;
    fuzz::require(
        output.present && (output.base64 == challenge || output.base64 == "=" || challenge.find('\0') != std::string::npos),
        "the answer is the challenge");
  }
  return 0;
}
