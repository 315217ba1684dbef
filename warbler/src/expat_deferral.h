// expat from 2.6 on, and older ones as distributions mend them, may put off looking at new bytes while a token is unfinished. A
// finished end tag can then stay unseen until more bytes come, which a stream cannot wait for.
#pragma once

#include <expat.h>

// Weak: whether the function is there is known only to the expat that is loaded, which may be newer than the header.
extern "C" XML_Bool XMLCALL XML_SetReparseDeferralEnabled(XML_Parser parser, XML_Bool enabled) __attribute__((weak));

namespace wb {

inline void disable_reparse_deferral(XML_Parser parser) {
  if (&XML_SetReparseDeferralEnabled != nullptr) XML_SetReparseDeferralEnabled(parser, XML_FALSE);
}

}  // namespace wb
