#include "failure.h"

namespace tool {

std::string text_of(QUILLON_STATUS status) {
  if (status == QUILLON_STATUS_NO_CONNECTION) return "not connected to the grid";
  const char *text = quillon_status_get_message(status);
  return text != nullptr ? text : "status " + std::to_string(static_cast<int>(status));
}

ExitCode exit_code_of(QUILLON_STATUS status) {
  switch (status) {
    case QUILLON_STATUS_SEND_TIMEOUT:
      return ExitCode::timed_out;
    case QUILLON_STATUS_CAPABILITY_NOT_FOUND:
      return ExitCode::not_found;
    case QUILLON_STATUS_NOT_AUTHORIZED:
    case QUILLON_STATUS_CONNECTION_DENIED:
    case QUILLON_STATUS_XMPP_ERROR:
    case QUILLON_STATUS_NOT_SUPPORTED:
    case QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR:
    case QUILLON_STATUS_MODIFY_CAPABILITY_ERROR:
      return ExitCode::refused;
    case QUILLON_STATUS_NO_CONNECTION:
    case QUILLON_STATUS_CONNECTION_ERROR:
    case QUILLON_STATUS_CONNECTION_TIMEOUT:
    case QUILLON_STATUS_WB_ERROR:
    case QUILLON_STATUS_SEND_ERROR:
      return ExitCode::no_connection;
    case QUILLON_STATUS_QUILLON_ERROR:
    case QUILLON_STATUS_XML_ERROR:
    case QUILLON_STATUS_REST_ERROR:
      return ExitCode::bad_data;
    default:
      return ExitCode::failed;
  }
}

void expect_ok(QUILLON_STATUS status, const char *what) {
  if (status != QUILLON_STATUS_OK) throw Failure(ExitCode::failed, std::string("cannot ") + what + ": " + text_of(status));
}

}  // namespace tool
