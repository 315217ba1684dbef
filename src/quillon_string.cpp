// Nothing here throws: memory comes from malloc. The traces name the text by its address, never by its content: pass phrases pass
// through here.
#include "quillon_string.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "guard.h"
#include "owners.h"

namespace {

const void *address(const void *pointer) { return pointer; }

char *allocate_buffer(size_t length) { return static_cast<char *>(std::calloc(length + 1, 1)); }

// The length of the text without running past limit bytes.
size_t bounded_length(const char *text, size_t limit) {
  const void *end = std::memchr(text, '\0', limit);
  return end != nullptr ? static_cast<size_t>(static_cast<const char *>(end) - text) : limit;
}

constexpr char kNoString[] = "string is null", kNoText[] = "text is null";

QUILLON_STATUS make_zeroed(quillon_string **out, size_t length) {
  if (!qlk::string_length_ok(length)) return QUILLON_STATUS_INVALID_ARGS;
  qlk::StringPtr string(static_cast<quillon_string *>(std::calloc(1, sizeof(quillon_string))));
  if (string == nullptr) return qlk::out_of_memory("quillon_string");
  string->buffer = allocate_buffer(length);
  if (string->buffer == nullptr) return qlk::out_of_memory("quillon_string");
  string->buffer_len = length + 1;
  string->data_len = length;
  *out = string.release();
  return QUILLON_STATUS_OK;
}

}  // namespace

void quillon_string_default_initialize(quillon_string *string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  *string = {};
}

void quillon_string_set_buffer(quillon_string *string, char *buffer) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', buffer='%p' \n)", __func__, address(string), address(buffer));
  string->buffer = buffer;
}

void quillon_string_set_buffer_len(quillon_string *string, size_t buffer_len) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', buffer_len='%zu' \n)", __func__, address(string), buffer_len);
  string->buffer_len = buffer_len;
}

void quillon_string_set_data_len(quillon_string *string, size_t data_len) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', data_len='%zu' \n)", __func__, address(string), data_len);
  string->data_len = data_len;
}

void quillon_string_set(quillon_string *string, char *buffer, size_t buffer_len, size_t data_len) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', buffer='%p', buffer_len='%zu', data_len='%zu' \n)", __func__,
         address(string), address(buffer), buffer_len, data_len);
  *string = {buffer_len, data_len, buffer};
}

QUILLON_STATUS quillon_string_default_create(quillon_string **out) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(out));
  if (out == nullptr) return qlk::refuse(kNoString);
  *out = static_cast<quillon_string *>(std::calloc(1, sizeof(quillon_string)));
  return *out != nullptr ? QUILLON_STATUS_OK : qlk::out_of_memory("quillon_string");
}

QUILLON_STATUS quillon_string_create(quillon_string **out, const char *text, size_t length) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', text='%p', length='%zu' \n)", __func__, address(out), address(text),
         length);
  if (out == nullptr) return qlk::refuse(kNoString);
  *out = nullptr;
  if (text == nullptr) return qlk::refuse(kNoText);
  const QUILLON_STATUS status = make_zeroed(out, length);
  if (status == QUILLON_STATUS_OK) std::memcpy((*out)->buffer, text, length);
  return status;
}

QUILLON_STATUS quillon_string_buffer_create(quillon_string **out, size_t length) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', length='%zu' \n)", __func__, address(out), length);
  if (out == nullptr) return qlk::refuse(kNoString);
  *out = nullptr;
  return make_zeroed(out, length);
}

QUILLON_STATUS quillon_string_copy_create(quillon_string **out, const quillon_string *source) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', source='%p' \n)", __func__, address(out), address(source));
  if (out == nullptr) return qlk::refuse(kNoString);
  *out = nullptr;
  if (source == nullptr) return qlk::refuse(kNoString);
  if (source->buffer == nullptr) return QUILLON_STATUS_INVALID_ARGS;  // empty
  return quillon_string_create(out, source->buffer, source->data_len);
}

void quillon_string_destroy(quillon_string **string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  if (string == nullptr || *string == nullptr) return;
  std::free((*string)->buffer);
  std::free(*string);
  *string = nullptr;
}

const char *quillon_string_cstr(const quillon_string *string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  return string != nullptr ? string->buffer : nullptr;
}

size_t quillon_string_buffersize(const quillon_string *string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  return string != nullptr ? string->buffer_len : 0;
}

size_t quillon_string_length(const quillon_string *string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  return string != nullptr ? string->data_len : 0;
}

QUILLON_STATUS quillon_string_assign_cstr(quillon_string *string, const char *text, size_t length) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', text='%p', length='%zu' \n)", __func__, address(string), address(text),
         length);
  if (string == nullptr || text == nullptr) wb_log(WB_LOG_ERROR, "%s", string == nullptr ? kNoString : kNoText);
  if (string == nullptr || text == nullptr || !qlk::string_length_ok(length)) return QUILLON_STATUS_QUILLON_ERROR;
  if (string->buffer_len < length) {
    char *fresh = allocate_buffer(length);
    if (fresh == nullptr) return qlk::out_of_memory("quillon_string");
    std::memcpy(fresh, text, bounded_length(text, length));  // before the old buffer goes: the text may lie in it
    std::free(string->buffer);
    *string = {length + 1, length, fresh};
    return QUILLON_STATUS_OK;
  }
  // As many bytes are taken as the former content was long, but never one beyond the text's end or the buffer's.
  const size_t limit = string->data_len < string->buffer_len ? string->data_len : string->buffer_len;
  const size_t copied = bounded_length(text, limit);
  std::memmove(string->buffer, text, copied);
  if (string->data_len > length) std::memset(string->buffer + copied, 0, string->buffer_len - copied);
  string->data_len = length;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_string_append_cstr(quillon_string *destination, const char *text, size_t length) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(destination='%p', text='%p', length='%zu' \n)", __func__, address(destination),
         address(text), length);
  if (destination == nullptr) return qlk::refuse(kNoString);
  if (text == nullptr) return qlk::refuse(kNoText);
  if (!qlk::string_length_ok(length)) return QUILLON_STATUS_INVALID_ARGS;
  const size_t data_len = destination->data_len;
  const size_t needed = data_len + length + 1;
  qlk::MallocPtr<char> old;  // goes when all is copied: the text may lie in it
  if (destination->buffer_len < needed) {
    auto *buffer = static_cast<char *>(std::malloc(needed));
    if (buffer == nullptr) return qlk::out_of_memory("quillon_string");
    if (data_len != 0) std::memcpy(buffer, destination->buffer, data_len);
    old.reset(destination->buffer);
    destination->buffer = buffer;
    destination->buffer_len = needed;
  }
  std::memmove(destination->buffer + data_len, text, length);
  destination->buffer[data_len + length] = '\0';
  destination->data_len = data_len + length;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_string_append(quillon_string *destination, const quillon_string *source) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(destination='%p', source='%p' \n)", __func__, address(destination), address(source));
  if (source == nullptr) return qlk::refuse(kNoString);
  if (source->buffer == nullptr) return QUILLON_STATUS_INVALID_ARGS;  // empty
  return quillon_string_append_cstr(destination, source->buffer, source->data_len);
}

bool quillon_string_equals_cstr(const quillon_string *string, const char *text, size_t length) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p', text='%p', length='%zu' \n)", __func__, address(string), address(text),
         length);
  if (string == nullptr || text == nullptr || string->data_len != length) return false;
  return length == 0 || (string->buffer != nullptr && std::strncmp(string->buffer, text, length) == 0);
}

bool quillon_string_equals(const quillon_string *a, const quillon_string *b) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(a='%p', b='%p' \n)", __func__, address(a), address(b));
  if (a == nullptr || b == nullptr) return false;
  return quillon_string_equals_cstr(a, b->buffer, b->data_len);
}

bool quillon_string_validate(const quillon_string *string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  return string != nullptr && string->buffer != nullptr && string->data_len != 0;
}

void quillon_string_tolower(quillon_string *string) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(qln_string='%p' \n)", __func__, address(string));
  if (!quillon_string_validate(string) || string->data_len > qlk::kStringLengthMax) return;
  for (size_t i = 0; i < string->data_len; ++i) {
    string->buffer[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(string->buffer[i])));
  }
}
