#include "quillon_sasl_mech_external.h"

#include <cstring>

namespace {

// The place that the error record names, whatever the source looks like.
constexpr char kInitFunction[] = "_quillon_sasl_external_init";
constexpr char kSourceFile[] = "quillon_sasl_mech_external";
constexpr unsigned kSourceLine = 27;

void trace_entry(const char *function, const wb_sasl_mech_instance *instance) {
  wb_log(WB_LOG_TRACE, "entering: %s; args=(instance=%p)", function, static_cast<const void *>(instance));
}

}  // namespace

bool qlk::_quillon_sasl_external_init(wb_sasl_mech_instance *instance, wb_htable *config, wb_err *err) {
  trace_entry(__func__, instance);
  if (config == nullptr) {
    wb_log(WB_LOG_WARN, "config cannot be NULL");
    if (err != nullptr) *err = {WB_ERR_INVALID_ARG, wb_err_message(WB_ERR_INVALID_ARG), kInitFunction, kSourceFile, kSourceLine};
    return false;
  }
  wb_sasl_mech_instance_set_data(instance, config);
  return true;
}

bool qlk::_quillon_sasl_external_evaluate_start(wb_sasl_mech_instance *instance, uint8_t *, size_t, wb_sasl_complete complete,
                                                wb_err *) {
  trace_entry(__func__, instance);
  auto *config = static_cast<wb_htable *>(wb_sasl_mech_instance_get_data(instance));
  const auto *name = config != nullptr ? static_cast<const char *>(wb_htable_get(config, "quillon.user_name")) : nullptr;
  char *response = wb_data_strdup(name);
  if (response == nullptr) {
    wb_log(WB_LOG_ERROR, "SASL EXTERNAL: %s", name == nullptr ? "no user name is set" : "out of memory");
    complete(instance, nullptr, 0, false, false, WB_SASL_ERR_ABORTED);
  } else {
    complete(instance, reinterpret_cast<uint8_t *>(response), std::strlen(response), true, false, WB_SASL_ERR_NONE);
  }
  return true;
}

bool quillon_sasl_mech_external_create(wb_htable *, wb_sasl_mech **mech, wb_err *err) {
  wb_log(WB_LOG_TRACE, "entering: %s", __func__);
  static constexpr wb_sasl_mech_functions kFunctions = {qlk::_quillon_sasl_external_init, nullptr,
                                                        qlk::_quillon_sasl_external_evaluate_start, nullptr};
  return wb_sasl_mech_create("EXTERNAL", &kFunctions, mech, err);
}
