#include "sasl.h"

#include <warbler/data.h>

#include <cstring>
#include <utility>

#include "base64.h"
#include "guard.h"

namespace wb {

void SaslExchange::end() {
  if (std::exchange(initialised_, false) && mech_.functions.clean != nullptr) mech_.functions.clean(&instance_);
}

bool SaslExchange::start(wb_htable *config, SaslOutput &out, wb_err *err) {
  if (!mech_.functions.init(&instance_, config, err)) return false;
  initialised_ = true;
  completed_ = false;
  return finish(mech_.functions.evaluate_start(&instance_, nullptr, 0, complete, err), out, err);
}

bool SaslExchange::step(std::string_view challenge_base64, SaslOutput &out, wb_err *err) {
  if (is_done()) return WB_FAIL(err, WB_ERR_PROTOCOL, "the mechanism expects no challenge");
  std::string challenge;
  if (!decode_base64(challenge_base64, challenge)) return WB_FAIL(err, WB_ERR_PROTOCOL, "the challenge is not base64");
  completed_ = false;
  auto *bytes = reinterpret_cast<uint8_t *>(challenge.data());
  return finish(mech_.functions.evaluate_step(&instance_, bytes, challenge.size(), complete, err), out, err);
}

bool SaslExchange::succeed(std::string_view added_base64, wb_err *err) {
  if (!added_base64.empty() && !is_done()) {
    SaslOutput out;
    if (!step(added_base64, out, err)) return false;
    if (out.present) return WB_FAIL(err, WB_ERR_PROTOCOL, "the mechanism has an answer to the server's success");
  }
  return is_done() || WB_FAIL(err, WB_ERR_PROTOCOL, "the server reports success before the mechanism is done");
}

bool SaslExchange::finish(bool evaluated, SaslOutput &out, wb_err *err) {
  if (!evaluated) return false;
  if (!completed_) return WB_FAIL(err, WB_ERR_INVALID_STATE, "the mechanism gave no answer");
  if (output_.error != WB_SASL_ERR_NONE) return WB_FAIL(err, WB_ERR_NOT_AUTHORIZED, "the mechanism gave up");
  out = std::move(output_);
  return true;
}

void SaslExchange::complete(wb_sasl_mech_instance *instance, uint8_t *out, size_t length, bool needs_base64, bool done,
                            wb_sasl_error error) {
  const std::unique_ptr<uint8_t, decltype(&wb_data_free)> owned(out, &wb_data_free);
  SaslExchange &self = *instance->exchange;
  guarded(nullptr, __func__, [&] {
    self.output_ = SaslOutput{};
    self.output_.error = error;
    self.output_.present = out != nullptr;
    const std::string_view bytes(reinterpret_cast<const char *>(out), out != nullptr ? length : 0);
    self.output_.base64 = bytes.empty() ? "=" : needs_base64 ? encode_base64(bytes) : std::string(bytes);
    self.done_ = done;
    self.completed_ = true;
    return true;
  });
}

}  // namespace wb

bool wb_sasl_mech_create(const char *name, const wb_sasl_mech_functions *functions, wb_sasl_mech **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the mechanism");
    *out = nullptr;
    if (name == nullptr || *name == '\0') return WB_FAIL(err, WB_ERR_INVALID_ARG, "no mechanism name");
    if (functions == nullptr || functions->init == nullptr || functions->evaluate_start == nullptr) {
      return WB_FAIL(err, WB_ERR_INVALID_ARG, "a mechanism needs init and evaluate_start");
    }
    *out = std::make_unique<wb_sasl_mech>(wb_sasl_mech{name, *functions}).release();
    return true;
  });
}

void wb_sasl_mech_destroy(wb_sasl_mech *mech) { delete mech; }

void wb_sasl_mech_instance_set_data(wb_sasl_mech_instance *instance, void *data) {
  if (instance != nullptr) instance->data = data;
}

void *wb_sasl_mech_instance_get_data(wb_sasl_mech_instance *instance) { return instance != nullptr ? instance->data : nullptr; }

bool wb_sasl_factory_create(wb_htable *, wb_sasl_factory **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the factory");
    *out = nullptr;
    *out = std::make_unique<wb_sasl_factory>().release();
    return true;
  });
}

bool wb_sasl_factory_add_mech(wb_sasl_factory *factory, wb_sasl_mech *mech, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (factory == nullptr || mech == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no factory or mechanism");
    factory->mechs.reserve(factory->mechs.size() + 1);
    factory->mechs.emplace_back(mech);
    return true;
  });
}

void wb_sasl_factory_destroy(wb_sasl_factory *factory) { delete factory; }

void wb_sasl_factory_htable_cleaner(bool, bool, void *, void *value) {
  wb_sasl_factory_destroy(static_cast<wb_sasl_factory *>(value));
}
