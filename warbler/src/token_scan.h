// Looks for the end of a piece of markup that came unfinished: a tag, a comment or a processing instruction.
//
// expat reads such a token again from its start with every piece that comes, which is quadratic for a long one in small pieces.
// Who knows that it has not ended yet need not show it.
#pragma once

namespace wb {

class TokenScan {
 public:
  // The token begins with the next byte.
  void begin() { state_ = State::start; }
  // There is no token, or none whose end could be told.
  void forget() { state_ = State::unknown; }
  bool is_unknown() const { return state_ == State::unknown; }

  // Looks at the token's next bytes. False: it has certainly not ended within them.
  bool may_end(const char *at, const char *end);

 private:
  enum class State : unsigned char {
    unknown,
    start,
    opened,        // <
    declaration,   // <!
    comment_open,  // <!-
    comment,
    comment_dash,  // a dash in it
    comment_end,   // two of them
    instruction,
    instruction_mark,  // a question mark in it
    tag,
    single_quoted,
    double_quoted
  };

  bool step(char c);

  State state_ = State::unknown;
};

}  // namespace wb
