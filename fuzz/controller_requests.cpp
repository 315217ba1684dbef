// The controller's requests: the children of the document's root are stanzas that arrive in this order. None may end it, and the
// database stays sound.
#include <event2/event.h>
#include <warbler/log.h>

#include "fuzz.h"
#include "requests.h"
#include "session.h"

namespace {

using namespace controller;

// Not connected: what is sent is dropped, and who waits for an answer is told at once that none comes.
Session &session(const Options &options) {
  static event_base *base = event_base_new();
  static Session made(base, options);
  return made;
}

const Options &options() {
  static const Options made = [] {
    wb_log_set_level(WB_LOG_NONE);
    Options defaults;
    defaults.hosts = {"127.0.0.1:9"};
    return defaults;
  }();
  return made;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const fuzz::Tree tree = fuzz::parse(fuzz::text(data, size));
  if (tree == nullptr) return 0;
  Session &quiet = session(options());
  Store store(":memory:");
  Topics topics(quiet, options());
  Accounts accounts(store, true);
  Registry registry(store, [](const auto &...) {});
  Directory directory(store, quiet, topics, accounts);
  Requests requests(options(), quiet, accounts, registry, directory);
  for (const wb_dom_node *stanza = wb_dom_get_first_child(tree.get()); stanza != nullptr; stanza = wb_dom_get_sibling(stanza)) {
    if (std::string_view(wb_dom_get_localname(stanza)) == "presence") {
      requests.receive_presence(stanza);
    } else {
      requests.receive_iq(stanza);
    }
  }
  const std::optional<std::string> sound = store.value("PRAGMA integrity_check");
  fuzz::require(sound && *sound == "ok", "the database is sound");
  return 0;
}
