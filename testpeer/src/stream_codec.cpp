#include "stream_codec.h"

#include <openssl/evp.h>

#include <new>
#include <stdexcept>
#include <utility>

// Weak: only the expat that is loaded knows whether it has the function, and its header may be older.
extern "C" XML_Bool XMLCALL XML_SetReparseDeferralEnabled(XML_Parser parser, XML_Bool enabled) __attribute__((weak));

namespace testpeer {

namespace {

constexpr char kSeparator = '\n';  // no namespace has a line break
constexpr size_t kDepthMax = 256;

void split(std::string_view expanded, std::string &ns, std::string &local) {
  const size_t at = expanded.find(kSeparator);
  if (at != std::string_view::npos) ns = expanded.substr(0, at);
  local = at == std::string_view::npos ? expanded : expanded.substr(at + 1);
}

}  // namespace

std::string base64_encode(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                                     reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(length));
  return out;
}

std::optional<std::string> base64_decode(std::string_view text) {
  if (text.empty() || text == "=") return std::string();
  std::string out(text.size(), '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                                     reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  if (length < 0 || text.size() % 4 != 0) return std::nullopt;
  // It writes a zero byte for each sign of padding.
  const size_t padding = text.ends_with("==") ? 2 : (text.ends_with("=") ? 1 : 0);
  out.resize(static_cast<size_t>(length) - padding);
  return out;
}

StreamReader::StreamReader() : parser_(XML_ParserCreateNS(nullptr, kSeparator)) {
  if (parser_ == nullptr) throw std::bad_alloc();
  // Otherwise an end tag may stay unseen until more bytes come.
  if (&XML_SetReparseDeferralEnabled != nullptr) XML_SetReparseDeferralEnabled(parser_.get(), XML_FALSE);
  XML_SetUserData(parser_.get(), this);
  XML_SetElementHandler(parser_.get(), on_start, on_end);
  XML_SetCharacterDataHandler(parser_.get(), on_text);
  XML_SetStartDoctypeDeclHandler(parser_.get(), on_doctype);
}

std::optional<StreamReader::Item> StreamReader::next() {
  XML_Status status = XML_STATUS_OK;
  if (suspended_) {
    suspended_ = false;
    status = XML_ResumeParser(parser_.get());
  }
  if (status == XML_STATUS_OK && !item_ && !pending_.empty()) {
    const std::string bytes = std::exchange(pending_, {});
    fed_ += bytes;
    status = XML_Parse(parser_.get(), bytes.data(), static_cast<int>(bytes.size()), XML_FALSE);
  }
  suspended_ = status == XML_STATUS_SUSPENDED;
  if (refused_ != nullptr) throw std::runtime_error(refused_);
  if (status == XML_STATUS_ERROR) throw std::runtime_error(XML_ErrorString(XML_GetErrorCode(parser_.get())));
  forget_consumed();
  return std::exchange(item_, std::nullopt);
}

std::string StreamReader::take_rest() {
  forget_consumed();
  return std::exchange(fed_, {}) + std::exchange(pending_, {});
}

void StreamReader::forget_consumed() {
  fed_.erase(0, consumed_);
  base_ += consumed_;
  consumed_ = 0;
}

void StreamReader::deliver(Item::Kind kind, Element element) {
  item_ = Item{kind, std::move(element)};
  const auto end =
      static_cast<size_t>(XML_GetCurrentByteIndex(parser_.get())) + static_cast<size_t>(XML_GetCurrentByteCount(parser_.get()));
  consumed_ = end - base_;
  XML_StopParser(parser_.get(), XML_TRUE);
}

void StreamReader::on_start(void *user, const XML_Char *name, const XML_Char **attributes) {
  StreamReader &self = *static_cast<StreamReader *>(user);
  Element element;
  split(name, element.ns, element.local);
  for (; *attributes != nullptr; attributes += 2) {
    std::string ns, local;
    split(attributes[0], ns, local);
    if (!ns.empty()) local.insert(0, "}").insert(0, ns).insert(0, "{");
    element.attributes[local] = attributes[1];
  }
  if (!self.inside_) {
    self.inside_ = true;
    self.deliver(Item::Kind::head, std::move(element));
  } else if (self.open_.size() >= kDepthMax) {
    self.refused_ = "nested too deeply";
    XML_StopParser(self.parser_.get(), XML_FALSE);
  } else {
    self.open_.push_back(std::move(element));
  }
}

void StreamReader::on_end(void *user, const XML_Char *) {
  StreamReader &self = *static_cast<StreamReader *>(user);
  if (self.open_.empty()) return self.deliver(Item::Kind::end, {});
  Element element = std::move(self.open_.back());
  self.open_.pop_back();
  if (self.open_.empty()) return self.deliver(Item::Kind::stanza, std::move(element));
  self.open_.back().children.push_back(std::move(element));
}

void StreamReader::on_text(void *user, const XML_Char *text, int length) {
  StreamReader &self = *static_cast<StreamReader *>(user);
  if (!self.open_.empty()) self.open_.back().text.append(text, static_cast<size_t>(length));
}

void StreamReader::on_doctype(void *user, const XML_Char *, const XML_Char *, const XML_Char *, int) {
  StreamReader &self = *static_cast<StreamReader *>(user);
  self.refused_ = "a document type declaration";
  XML_StopParser(self.parser_.get(), XML_FALSE);
}

}  // namespace testpeer
