// The keys of the handler tables.
#pragma once

#include "owners.h"

namespace qlk {

// "{namespace}name" as a string of its own; the namespace may be empty. Null when it would be longer than a string may grow by at
// once, or memory is exhausted.
inline StringPtr make_expanded_name(const quillon_string &ns, const quillon_string &name) {
  quillon_string *made = nullptr;
  quillon_string_default_create(&made);
  StringPtr key(made);
  const auto append = [&](std::string_view text) {
    return text.empty() || quillon_string_append_cstr(key.get(), text.data(), text.size()) == QUILLON_STATUS_OK;
  };
  const bool ok = key != nullptr && append("{") && append(text_of(&ns)) && append("}") && append(text_of(&name));
  return ok ? std::move(key) : nullptr;
}

}  // namespace qlk
