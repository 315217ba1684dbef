#include "query.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "in_flight.h"
#include "payloads.h"
#include "session.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

// Of a question that has no deadline of its own, where several are asked at once.
constexpr unsigned kDeadlineMs = 60'000;

struct Options {
  CapabilityOptions capability;
  std::string payload, file;
  uint64_t repeat = 1;
  unsigned interval_ms = 0, deadline_ms = 0;
  int in_flight = 1;
  bool as_json = false, is_quiet = false;
};

// Times in milliseconds.
class Timing {
 public:
  void add(double milliseconds) { times_.push_back(milliseconds); }
  void add_failure() { ++failures_; }
  void add_failure(QUILLON_QUERY_OUTCOME outcome) {
    ++failures_;
    ++outcomes_[outcome];
    has_outcomes_ = true;
  }

  std::string summary() {
    if (times_.empty()) return std::to_string(failures_) + " queries, none answered" + outcomes();
    std::sort(times_.begin(), times_.end());
    char text[200];
    std::snprintf(text, sizeof text, "%zu answered, %zu failed: min %s  p50 %s  p99 %s  max %s ms", times_.size(), failures_,
                  shown(times_.front()).c_str(), shown(percentile(50)).c_str(), shown(percentile(99)).c_str(),
                  shown(times_.back()).c_str());
    return text + outcomes();
  }

 private:
  // What became of those that failed; empty where only their statuses are known.
  std::string outcomes() const {
    if (!has_outcomes_) return "";
    return "; " + std::to_string(outcomes_[QUILLON_QUERY_OUTCOME_REFUSED]) + " refused, " +
           std::to_string(outcomes_[QUILLON_QUERY_OUTCOME_NOT_SENT]) + " not sent, " +
           std::to_string(outcomes_[QUILLON_QUERY_OUTCOME_UNKNOWN]) + " with unknown outcome";
  }
  // The smallest time that so many of a hundred do not exceed.
  double percentile(int percent) const {
    const double rank = std::ceil(percent / 100.0 * static_cast<double>(times_.size()));
    return times_[static_cast<size_t>(rank) - 1];
  }
  static std::string shown(double milliseconds) {
    char text[32];
    std::snprintf(text, sizeof text, milliseconds < 10 ? "%.2f" : milliseconds < 100 ? "%.1f" : "%.0f", milliseconds);
    return text;
  }

  std::vector<double> times_;
  size_t failures_ = 0;
  std::array<size_t, QUILLON_QUERY_OUTCOME_MAX> outcomes_{};
  bool has_outcomes_ = false;
};

Element read_payload(const Options &options, const Stop &stop) {
  if (!options.payload.empty()) return parse_payload(options.payload, "the payload");
  const std::string path = options.file.empty() ? "-" : options.file;
  if (path == "-" && is_terminal(stdin)) note("the payload, an XML element; Ctrl-D ends it");
  return parse_payload(read_file(path, stop), origin_of(path));
}

class Asker {
 public:
  Asker(const Options &options, const Settings &settings, Stop &stop)
      : options_(options),
        stop_(stop),
        seconds_(settings.values.timeout_seconds),
        payload_(read_payload(options, stop)),
        capability_(options.capability.name, namespace_of(options.capability, settings, payload_.get()),
                    options.capability.is_dynamic),
        session_(settings, stop) {}

  ExitCode run() {
    session_.join();
    session_.begin_request();
    session_.expect(quillon_dynamic_capability_refresh_publisher_jids(capability_.get(), session_.connection()),
                    "look for the publishers of " + capability_.name());
    const bool is_timed = options_.repeat != 1;
    if (is_timed) watch_stanzas(false);
    std::optional<Failure> failure;
    try {
      if (options_.in_flight > 1 || options_.deadline_ms > 0) {
        try {
          ask_at_once(failure);
        } catch (...) {
          count_the_rest();
          throw;
        }
      } else {
        for (uint64_t i = 0; wants(i); ++i) {
          pause_before(i);
          ask(failure);
        }
      }
    } catch (...) {
      flush_output();
      if (is_timed) note(timing_.summary());
      throw;
    }
    flush_output();
    if (is_timed) note(timing_.summary());
    if (failure.has_value()) throw *failure;
    return ExitCode::done;
  }

 private:
  bool wants(uint64_t asked) const { return asked < options_.repeat || options_.repeat == 0; }

  void pause_before(uint64_t asked) {
    if (asked > 0 && options_.interval_ms > 0) stop_.wait_for(std::chrono::milliseconds(options_.interval_ms));
    stop_.check();
  }

  // Each of several at once, none of which waits for another.
  void ask_at_once(std::optional<Failure> &failure) {
    const std::chrono::milliseconds deadline(options_.deadline_ms > 0 ? options_.deadline_ms : kDeadlineMs);
    session_.begin_request();
    for (uint64_t asked = 0; wants(asked) || in_flight_.count() > 0;) {
      if (wants(asked) && in_flight_.count() < static_cast<size_t>(options_.in_flight)) {
        pause_before(asked++);
        session_.expect(in_flight_.begin(session_.connection(), capability_.get(), copy_of(payload_.get()), deadline),
                        "query " + capability_.name());
      } else {
        take(in_flight_.next(), failure);
      }
    }
  }

  void take(const QuestionEnd &end, std::optional<Failure> &failure) {
    if (end.outcome == QUILLON_QUERY_OUTCOME_ANSWERED) return accept(end.response, end.milliseconds);
    timing_.add_failure(end.outcome);
    stop_.check();
    explain(end.status, failure);
    session_.begin_request();  // what the grid said to this one explains no other
  }

  // Those that were asked and shall not be waited for have outcomes too.
  void count_the_rest() {
    quillon_connection_drain(session_.connection(), 0);
    while (in_flight_.count() > 0) {
      const QuestionEnd end = in_flight_.next();
      if (end.outcome == QUILLON_QUERY_OUTCOME_ANSWERED) {
        timing_.add(end.milliseconds);
      } else {
        timing_.add_failure(end.outcome);
      }
    }
  }

  void accept(const Element &response, double milliseconds) {
    timing_.add(milliseconds);
    if (!options_.is_quiet) print_line(options_.as_json ? to_json(response.get()) : to_xml(response.get()));
  }

  void ask(std::optional<Failure> &failure) {
    session_.begin_request();
    Element request = copy_of(payload_.get());
    wb_dom_node *received = nullptr;
    const auto begin = Clock::now();
    const QUILLON_STATUS status = quillon_connection_query(session_.connection(), capability_.get(), request.get(), &received);
    const double milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    const bool was_consumed = status != QUILLON_STATUS_CAPABILITY_NOT_FOUND && status != QUILLON_STATUS_INVALID_ARGS;
    if (was_consumed) static_cast<void>(request.release());
    const Element response(received);
    if (status == QUILLON_STATUS_OK) return accept(response, milliseconds);
    stop_.check();
    timing_.add_failure();
    explain(status, failure);
  }

  // Who was asked, and for how long.
  Failure silence() const {
    const std::unique_ptr<quillon_array, Ended<quillon_array_destroy>> publishers(
        quillon_capability_copy_jids(capability_.get()));
    std::vector<std::string> asked;
    for (int32_t i = 0; i < quillon_array_size(publishers.get()); ++i) {
      const char *jid = quillon_string_cstr(static_cast<const quillon_string *>(quillon_array_get(publishers.get(), i)));
      asked.push_back(printable(jid != nullptr ? jid : ""));
    }
    const std::string time =
        options_.deadline_ms > 0 ? std::to_string(options_.deadline_ms) + " ms" : std::to_string(seconds_) + " s";
    return {ExitCode::timed_out, "cannot query " + capability_.name() + ": no answer in " + time + " from " + joined(asked),
            "A publisher answers only elements that it serves; their namespace counts."};
  }

  // One that fails does not end the others, unless it shows that they would fail too.
  void explain(QUILLON_STATUS status, std::optional<Failure> &failure) {
    try {
      if (status == QUILLON_STATUS_CAPABILITY_NOT_FOUND) {
        throw Failure(ExitCode::not_found, "nobody publishes " + capability_.name() + " now");
      }
      if (status == QUILLON_STATUS_SEND_TIMEOUT && !session_.is_lost()) throw silence();
      session_.expect(status, "query " + capability_.name());
    } catch (const Failure &thrown) {
      const bool goes_on = status == QUILLON_STATUS_SEND_TIMEOUT || status == QUILLON_STATUS_XMPP_ERROR;
      if (options_.repeat == 1 || !goes_on || session_.is_lost()) throw;
      failure = thrown;
    }
  }

  const Options &options_;
  Stop &stop_;
  const int seconds_;
  const Element payload_;
  Timing timing_;
  const Capability capability_;
  InFlight in_flight_;
  Session session_;
};

}  // namespace

void add_query_command(CommandLine &line, Context &context) {
  const auto options = std::make_shared<Options>();
  Command command = add_command(line, context, "query", "Asks a publisher of a capability and prints the answer",
                                "  qlk query Weather '<day xmlns=\"urn:example\">Monday</day>'\n"
                                "  qlk query Weather --file question.xml --json\n"
                                "  qlk query Weather '<day xmlns=\"urn:example\"/>' --repeat 1000 --quiet\n"
                                "  qlk query Weather '<day xmlns=\"urn:example\"/>' \\\n"
                                "      --repeat 1000 --in-flight 50 --deadline 2000 --quiet",
                                [&context, options](Stop &stop) {
                                  const Settings settings = complete_settings(context.connection, stop);
                                  return Asker(*options, settings, stop).run();
                                });
  add_capability_options(command, options->capability);
  command.argument("PAYLOAD", options->payload, "The question, an XML element; without it, and without --file, standard input");
  command.option("-f,--file", "FILE", options->file, "A file that holds the question; - is standard input");
  command.number("-r,--repeat", "N", options->repeat, "Ask this many times, 0: until Ctrl-C, and tell the times at the end");
  command.number("-i,--interval", "MS", options->interval_ms, "Pause between two questions, in milliseconds");
  command.number("--in-flight", "N", options->in_flight, 1, 100'000, "Ask so many at once; their answers come in any order");
  command.number("--deadline", "MS", options->deadline_ms,
                 "Time for each answer, whichever publishers are asked, in milliseconds");
  command.flag("--json", options->as_json, "Print each answer as one line of JSON");
  command.flag("-q,--quiet", options->is_quiet, "Do not print the answers");
}

}  // namespace tool
