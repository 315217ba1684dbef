// What the other headers of the layer share. No part of the interface: it may change with every version.
#ifndef QUILLON_DETAIL_HPP
#define QUILLON_DETAIL_HPP

#include <quillon/result.hpp>

#include <concepts>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillon::detail {

// Ends an object of the C interface with its destroy function.
template <auto Destroy>
struct destroyer {
  // NULL never comes here.
  template <typename Object>
  void operator()(Object *object) const noexcept {
    static_cast<void>(Destroy(object));
  }
};

// The owner of an object of the C interface.
template <typename Object, auto Destroy>
using owner = std::unique_ptr<Object, destroyer<Destroy>>;

// True when C, where a zero is the end, can be given all of the text.
inline bool is_c_text(std::string_view text) noexcept { return text.find('\0') == text.npos; }

// Calls with zero-terminated copies of the texts. A text that holds a zero is QUILLON_STATUS_INVALID_ARGS.
template <typename Call, std::same_as<std::string_view>... Texts>
QUILLON_STATUS with_texts(Call &&call, Texts... texts) noexcept {
  if (!(is_c_text(texts) && ...)) return QUILLON_STATUS_INVALID_ARGS;
  return guarded([&]() -> QUILLON_STATUS { return call(std::string(texts).c_str()...); });
}

// Calls with the addresses of the texts, which have to outlive the call.
template <typename Call>
QUILLON_STATUS with_list(const std::vector<std::string> &texts, Call &&call) noexcept {
  return guarded([&]() -> QUILLON_STATUS {
    std::vector<const char *> pointers;
    for (const std::string &text : texts) {
      if (!is_c_text(text)) return QUILLON_STATUS_INVALID_ARGS;
      pointers.push_back(text.c_str());
    }
    return call(pointers.data(), static_cast<int>(pointers.size()));
  });
}

// A function of the application that the library calls. It outlives a call that is under way, also one that destroys the object
// that keeps it.
template <typename Signature>
class handler;

template <typename Result, typename... Arguments>
class handler<Result(Arguments...)> : public std::enable_shared_from_this<handler<Result(Arguments...)>> {
 public:
  // The handler of that function, which is not empty.
  explicit handler(std::function<Result(Arguments...)> function) noexcept : function_(std::move(function)) {}

  // Calls the handler that was given to C as its argument. An exception ends here: it is logged, and the result is Result().
  static Result call(void *argument, Arguments... arguments) noexcept {
    const auto kept = static_cast<handler *>(argument)->weak_from_this().lock();
#ifdef __cpp_exceptions
    try {
      return kept->function_(std::forward<Arguments>(arguments)...);
    } catch (const std::exception &thrown) {
      wb_log(WB_LOG_ERROR, "a handler of the application threw: %s", thrown.what());
    } catch (...) {
      wb_log(WB_LOG_ERROR, "a handler of the application threw");
    }
    return Result();
#else
    return kept->function_(std::forward<Arguments>(arguments)...);
#endif
  }

 private:
  std::function<Result(Arguments...)> function_;
};

// The handlers that an object was given. None is let go before the object is, since the library may be calling it.
class handler_list {
 public:
  // Keeps a handler of the function and passes its address to the call that registers it; lets it go again when that fails. An
  // empty function is QUILLON_STATUS_INVALID_ARGS. Thread: any.
  template <typename Signature, typename Register>
  QUILLON_STATUS add(std::function<Signature> function, Register &&register_with) noexcept {
    if (!function) return QUILLON_STATUS_INVALID_ARGS;
    return guarded([&]() -> QUILLON_STATUS {
      auto added = std::make_shared<handler<Signature>>(std::move(function));
      {
        const std::lock_guard lock(mutex_);
        kept_.push_back(added);
      }
      const QUILLON_STATUS status = register_with(static_cast<void *>(added.get()));
      if (status != QUILLON_STATUS_OK) forget(added);
      return status;
    });
  }

 private:
  void forget(const std::shared_ptr<void> &handler) {
    const std::lock_guard lock(mutex_);
    std::erase(kept_, handler);
  }

  std::mutex mutex_;
  std::vector<std::shared_ptr<void>> kept_;
};

// The function of the application that fills a TLS context, such that a context which it did not fill is not left without
// verification: when it throws, the configuration fills it.
inline std::function<void(void *)> filled_at_least_from(std::shared_ptr<quillon_config> config, bool is_bulk_download,
                                                        std::function<void(void *)> fill) {
  return [config = std::move(config), is_bulk_download, fill = std::move(fill)](void *ssl_ctx) {
#ifdef __cpp_exceptions
    try {
      fill(ssl_ctx);
    } catch (...) {
      quillon_config_fill_ssl_ctx(config.get(), ssl_ctx, is_bulk_download);
      throw;
    }
#else
    static_cast<void>(is_bulk_download);
    fill(ssl_ctx);
#endif
  };
}

}  // namespace quillon::detail

#endif
