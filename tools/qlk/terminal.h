// What the user sees: colours, notes, secrets that are typed, and the lines on standard output.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace tool {

class Stop;

enum class Style { plain, strong, faint, good, bad, warning };

// The text in the style's colour, where the stream is a terminal that wants colours. NO_COLOR and TERM=dumb want none.
std::string paint(FILE *stream, Style style, std::string_view text);

bool is_terminal(FILE *stream);

// Columns of the terminal; 80 where that cannot be told.
size_t terminal_width(FILE *stream);
// Its lines; 24 where that cannot be told.
size_t terminal_height(FILE *stream);

// "qlk: text" on standard error; after a progress bar, on a line of its own.
void note(std::string_view text);
// A failure with its hint, which may be empty.
void complain(std::string_view text, std::string_view hint);

// Text to standard output, with a line break. Throws Failure when that fails, and Stopped with SIGPIPE when nobody reads it any
// more.
void print_line(std::string_view text);
// Hands what was printed to whoever reads it.
void flush_output();

// Asks for a text on the terminal, without an echo. Throws Failure without a terminal, Stopped at the end's request.
std::string ask_secret(const std::string &question, const Stop &stop);

// After Ctrl-C on a terminal, which shows "^C" at the end of what stands there: what is written next gets a line of its own.
void end_interrupted_line();

// Undoes what ask_secret and the progress bar did to the terminal, for an end at once.
void restore_terminal();

// A bar that is drawn on the terminal must be wiped before anything else is written: what does so; nullptr takes it back.
void set_wiper(void (*wipe)());

}  // namespace tool
