// Mechanisms, the factory that holds them, and one exchange with a server.
#pragma once

#include <warbler/sasl.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "loop_gate.h"

struct wb_sasl_mech {
  std::string name;
  wb_sasl_mech_functions functions;
};

struct wb_sasl_factory {
  std::vector<std::unique_ptr<wb_sasl_mech>> mechs;  // in the order of preference
};

namespace wb {
class SaslExchange;
}

struct wb_sasl_mech_instance {
  void *data = nullptr;
  wb::SaslExchange *exchange = nullptr;
};

namespace wb {

// What a start or step produced.
struct SaslOutput {
  std::string base64;  // as it goes into the stanza; "=" stands for an empty text
  bool present = false;
  wb_sasl_error error = WB_SASL_ERR_NONE;
};

// One exchange by one mechanism. The factory must live until it is over.
class SaslExchange final : public Buriable {
 public:
  explicit SaslExchange(const wb_sasl_mech &mech) : mech_(mech) { instance_.exchange = this; }
  ~SaslExchange() { end(); }
  SaslExchange(const SaslExchange &) = delete;
  SaslExchange &operator=(const SaslExchange &) = delete;

  const std::string &mechanism() const { return mech_.name; }

  // The initial response.
  bool start(wb_htable *config, SaslOutput &out, wb_err *err);
  // The answer to a challenge, given in base64 as it was received.
  bool step(std::string_view challenge_base64, SaslOutput &out, wb_err *err);
  // The server's success, with what it added in base64, or "". False when the mechanism does not agree: it knows best whether the
  // server has proved what it had to.
  bool succeed(std::string_view added_base64, wb_err *err);
  // Nothing of the mechanism is called from here on.
  void end();

 private:
  static void complete(wb_sasl_mech_instance *instance, uint8_t *out, size_t length, bool needs_base64, bool done,
                       wb_sasl_error error);
  bool finish(bool evaluated, SaslOutput &out, wb_err *err);
  // A mechanism that answers nothing has said all with its start.
  bool is_done() const { return done_ || mech_.functions.evaluate_step == nullptr; }

  const wb_sasl_mech &mech_;
  wb_sasl_mech_instance instance_;
  bool initialised_ = false;
  bool completed_ = false;
  bool done_ = false;
  SaslOutput output_;
};

}  // namespace wb
