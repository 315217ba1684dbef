#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "owners.h"
#include "quillon.h"
#include "stanza_builder.h"

// The record lives on after its destruction as long as a registry's snapshot or a running update still holds it; it is then
// marked as destroyed, and nothing of the application's is touched any more.
struct _quillon_capability {
  quillon_string *namespace_ = nullptr;
  quillon_string *name = nullptr;
  quillon_string *ename = nullptr;  // reserved
  quillon_array *jids = nullptr;    // of quillon_string
  quillon_string *topic = nullptr;
  wb_dom_node *filter = nullptr;  // borrowed

  // Guards everything but destroyed. Nothing is sent or called back under it, and nothing logged but the traces of strings.
  mutable std::mutex mutex;
  std::unordered_set<std::string_view> jid_texts;            // what is in jids, so that looking for one does not walk it
  std::vector<std::weak_ptr<quillon_notification>> engines;  // where its publisher updates are registered
  std::atomic<bool> destroyed = false;
  std::shared_ptr<_quillon_capability> self;  // the creator's reference
  std::weak_ptr<_quillon_capability> weak_self;

  _quillon_capability() = default;
  ~_quillon_capability();
  _quillon_capability(const _quillon_capability &) = delete;
  _quillon_capability &operator=(const _quillon_capability &) = delete;
};

namespace qlk {

using CapabilityPtr = std::shared_ptr<quillon_capability>;

// The key under which the query engine keeps a capability's preferred publisher: the bytes of the topic's buffer_len up to the
// first zero byte. Capabilities whose topics have buffers of one size share it.
using StickyKey = std::array<char, sizeof(size_t) + 1>;

// As quillon_capability_create, without an array for the publishers.
QUILLON_STATUS quillon_capability_default_create(quillon_capability **capability);

// Adds a copy of the JID unless it is there; removes it. The caller keeps its string. Adding fails for want of memory.
QUILLON_STATUS _add_jid(const quillon_capability *capability, const quillon_string *jid);
void _remove_jid(quillon_capability *capability, const quillon_string *jid);

size_t capability_count_jids(const quillon_capability &capability);
// A copy of one JID. An index beyond the last becomes 0. Null when there is no JID; throws when memory is exhausted.
StringPtr capability_copy_jid(const quillon_capability &capability, size_t &index);

StickyKey capability_sticky_key(const quillon_capability &capability);

// Copies the namespace, name or topic; false when it is not set.
using TextField = quillon_string *quillon_capability::*;
bool capability_copy_text(const quillon_capability &capability, TextField text, std::string &copy);

// A copy of the filter in the context. False when copying failed; *copy is null when there is no filter.
bool capability_copy_filter(const quillon_capability &capability, wb_dom_ctx *context, wb_dom_node **copy);

// Lets the destruction of the capability take its registrations out of that engine. The capability's mutex is held.
void capability_remember_engine_locked(quillon_capability &capability, const std::weak_ptr<quillon_notification> &engine);

// The capabilities that are announced again after every connect. One of a namespace and name is listed once. Shared by all
// connections.
enum class Registry { subscriptions, publications };

QUILLON_STATUS registry_add(Registry registry, const quillon_capability &capability);
std::vector<CapabilityPtr> registry_snapshot(Registry registry);
bool registry_has_equal(Registry registry, const quillon_capability &capability);

// quillon_capability_on_connected; false when a request had no answer. Throws when memory is exhausted.
bool announce_remembered(quillon_connection &connection);

}  // namespace qlk
