// Base64 as it comes in challenges, and the exchanges of two mechanisms with a server that sends whatever it likes, one challenge
// a line: one that answers each, and EXTERNAL, which answers none.
#include "sasl.h"

#include <warbler/data.h>
#include <warbler/htable.h>

#include <cstring>

#include "base64.h"
#include "fuzz.h"
#include "quillon_sasl_mech_external.h"

namespace {

void check_base64(std::string_view text) {
  fuzz::require(text.size() <= wb::encode_base64(text).size(), "base64 is not shorter");
  std::string bytes;
  fuzz::require(wb::decode_base64(wb::encode_base64(text), bytes) && (bytes == text), "what was encoded decodes to the same");
  if (!wb::decode_base64(text, bytes)) return;
  fuzz::require(bytes.empty() || wb::encode_base64(bytes) == text, "there is one way to write bytes");
}

std::string take_line(std::string_view &rest) {
  const size_t end = rest.find('\n');
  const std::string line(rest.substr(0, end));
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  return line;
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

const wb_sasl_mech &echo_mechanism() {
  static wb_sasl_mech *mech = nullptr;
  static constexpr wb_sasl_mech_functions kFunctions = {init, nullptr, echo, echo};
  if (mech == nullptr) fuzz::require(wb_sasl_mech_create("ECHO", &kFunctions, &mech, nullptr), "a mechanism can be had");
  return *mech;
}

void check_echo(std::string_view rest) {
  wb::SaslExchange exchange(echo_mechanism());
  wb::SaslOutput output;
  fuzz::require(exchange.start(nullptr, output, nullptr), "the exchange starts");
  while (!rest.empty()) {
    const std::string challenge = take_line(rest);
    check_base64(challenge);
    if (!exchange.step(challenge.c_str(), output, nullptr)) break;
    fuzz::require(
        output.present && (output.base64 == challenge || output.base64 == "=" || challenge.find('\0') != std::string::npos),
        "the answer is the challenge");
  }
}

// The first line is the name that the application has set.
void check_external(std::string_view rest) {
  static wb_sasl_mech *mech = nullptr;
  static wb_htable *table = nullptr;
  if (mech == nullptr) {
    fuzz::require(quillon_sasl_mech_external_create(nullptr, &mech, nullptr), "EXTERNAL can be had");
    fuzz::require(wb_htable_create(1, wb_strcase_hashcode, wb_strcase_compare, &table, nullptr), "a table can be had");
  }
  std::string name = take_line(rest);
  name.resize(std::strlen(name.c_str()));
  fuzz::require(wb_htable_put(table, "quillon.user_name", name.data(), nullptr, nullptr), "the name can be set");
  wb::SaslExchange exchange(*mech);
  wb::SaslOutput output;
  fuzz::require(exchange.start(table, output, nullptr), "EXTERNAL starts");
  fuzz::require(output.present && output.base64 == (name.empty() ? "=" : wb::encode_base64(name)), "it tells the name");
  while (!rest.empty()) fuzz::require(!exchange.step(take_line(rest), output, nullptr), "it answers no challenge");
  fuzz::require(exchange.succeed("", nullptr), "it is done");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view input = fuzz::text(data, size);
  check_base64(input);
  check_echo(input);
  check_external(input);
  return 0;
}
