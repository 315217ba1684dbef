#include "document.h"

#include <warbler/warbler.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace bulk {

namespace {

constexpr size_t kPieceBytes = 256u << 10;
constexpr size_t kRecordBytesMax = 64u << 20;
constexpr size_t kNumberDigits = 12;
constexpr char kRequestName[] = "{http://quillon.internal/quillon}bulkRequest";
constexpr char kHead[] = R"(<?xml version="1.0" encoding="UTF-8"?><results xmlns="urn:quillon:results"><page>)";
constexpr char kTail[] = "</page></results>\n";

// Each record has one number, and one place that filling text makes as long as is asked for.
constexpr char kReading[] =
    R"(<reading id="000000000000" unit="celsius"><sensor>boiler-3</sensor><time>2026-01-01T00:00:00Z</time><value>81.5</value>)"
    R"(<quality>good</quality><note>$</note></reading>)";
constexpr char kReport[] =
    "<report id=\"000000000000\">\n  <title>Shift report</title>\n  <author><name>A. Miller</name><group>ops</group></author>\n"
    "  <text>Pressure &lt; 3 bar &amp; steady: $</text>\n</report>\n";
constexpr std::string_view kFilling = "all values stayed within their limits during the shift, no action was needed; ";

struct ContextEnd {
  void operator()(wb_dom_node *node) const { wb_dom_context_destroy(wb_dom_get_context(node)); }
};

template <typename Number>
bool read_number(const wb_dom_node *request, const char *name, Number &out) {
  const char *const text = wb_dom_get_attribute(request, name);
  if (text == nullptr) return true;
  const char *const end = text + std::strlen(text);
  const auto [at, error] = std::from_chars(text, end, out);
  return error == std::errc() && at == end;
}

bool read_failure(const char *text, Failure &out) {
  constexpr struct {
    std::string_view name;
    Failure failure;
  } known[] = {
      {"reset", Failure::reset}, {"truncate", Failure::truncate}, {"malformed", Failure::malformed}, {"silent", Failure::silent}};
  for (const auto &entry : known) {
    if (entry.name == text) {
      out = entry.failure;
      return true;
    }
  }
  return false;
}

std::string make_record(const Order &order) {
  std::string record = order.result_set == "reports" ? kReport : kReading;
  const size_t place = record.find('$');
  const size_t bare = record.size() - 1;
  std::string filling;
  const size_t wanted = order.record_bytes > bare ? order.record_bytes - bare : 0;
  while (filling.size() < wanted) filling.append(kFilling);
  filling.resize(wanted);
  return record.replace(place, 1, filling);
}

}  // namespace

bool read_order(const std::string &xml, Order &order, std::string &complaint) {
  wb_dom_node *parsed = nullptr;
  wb_err err = {};
  if (!wb_dom_parse(xml.data(), xml.size(), &parsed, &err)) {
    complaint = err.message;
    return false;
  }
  const std::unique_ptr<wb_dom_node, ContextEnd> request(parsed);
  complaint.clear();
  if (std::string_view(wb_dom_get_ename(parsed)) != kRequestName) complaint = "not a bulkRequest";
  if (const char *set = wb_dom_get_attribute(parsed, "resultSet"); set != nullptr) order.result_set = set;
  if (order.result_set != "readings" && order.result_set != "reports") complaint = "no such result set";
  if (wb_dom_get_attribute(parsed, "records") == nullptr || !read_number(parsed, "records", order.records)) {
    complaint = "how many records?";
  }
  if (!read_number(parsed, "recordSize", order.record_bytes) || order.record_bytes > kRecordBytesMax) complaint = "recordSize";
  if (!read_number(parsed, "delayMilliseconds", order.delay_ms)) complaint = "delayMilliseconds";
  if (!read_number(parsed, "failureAfter", order.failure_after)) complaint = "failureAfter";
  if (const char *failure = wb_dom_get_attribute(parsed, "failure"); failure != nullptr) {
    if (!read_failure(failure, order.failure)) complaint = "failure";
  }
  return complaint.empty();
}

Document::Document(const Order &order)
    : order_(order),
      head_(kHead),
      record_(make_record(order)),
      tail_(kTail),
      number_at_(record_.find("000000000000")),
      batch_(std::max<size_t>(1, kPieceBytes / record_.size())) {}

size_t Document::write(char *place) {
  char *at = place;
  if (!begun_) at = std::copy(head_.begin(), head_.end(), at);
  begun_ = true;
  const uint64_t end = order_.failure != Failure::none ? std::min(order_.failure_after, order_.records) : order_.records;
  for (size_t i = 0; i < batch_ && next_ < end; ++i, ++next_) {
    std::memcpy(at, record_.data(), record_.size());
    uint64_t number = next_;
    for (char *digit = at + number_at_ + kNumberDigits; number != 0; number /= 10)
      *--digit = static_cast<char>('0' + number % 10);
    at += record_.size();
  }
  if (next_ < end || ended_) return static_cast<size_t>(at - place);
  ended_ = true;
  if (!has_failed()) at = std::copy(tail_.begin(), tail_.end(), at);
  if (order_.failure == Failure::malformed) {
    constexpr std::string_view wrong = "</nothing>";
    at = std::copy(wrong.begin(), wrong.end(), at);
  }
  return static_cast<size_t>(at - place);
}

}  // namespace bulk
