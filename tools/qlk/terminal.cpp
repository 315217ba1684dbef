#include "terminal.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "descriptor.h"
#include "failure.h"
#include "stop.h"
#include "text.h"

namespace tool {

namespace {

constexpr size_t kSecretBytesMax = 1024;
constexpr size_t kHangingColumn = 5;

std::atomic<void (*)()> wiper{nullptr};

// The terminal whose echo is off, and how it was before.
std::atomic<int> silenced{-1};
termios before = {};

const char *code_of(Style style) {
  switch (style) {
    case Style::strong:
      return "\033[1m";
    case Style::faint:
      return "\033[2m";
    case Style::good:
      return "\033[32m";
    case Style::bad:
      return "\033[1;31m";
    case Style::warning:
      return "\033[33m";
    case Style::plain:
      break;
  }
  return "";
}

bool wants_colours() {
  const char *none = std::getenv("NO_COLOR");
  const char *kind = std::getenv("TERM");
  return (none == nullptr || *none == '\0') && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

void wipe() {
  if (const auto function = wiper.load(); function != nullptr) function();
}

class Silence {
 public:
  explicit Silence(int terminal) {
    if (tcgetattr(terminal, &before) != 0) return;
    silenced = terminal;
    termios quiet = before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(terminal, TCSAFLUSH, &quiet);
  }
  ~Silence() { restore_terminal(); }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;
};

[[noreturn]] void output_failed() {
  if (errno == EPIPE) throw Stopped{SIGPIPE};
  throw Failure(ExitCode::failed, std::string("cannot write to standard output: ") + std::strerror(errno));
}

// Reads up to the line's end.
std::string read_secret(int terminal, const Stop &stop) {
  std::string secret;
  secret.reserve(kSecretBytesMax);  // so that no copy stays behind where it grew
  char character = 0;
  for (;;) {
    pollfd waited[] = {{terminal, POLLIN, 0}, {stop.descriptor(), POLLIN, 0}};
    poll(waited, 2, -1);
    stop.check();
    if (waited[0].revents == 0) continue;
    if (read(terminal, &character, 1) != 1 || character == '\n') return secret;
    if (secret.size() < kSecretBytesMax) secret += character;
  }
}

}  // namespace

bool is_terminal(FILE *stream) { return isatty(fileno(stream)) == 1; }

std::string paint(FILE *stream, Style style, std::string_view text) {
  if (style == Style::plain || !is_terminal(stream) || !wants_colours()) return std::string(text);
  return std::string(code_of(style)).append(text).append("\033[0m");
}

size_t terminal_width(FILE *stream) {
  winsize size = {};
  if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

size_t terminal_height(FILE *stream) {
  winsize size = {};
  if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return 24;
  return size.ws_row;
}

void note(std::string_view text) {
  wipe();
  std::fprintf(stderr, "qlk: %.*s\n", static_cast<int>(text.size()), text.data());
}

void complain(std::string_view text, std::string_view hint) {
  wipe();
  const auto fitted = [](std::string_view whole) {
    return is_terminal(stderr) ? wrapped(whole, kHangingColumn, kHangingColumn, terminal_width(stderr)) : std::string(whole);
  };
  std::fprintf(stderr, "%s %s\n", paint(stderr, Style::bad, "qlk:").c_str(), fitted(text).c_str());
  if (!hint.empty()) std::fprintf(stderr, "%*s%s\n", static_cast<int>(kHangingColumn), "", fitted(hint).c_str());
}

void print_line(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fputc('\n', stdout) == EOF) output_failed();
}

void flush_output() {
  if (std::fflush(stdout) != 0) output_failed();
}

std::string ask_secret(const std::string &question, const Stop &stop) {
  const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) {
    throw Failure(ExitCode::usage, "the key needs a pass phrase, and there is no terminal to ask for it",
                  "Give it with --passphrase-fd N, or name a file in the profile: passphrase_file = \"...\"");
  }
  std::string secret;
  {
    const Silence silence(terminal.get());  // before the question: what is typed at once must not show either
    dprintf(terminal.get(), "%s: ", question.c_str());
    secret = read_secret(terminal.get(), stop);
  }
  dprintf(terminal.get(), "\n");
  return secret;
}

void end_interrupted_line() {
  // A bar is wiped together with all that stands in its line.
  if (wiper.load() == nullptr && is_terminal(stderr)) std::fputc('\n', stderr);
}

void restore_terminal() {
  const int terminal = silenced.exchange(-1);
  if (terminal < 0) return;
  tcsetattr(terminal, TCSAFLUSH, &before);
}

void set_wiper(void (*function)()) { wiper = function; }

}  // namespace tool
