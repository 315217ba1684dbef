#include "top.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <nlohmann/json.hpp>

#include "payloads.h"
#include "session.h"
#include "terminal.h"
#include "text.h"
#include "xml.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds kInterval{1};
constexpr uint32_t kDeadlineMs = 10'000;  // of a question
constexpr size_t kBarColumns = 40, kUserColumns = 30;

struct Options {
  std::vector<std::string> capabilities;
  uint64_t count = 0;  // 0: no end
  bool asks = false, as_json = false;
  Reconnecting reconnecting;
};

constexpr const char *kPhases[] = {"down", "connecting", "pending", "connected"};

// ---- Numbers for people

__attribute__((format(printf, 1, 2))) std::string formatted(const char *format, ...) {
  char text[160];
  va_list values;
  va_start(values, format);
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return text;
}

// In five columns at most.
std::string short_number(double number) {
  constexpr std::array<const char *, 6> kUnits = {"", "k", "M", "G", "T", "P"};
  size_t unit = 0;
  for (; number >= 9999.5 && unit + 1 < kUnits.size(); ++unit) number /= 1000;
  return formatted(unit == 0 || number >= 100 ? "%.0f%s" : "%.1f%s", number, kUnits[unit]);
}

std::string short_number(uint64_t number) { return short_number(static_cast<double>(number)); }

// The end of a bucket of the latencies, or of none.
std::string short_time(uint64_t microseconds) {
  if (microseconds == 0) return "-";
  if (microseconds == UINT64_MAX) return "very long";
  const auto number = static_cast<double>(microseconds);
  if (number < 1e3) return formatted("%.0f us", number);
  return number < 1e6 ? formatted("%.1f ms", number / 1e3) : formatted("%.1f s", number / 1e6);
}

std::string clock_of(uint64_t milliseconds) {
  const uint64_t seconds = milliseconds / 1000;
  return formatted("%" PRIu64 ":%02" PRIu64 ":%02" PRIu64, seconds / 3600, seconds / 60 % 60, seconds % 60);
}

// ---- Forms of a report

struct Rates {
  double stanzas_sent = 0, stanzas_received = 0, bytes_sent = 0, bytes_received = 0;
};

Json json_of(const quillon_query_counts &counts) {
  return {{"answered", counts.answered},
          {"refused", counts.refused},
          {"not_sent", counts.not_sent},
          {"timed_out", counts.timed_out},
          {"unknown", counts.unknown}};
}

Json json_of(const quillon_handler_queue_usage &usage) {
  return {{"waiting", usage.depth},
          {"highest", usage.highest},
          {"dropped", usage.dropped},
          {"bytes", usage.bytes},
          {"highest_bytes", usage.highest_bytes}};
}

// null where there is no such time.
Json json_quantile(const quillon_statistics &now, double part) {
  const uint64_t end = quillon_statistics_latency_quantile(&now, part);
  return end == 0 || end == UINT64_MAX ? Json() : Json(end);
}

std::string json_line(const quillon_statistics &now) {
  Json phases;
  for (size_t i = 0; i < std::size(kPhases); ++i) phases[kPhases[i]] = now.phase_milliseconds[i];
  const Json report = {
      {"phase", kPhases[now.phase]},
      {"phase_milliseconds", phases},
      {"sessions", {{"attempts", now.session_attempts}, {"begun", now.sessions}, {"reconnects", now.reconnects}}},
      {"stanzas", {{"sent", now.stanzas_sent}, {"received", now.stanzas_received}}},
      {"bytes",
       {{"sent", now.bytes_sent},
        {"received", now.bytes_received},
        {"waiting", now.bytes_waiting},
        {"waiting_highest", now.bytes_waiting_highest}}},
      {"queries",
       {{"synchronous", json_of(now.synchronous_queries)},
        {"asynchronous", json_of(now.asynchronous_queries)},
        {"in_flight", now.queries_in_flight},
        {"in_flight_highest", now.queries_in_flight_highest}}},
      {"latency_us",
       {{"p50", json_quantile(now, 0.5)},
        {"p90", json_quantile(now, 0.9)},
        {"p99", json_quantile(now, 0.99)},
        {"sum", now.latency_sum},
        {"buckets", now.latency}}},
      {"queues",
       {{"requests", json_of(now.request_queue)},
        {"notifications", json_of(now.notification_queue)},
        {"completions", json_of(now.completion_queue)}}}};
  return report.dump();
}

quillon_query_counts sum_of(const quillon_query_counts &one, const quillon_query_counts &other) {
  return {.answered = one.answered + other.answered,
          .refused = one.refused + other.refused,
          .not_sent = one.not_sent + other.not_sent,
          .timed_out = one.timed_out + other.timed_out,
          .unknown = one.unknown + other.unknown};
}

std::string plain_line(const quillon_statistics &now, const Rates &rates) {
  const quillon_query_counts queries = sum_of(now.synchronous_queries, now.asynchronous_queries);
  std::string line = kPhases[now.phase];
  line += "  out " + short_number(now.stanzas_sent) + " stanzas " + short_number(rates.bytes_sent) + " B/s";
  line += "  in " + short_number(now.stanzas_received) + " stanzas " + short_number(rates.bytes_received) + " B/s";
  line += "  queries " + short_number(queries.answered) + " answered " +
          short_number(queries.refused + queries.not_sent + queries.timed_out + queries.unknown) + " failed " +
          short_number(now.queries_in_flight) + " in flight";
  return line + "  p50 " + short_time(quillon_statistics_latency_quantile(&now, 0.5)) + "  p99 " +
         short_time(quillon_statistics_latency_quantile(&now, 0.99));
}

// The whole view, which is drawn over the one before.
class Screen {
 public:
  Screen(const std::string &user, const quillon_statistics &now, const Rates &rates) : now_(now) {
    text_ = "\033[H\033[J";
    const Style style = now.phase == QUILLON_CONNECTION_PHASE_CONNECTED ? Style::good : Style::warning;
    text_ += paint(stdout, Style::strong, printable(user).substr(0, kUserColumns)) + "  " +
             paint(stdout, style, kPhases[now.phase]) + "  " + short_number(now.sessions) + " of " +
             short_number(now.session_attempts) + " sessions tried, " + short_number(now.reconnects) + " reconnects\n";
    add_phases();
    heading("traffic", {"sent", "a second", "received", "a second"});
    add_row("stanzas", {short_number(now.stanzas_sent), short_number(rates.stanzas_sent), short_number(now.stanzas_received),
                        short_number(rates.stanzas_received)});
    add_row("bytes", {short_number(now.bytes_sent), short_number(rates.bytes_sent), short_number(now.bytes_received),
                      short_number(rates.bytes_received)});
    heading("queries", {"answered", "refused", "not sent", "timed out", "unknown"});
    add_queries("synchronous", now.synchronous_queries);
    add_queries("asynchronous", now.asynchronous_queries);
    heading("waiting", {"now", "at most", "dropped", "bytes", "at most"});
    add_row("queries", {short_number(now.queries_in_flight), short_number(now.queries_in_flight_highest)});
    add_row("bytes", {short_number(now.bytes_waiting), short_number(now.bytes_waiting_highest)});
    add_queue("requests", now.request_queue);
    add_queue("notifications", now.notification_queue);
    add_queue("completions", now.completion_queue);
    add_latency();
  }

  // Without the last end of line, which would scroll a full screen.
  std::string take() {
    text_.pop_back();
    return std::move(text_);
  }

 private:
  static constexpr int kTitleColumns = 14, kColumns = 11;

  void add_row(const char *title, const std::vector<std::string> &cells, Style style = Style::plain) {
    std::string row = formatted("%-*s", kTitleColumns, title);
    for (const std::string &cell : cells) row += formatted("%*s", kColumns, cell.c_str());
    text_ += paint(stdout, style, row) + "\n";
  }
  void heading(const char *title, const std::vector<std::string> &cells) {
    text_ += "\n";
    add_row(title, cells, Style::faint);
  }
  void add_phases() {
    std::vector<std::string> times;
    for (const uint64_t milliseconds : now_.phase_milliseconds) times.push_back(clock_of(milliseconds));
    heading("", {std::begin(kPhases), std::end(kPhases)});
    add_row("time", times);
  }
  void add_queries(const char *title, const quillon_query_counts &counts) {
    add_row(title, {short_number(counts.answered), short_number(counts.refused), short_number(counts.not_sent),
                    short_number(counts.timed_out), short_number(counts.unknown)});
  }
  void add_queue(const char *title, const quillon_handler_queue_usage &usage) {
    add_row(title, {short_number(usage.depth), short_number(usage.highest), short_number(usage.dropped),
                    short_number(usage.bytes), short_number(usage.highest_bytes)});
  }

  // A bar for each bucket, from the first that is in use to the last; where there is no room for all, for the last ones.
  void add_latency() {
    const auto quantile = [&](double part) { return short_time(quillon_statistics_latency_quantile(&now_, part)); };
    heading("answers", {"50%", "90%", "99%", "all"});
    add_row("within", {quantile(0.5), quantile(0.9), quantile(0.99), quantile(1)});
    const uint64_t *const begin = now_.latency, *const end = begin + QUILLON_LATENCY_BUCKETS;
    const uint64_t most = *std::max_element(begin, end);
    if (most == 0) return;
    const auto is_used = [](uint64_t count) { return count > 0; };
    const auto lines = static_cast<std::ptrdiff_t>(terminal_height(stdout)) - std::count(text_.begin(), text_.end(), '\n') - 1;
    const auto last =
        QUILLON_LATENCY_BUCKETS - 1 -
        (std::find_if(std::reverse_iterator(end), std::reverse_iterator(begin), is_used) - std::reverse_iterator(end));
    const auto first = std::max(std::find_if(begin, end, is_used) - begin, last + 1 - std::max<std::ptrdiff_t>(lines, 0));
    for (auto i = first; i <= last; ++i) {
      const auto width =
          static_cast<size_t>(std::lround(static_cast<double>(begin[i]) / static_cast<double>(most) * kBarColumns));
      const uint64_t limit = i + 1 < QUILLON_LATENCY_BUCKETS ? uint64_t{1} << i : UINT64_MAX;
      text_ += formatted("%13s ", short_time(limit).c_str()) + paint(stdout, Style::good, std::string(width, '#')) +
               (width > 0 ? " " : "") + short_number(begin[i]) + "\n";
    }
  }

  const quillon_statistics &now_;
  std::string text_;
};

class Top {
 public:
  Top(const Options &options, const Settings &settings, Stop &stop)
      : options_(options), stop_(stop), draws_(!options.as_json && is_terminal(stdout)), session_(settings, stop) {
    const CapabilityOptions plain;
    const std::string ns = namespace_of(plain, settings);
    for (const std::string &name : options.capabilities) capabilities_.push_back(std::make_unique<Capability>(name, ns, false));
  }

  void run() {
    session_.join();
    subscribe();
    auto next = Clock::now();
    for (uint64_t shown = 0; shown < options_.count || options_.count == 0; ++shown) {
      if (options_.asks) ask();
      wait_until(next);
      next = std::max(next + kInterval, Clock::now());  // what was missed is not made up for
      show();
    }
  }

 private:
  void subscribe() {
    for (const auto &capability : capabilities_) capability->subscribe(session_);
  }

  // Its answer, if there is one, is counted: nobody looks at it. Nobody is told when it could not even be begun, as that is
  // counted, too.
  void ask() {
    wb_dom_ctx *context = nullptr;
    wb_dom_node *request = nullptr;
    if (!wb_dom_context_create(&context, nullptr)) throw std::bad_alloc();
    const auto ignore = [](const quillon_query_result *, void *) {};
    if (!wb_dom_element_create(context, ele_get_capabilities_name, &request, nullptr) ||
        quillon_connection_query_controller_async(session_.connection(), request, kDeadlineMs, ignore, nullptr, nullptr) !=
            QUILLON_STATUS_OK) {
      wb_dom_context_destroy(context);
    }
  }

  void wait_until(Clock::time_point when) {
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now()).count();
      pollfd waited[] = {{stop_.descriptor(), POLLIN, 0},
                         {session_.lost_descriptor(), POLLIN, 0},
                         {STDOUT_FILENO, 0, 0}};  // whose reader may leave
      poll(waited, 3, static_cast<int>(std::max<decltype(left)>(left, 0)));
      stop_.check();
      if ((waited[2].revents & POLLERR) != 0) throw Stopped{SIGPIPE};
      if (session_.is_lost()) session_.join_again(options_.reconnecting, [this] { subscribe(); });
      if (left <= 0) return;
    }
  }

  void show() {
    quillon_statistics now;
    now.size = sizeof now;
    expect_ok(quillon_connection_get_statistics(session_.connection(), &now), "read the statistics");
    const Clock::time_point when = Clock::now();
    const Rates rates = rates_since_last(now, when);
    if (draws_) {
      print_line(Screen(session_.user(), now, rates).take());
    } else {
      print_line(options_.as_json ? json_line(now) : plain_line(now, rates));
    }
    flush_output();
    last_ = now;
    last_time_ = when;
  }

  // None for the first report.
  Rates rates_since_last(const quillon_statistics &now, Clock::time_point when) const {
    if (last_time_ == Clock::time_point()) return {};
    const double seconds = std::chrono::duration<double>(when - last_time_).count();
    const auto rate = [&](uint64_t count, uint64_t before) { return static_cast<double>(count - before) / seconds; };
    return {.stanzas_sent = rate(now.stanzas_sent, last_.stanzas_sent),
            .stanzas_received = rate(now.stanzas_received, last_.stanzas_received),
            .bytes_sent = rate(now.bytes_sent, last_.bytes_sent),
            .bytes_received = rate(now.bytes_received, last_.bytes_received)};
  }

  const Options &options_;
  Stop &stop_;
  const bool draws_;
  std::vector<std::unique_ptr<Capability>> capabilities_;
  Session session_;
  quillon_statistics last_ = {};
  Clock::time_point last_time_ = {};
};

}  // namespace

void add_top_command(CommandLine &line, Context &context) {
  const auto options = std::make_shared<Options>();
  Command command =
      add_command(line, context, "top", "Shows once a second what a connection of its own sends, receives and waits for",
                  "  qlk top Weather --reconnect\n"
                  "  qlk top --ask\n"
                  "  qlk top --ask --count 10 --json | jq .latency_us.p99",
                  [&context, options](Stop &stop) {
                    const Settings settings = complete_settings(context.connection, stop);
                    Top(*options, settings, stop).run();
                    return ExitCode::done;
                  });
  command.arguments("CAPABILITY", options->capabilities, "Capabilities to subscribe to, so that their notifications are seen");
  command.flag("-a,--ask", options->asks, "Ask the controller a question before each report, to see how long answers take");
  command.number("-c,--count", "N", options->count, "End after this many reports");
  command.flag("--json", options->as_json, "Print each report as one line of JSON");
  add_reconnection_options(command, options->reconnecting);
}

}  // namespace tool
