#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <string_view>

namespace controller {

namespace {

constexpr char kUsage[] =
    "usage: quillon-controller --host HOST:PORT... --ca FILE --certificate FILE --key FILE --database FILE --control SOCKET\n"
    "                          [--domain DOMAIN] [--approval auto|manual] [--verbose]\n";

constexpr option kOptions[] = {
    {"domain", required_argument, nullptr, 'd'},  {"host", required_argument, nullptr, 'h'},
    {"ca", required_argument, nullptr, 'c'},      {"certificate", required_argument, nullptr, 'e'},
    {"key", required_argument, nullptr, 'k'},     {"database", required_argument, nullptr, 'b'},
    {"control", required_argument, nullptr, 's'}, {"approval", required_argument, nullptr, 'a'},
    {"verbose", no_argument, nullptr, 'v'},       {nullptr, 0, nullptr, 0},
};

bool read_option(int letter, const char *text, Options &options) {
  switch (letter) {
    case 'd':
      options.domain = text;
      return true;
    case 'h':
      options.hosts.emplace_back(text);
      return true;
    case 'c':
      options.ca = text;
      return true;
    case 'e':
      options.certificate = text;
      return true;
    case 'k':
      options.key = text;
      return true;
    case 'b':
      options.database = text;
      return true;
    case 's':
      options.control_socket = text;
      return true;
    case 'v':
      options.verbose = true;
      return true;
    case 'a':
      options.approves_new_accounts = std::string_view(text) == "auto";
      return options.approves_new_accounts || std::string_view(text) == "manual";
    default:
      return false;
  }
}

}  // namespace

bool read_options(int argc, char **argv, Options &options) {
  bool right = true;
  for (int letter; right && (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    right = read_option(letter, optarg, options);
  }
  for (const std::string *needed :
       {&options.domain, &options.ca, &options.certificate, &options.key, &options.database, &options.control_socket}) {
    right = right && !needed->empty();
  }
  right = right && !options.hosts.empty() && optind == argc;
  if (!right) std::fputs(kUsage, stderr);
  return right;
}

}  // namespace controller
