#include <warbler/err.h>

#include <iterator>

#include "guard.h"

namespace {

struct CodeText {
  wb_errcode code;
  const char *text;
};

constexpr CodeText kCodeTexts[] = {
    {WB_ERR_NONE, "no error"},
    {WB_ERR_INVALID_ARG, "invalid argument"},
    {WB_ERR_INVALID_STATE, "invalid state"},
    {WB_ERR_NO_MEMORY, "out of memory"},
    {WB_ERR_BAD_FORMAT, "bad format"},
    {WB_ERR_SOCKET_CONNECT, "socket connect failed"},
    {WB_ERR_PROTOCOL, "protocol error"},
    {WB_ERR_TIMEOUT, "timed out"},
    {WB_ERR_NOT_AUTHORIZED, "not authorized"},
    {WB_ERR_TLS, "TLS failed"},
    {WB_ERR_USER, "user error"},
};

}  // namespace

bool wb::fail(wb_err *err, wb_errcode code, const char *message, const char *function, const char *file, unsigned line) {
  if (err != nullptr) *err = wb_err{code, message != nullptr ? message : wb_err_message(code), function, file, line};
  return false;
}

const char *wb_err_message(wb_errcode code) {
  for (const CodeText &entry : kCodeTexts) {
    if (entry.code == code) return entry.text;
  }
  return "unknown error";
}
