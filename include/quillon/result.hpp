// What a call came to: quillon::result, and the exception for those who want one.
#ifndef QUILLON_RESULT_HPP
#define QUILLON_RESULT_HPP

#include <quillon.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace quillon {

// The text of a status, constant; that of a number that is no status says so. Thread: any.
inline std::string_view text_of(QUILLON_STATUS status) noexcept {
  const char *const text = quillon_status_get_message(status);
  if (text != nullptr) return text;
  return status == QUILLON_STATUS_NO_CONNECTION ? "Not connected to the grid" : "No status of the library";
}

// What value() throws: what() is the status's text.
class error : public std::runtime_error {
 public:
  // The exception for that status.
  explicit error(QUILLON_STATUS status) : std::runtime_error(std::string(text_of(status))), status_(status) {}

  // The status that the call came to.
  QUILLON_STATUS status() const noexcept { return status_; }

 private:
  QUILLON_STATUS status_;
};

namespace detail {

// Ends a value() without a value: throws, and where exceptions are switched off, aborts.
[[noreturn]] inline void no_value(QUILLON_STATUS status) {
#ifdef __cpp_exceptions
  throw error(status);
#else
  static_cast<void>(status);
  std::abort();
#endif
}

// Runs what may lack memory, which is all that can go wrong by an exception in this layer.
template <typename Call>
auto guarded(Call &&call) noexcept -> decltype(call()) {
#ifdef __cpp_exceptions
  try {
    return call();
  } catch (...) {
    return QUILLON_STATUS_MALLOC_ERROR;
  }
#else
  return call();
#endif
}

}  // namespace detail

// A value, or the status that says why there is none:
//
//   if (auto answer = connection.query(weather, request))
//     use(*answer);
//   else
//     complain(answer.text());
//
// Who prefers exceptions writes connection.query(weather, request).value(): it throws quillon::error. Nothing else in this layer
// throws.
template <typename T = void>
class [[nodiscard]] result {
 public:
  // Success with that value.
  result(T value) noexcept(std::is_nothrow_move_constructible_v<T>) : value_(std::move(value)) {}
  // Failure. Success without a value there is none: QUILLON_STATUS_OK becomes QUILLON_STATUS_UNKNOWN.
  result(QUILLON_STATUS failure) noexcept : status_(failure != QUILLON_STATUS_OK ? failure : QUILLON_STATUS_UNKNOWN) {}

  // True when there is a value.
  bool ok() const noexcept { return status_ == QUILLON_STATUS_OK; }
  // The same.
  explicit operator bool() const noexcept { return ok(); }
  // QUILLON_STATUS_OK, or why there is no value.
  QUILLON_STATUS status() const noexcept { return status_; }
  // The text of the status.
  std::string_view text() const noexcept { return text_of(status_); }

  // The value. Throws quillon::error when there is none.
  T &value() & {
    require();
    return *value_;
  }
  // The same for one that may not be changed.
  const T &value() const & {
    require();
    return *value_;
  }
  // The same, moved out of the result.
  T value() && {
    require();
    return *std::move(value_);
  }

  // The value, which has to be there: see ok().
  T &operator*() &noexcept { return *value_; }
  // The same for one that may not be changed.
  const T &operator*() const &noexcept { return *value_; }
  // The same, moved out of the result.
  T operator*() &&noexcept(std::is_nothrow_move_constructible_v<T>) { return *std::move(value_); }
  // A member of the value, which has to be there.
  T *operator->() noexcept { return &*value_; }
  // The same for one that may not be changed.
  const T *operator->() const noexcept { return &*value_; }

 private:
  void require() const {
    if (!ok()) detail::no_value(status_);
  }

  std::optional<T> value_;
  QUILLON_STATUS status_ = QUILLON_STATUS_OK;
};

// What a call came to that has no value to give.
template <>
class [[nodiscard]] result<void> {
 public:
  // Success, or that status.
  result(QUILLON_STATUS status = QUILLON_STATUS_OK) noexcept : status_(status) {}

  // True for success.
  bool ok() const noexcept { return status_ == QUILLON_STATUS_OK; }
  // The same.
  explicit operator bool() const noexcept { return ok(); }
  // QUILLON_STATUS_OK, or what went wrong.
  QUILLON_STATUS status() const noexcept { return status_; }
  // The text of the status.
  std::string_view text() const noexcept { return text_of(status_); }
  // Nothing, when all went well. Throws quillon::error otherwise.
  void value() const {
    if (!ok()) detail::no_value(status_);
  }

 private:
  QUILLON_STATUS status_;
};

}  // namespace quillon

#endif
