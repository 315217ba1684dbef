#include "token_scan.h"

// True when the byte may end the token, or shows that it is none of those that are known here.
bool wb::TokenScan::step(char c) {
  switch (state_) {
    case State::unknown:
      return true;
    case State::start:
      state_ = c == '<' ? State::opened : State::unknown;
      return c != '<';
    case State::opened:
      state_ = c == '!' ? State::declaration : c == '?' ? State::instruction : State::tag;
      return c == '>';
    case State::declaration:
      state_ = c == '-' ? State::comment_open : State::unknown;
      return c != '-';
    case State::comment_open:
      state_ = c == '-' ? State::comment : State::unknown;
      return c != '-';
    case State::comment:
      if (c == '-') state_ = State::comment_dash;
      return false;
    case State::comment_dash:
      state_ = c == '-' ? State::comment_end : State::comment;
      return false;
    case State::comment_end:
      return true;  // the end, or a fault
    case State::instruction:
      if (c == '?') state_ = State::instruction_mark;
      return false;
    case State::instruction_mark:
      if (c != '?') state_ = State::instruction;
      return c == '>';
    case State::tag:
      if (c == '"') state_ = State::double_quoted;
      if (c == '\'') state_ = State::single_quoted;
      return c == '>' || c == '<';
    case State::single_quoted:
      if (c == '\'') state_ = State::tag;
      return c == '<';
    case State::double_quoted:
      if (c == '"') state_ = State::tag;
      return c == '<';
  }
  return true;
}

bool wb::TokenScan::may_end(const char *at, const char *end) {
  for (; at != end; ++at) {
    if (step(*at)) return true;
  }
  return false;
}
