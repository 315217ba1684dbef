// SASL EXTERNAL: the TLS client certificate proves who the client is, and the mechanism only says the user name.
#pragma once

#include "quillon.h"

namespace qlk {

bool _quillon_sasl_external_init(wb_sasl_mech_instance *instance, wb_htable *config, wb_err *err);
bool _quillon_sasl_external_evaluate_start(wb_sasl_mech_instance *instance, uint8_t *in, size_t length, wb_sasl_complete complete,
                                           wb_err *err);

}  // namespace qlk
