// Downloads a bulk document with curl alone, in one thread, for the library's way to be measured beside:
//
//   bulk_curl --who nowhere|expat --url URL --ca FILE --certificate FILE --key FILE --user JID --items COUNT
//
// "nowhere" counts the bytes; "expat" feeds them to expat (namespaces on) with handlers that do nothing.
#include <curl/curl.h>
#include <expat.h>

#include "support/arguments.h"
#include "support/measure.h"

namespace {

size_t count_bytes(char *, size_t size, size_t count, void *bytes) {
  *static_cast<size_t *>(bytes) += size * count;
  return size * count;
}

struct Expat {
  XML_Parser parser;
  size_t bytes;
};

size_t feed_expat(char *bytes, size_t size, size_t count, void *arg) {
  Expat &expat = *static_cast<Expat *>(arg);
  expat.bytes += size * count;
  return XML_Parse(expat.parser, bytes, static_cast<int>(size * count), XML_FALSE) == XML_STATUS_OK ? size * count : 0;
}

void XMLCALL ignore_start(void *, const XML_Char *, const XML_Char **) {}
void XMLCALL ignore_end(void *, const XML_Char *) {}
void XMLCALL ignore_text(void *, const XML_Char *, int) {}

void download(const bench::Arguments &arguments, curl_write_callback callback, void *arg) {
  CURL *const handle = curl_easy_init();
  const std::string body =
      "<bulkRequest xmlns='http://quillon.internal/quillon' records='" + arguments.required("items") + "' recordSize='600'/>";
  const std::string user = "user:" + arguments.required("user");
  curl_slist *const headers = curl_slist_append(curl_slist_append(nullptr, "Content-Type: application/xml"), user.c_str());
  curl_easy_setopt(handle, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(handle, CURLOPT_URL, arguments.required("url").c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(handle, CURLOPT_CAINFO, arguments.required("ca").c_str());
  curl_easy_setopt(handle, CURLOPT_SSLCERT, arguments.required("certificate").c_str());
  curl_easy_setopt(handle, CURLOPT_SSLKEY, arguments.required("key").c_str());
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, callback);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, arg);
  const CURLcode code = curl_easy_perform(handle);
  if (code != CURLE_OK) bench::fail(std::string("curl: ") + curl_easy_strerror(code));
  curl_easy_cleanup(handle);
  curl_slist_free_all(headers);
}

size_t to_nowhere(const bench::Arguments &arguments) {
  size_t bytes = 0;
  download(arguments, count_bytes, &bytes);
  return bytes;
}

size_t to_expat(const bench::Arguments &arguments) {
  Expat expat = {XML_ParserCreateNS(nullptr, '|'), 0};
  XML_SetElementHandler(expat.parser, ignore_start, ignore_end);
  XML_SetCharacterDataHandler(expat.parser, ignore_text);
  download(arguments, feed_expat, &expat);
  if (XML_Parse(expat.parser, nullptr, 0, XML_TRUE) != XML_STATUS_OK) bench::fail("expat cannot read the document");
  XML_ParserFree(expat.parser);
  return expat.bytes;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const std::string who = arguments.required("who");
  const long before = bench::resident_kib();
  const bench::Span span;
  const size_t bytes = who == "expat" ? to_expat(arguments) : to_nowhere(arguments);
  bench::Result()
      .add("seconds", span.seconds())
      .add("bytes", static_cast<double>(bytes))
      .add("peak_kib", static_cast<double>(bench::peak_resident_kib() - before))
      .print();
}
