#include "http_message.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>

namespace testpeer {

namespace {

constexpr char kLineEnd[] = "\r\n";
constexpr std::string_view kBlanks = " \t";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool is_same_name(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) { return lower(a) == lower(b); });
}

// In hexadecimal digits, as chunks have it.
std::string chunk_of(const std::string &piece) {
  char size[32];
  std::snprintf(size, sizeof size, "%zx", piece.size());
  return size + (kLineEnd + piece) + kLineEnd;
}

const char *phrase_of(int status) {
  if (status < 300) return "OK";
  return status < 400 ? "Elsewhere" : "Refused";
}

}  // namespace

std::string HttpRequest::path() const { return target.substr(0, target.find('?')); }

std::string HttpRequest::header(std::string_view name) const {
  const auto found =
      std::find_if(headers.begin(), headers.end(), [name](const auto &one) { return is_same_name(one.first, name); });
  return found == headers.end() ? "" : found->second;
}

HttpAnswer HttpAnswer::redirect(std::string location, int status) {
  return {.status = status, .headers = {{"Location", std::move(location)}}};
}

HttpRequest parse_request_head(std::string head) {
  HttpRequest request;
  request.head = std::move(head);
  std::string_view rest = request.head;
  for (bool is_first = true; !rest.empty(); is_first = false) {
    const size_t end = std::min(rest.find(kLineEnd), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 2, rest.size()));
    const size_t mark = line.find(is_first ? ' ' : ':');
    if (mark == std::string_view::npos) continue;
    const std::string_view value = line.substr(mark + 1);
    if (is_first) {
      request.method = line.substr(0, mark);
      request.target = value.substr(0, value.find(' '));
    } else {
      request.headers.emplace_back(line.substr(0, mark), trimmed(value));
    }
  }
  return request;
}

size_t body_length(const HttpRequest &request) { return std::strtoul(request.header("Content-Length").c_str(), nullptr, 10); }

std::string head_of(const HttpAnswer &answer) {
  std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " + phrase_of(answer.status) + kLineEnd;
  for (const auto &[name, value] : answer.headers) head += name + ": " + value + kLineEnd;
  if (answer.framing == HttpFraming::length) {
    const size_t length = std::accumulate(answer.pieces.begin(), answer.pieces.end(), size_t{0},
                                          [](size_t sum, const std::string &piece) { return sum + piece.size(); });
    head += "Content-Length: " + std::to_string(answer.announced_length.value_or(length)) + kLineEnd;
  }
  if (answer.framing == HttpFraming::chunked) head.append("Transfer-Encoding: chunked").append(kLineEnd);
  return head + "Connection: close" + kLineEnd + kLineEnd;
}

std::vector<std::string> encoded_pieces(const HttpAnswer &answer) {
  std::vector<std::string> pieces = answer.pieces;
  if (answer.framing != HttpFraming::chunked) return pieces;
  std::erase(pieces, "");  // an empty chunk would be the last one
  std::transform(pieces.begin(), pieces.end(), pieces.begin(), chunk_of);
  const std::string last = chunk_of("");
  if (pieces.empty()) {
    pieces.push_back(last);
  } else {
    pieces.back() += last;
  }
  return pieces;
}

}  // namespace testpeer
