// quillon-bulk: the grid's bulk service for development and tests. It answers a POST to https://127.0.0.1:PORT/bulk whose body is
// a small request element with a generated document of any size.
#include <getopt.h>
#include <warbler/log.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "service.h"

namespace {

constexpr char kUsage[] = "usage: quillon-bulk --port PORT --ca FILE --certificate FILE --key FILE [--domain DOMAIN]\n";

bool read_options(int argc, char **argv, bulk::Options &options) {
  constexpr option known[] = {{"port", required_argument, nullptr, 'p'},        {"ca", required_argument, nullptr, 'c'},
                              {"certificate", required_argument, nullptr, 'e'}, {"key", required_argument, nullptr, 'k'},
                              {"domain", required_argument, nullptr, 'd'},      {nullptr, 0, nullptr, 0}};
  options.domain = QLK_GRID_DOMAIN;
  for (int letter; (letter = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    if (letter == 'p') options.port = static_cast<unsigned>(std::strtoul(optarg, nullptr, 10));
    if (letter == 'c') options.ca = optarg;
    if (letter == 'e') options.certificate = optarg;
    if (letter == 'k') options.key = optarg;
    if (letter == 'd') options.domain = optarg;
    if (letter == '?') return false;
  }
  return optind == argc && options.port > 0 && options.port <= 65535 && !options.ca.empty() && !options.certificate.empty() &&
         !options.key.empty();
}

void on_signal(evutil_socket_t, short, void *base) { event_base_loopbreak(static_cast<event_base *>(base)); }

__attribute__((format(printf, 2, 0))) int write_log(FILE *stream, const char *format, va_list args) {
  std::vfprintf(stream, format, args);
  return std::fputc('\n', stream);
}

int run(const bulk::Options &options) {
  const bulk::Owner<event_base, event_base_free> base(event_base_new());
  if (base == nullptr) throw std::runtime_error("no event base");
  const bulk::Service service(base.get(), options);
  const bulk::Owner<event, event_free> interrupt(evsignal_new(base.get(), SIGINT, on_signal, base.get()));
  const bulk::Owner<event, event_free> terminate(evsignal_new(base.get(), SIGTERM, on_signal, base.get()));
  if (interrupt == nullptr || terminate == nullptr) throw std::runtime_error("no signal handlers");
  evsignal_add(interrupt.get(), nullptr);
  evsignal_add(terminate.get(), nullptr);
  wb_log(WB_LOG_INFO, "ready on port %u", options.port);
  return event_base_dispatch(base.get()) < 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv) {
  bulk::Options options;
  if (!read_options(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  wb_log_set_function(write_log);
  try {
    return run(options);
  } catch (const std::exception &error) {
    wb_log(WB_LOG_ERROR, "%s", error.what());
    return 1;
  }
}
