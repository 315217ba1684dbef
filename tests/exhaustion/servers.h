// The servers that the flows need, in a process of their own: what they allocate, open and start is not the library's.
#pragma once

#include <string>

namespace exhaustion {

// Where they are, and the files to reach them with.
struct Servers {
  std::string host, bulk_url;
  std::string authority, certificate, key, revocations;
};

// Starts them, by a fork: before the process has any thread. They end with it.
void start_servers();
const Servers &servers();

// Names that the servers know. The publisher answers every query with the query itself.
constexpr char kNamespace[] = "urn:test", kCapability[] = "Weather";
constexpr char kAskMe[] = "askMe";        // a request to the controller, who asks the client kQuestion before it answers
constexpr char kQuestion[] = "question";  // the client answers it with itself
constexpr char kTokenText[] = "a token";  // that the controller gives
constexpr int kItems = 20;                // of the bulk service's document
constexpr char kNews[] = "news";          // what a notification carries; the service sends it back to who published it

}  // namespace exhaustion
