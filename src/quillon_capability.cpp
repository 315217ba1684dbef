// The capability object, its publishers, and the registries. Locks are taken in this order: the registries', a capability's, an
// engine's. The names of a capability are changed under the first two, so that either is enough to read them.
#include "quillon_capability.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "guard.h"
#include "quillon_array.h"
#include "quillon_notification.h"

const char *const capability_tag_version = "-1.0";

namespace {

using qlk::TextField;

constexpr char kInvalidCapability[] = "Invalid capability object";

struct Registries {
  std::mutex mutex;  // guards both, and the names of every capability against a change
  quillon_array *sub_list = nullptr;
  quillon_array *pub_list = nullptr;

  quillon_array *&of(qlk::Registry registry) { return registry == qlk::Registry::subscriptions ? sub_list : pub_list; }
};

// The lists are never destroyed: capabilities may be destroyed while the process ends.
constinit Registries registries;

// The setters take const records; the records themselves never are.
quillon_capability &changeable(const quillon_capability *capability) { return *const_cast<quillon_capability *>(capability); }

void replace(quillon_string *&field, qlk::StringPtr fresh) {
  const qlk::StringPtr old(field);
  field = fresh.release();
}

QUILLON_STATUS set_name(const quillon_capability *capability, const char *name, std::string_view topic_suffix) {
  if (capability == nullptr) return qlk::refuse(kInvalidCapability);
  if (name == nullptr || *name == '\0') return QUILLON_STATUS_INVALID_ARGS;
  quillon_string *made = nullptr;
  QUILLON_STATUS status = quillon_string_create(&made, name, std::strlen(name));
  qlk::StringPtr fresh_name(made);
  if (status != QUILLON_STATUS_OK) return status;
  status = quillon_string_create(&made, name, std::strlen(name));
  qlk::StringPtr fresh_topic(made);
  if (status != QUILLON_STATUS_OK) return status;
  if (!topic_suffix.empty()) {
    status = quillon_string_append_cstr(made, topic_suffix.data(), topic_suffix.size());
    if (status != QUILLON_STATUS_OK) return status;
  }
  quillon_capability &record = changeable(capability);
  const std::scoped_lock lock(registries.mutex, record.mutex);
  replace(record.name, std::move(fresh_name));
  replace(record.topic, std::move(fresh_topic));
  return QUILLON_STATUS_OK;
}

// Takes this very record out, which its name need not find: it may have none, or another's.
void remove_identity(quillon_array *list, const quillon_capability *capability) {
  if (list == nullptr) return;
  void **end = std::remove(list->items, list->items + list->size, static_cast<const void *>(capability));
  list->size = static_cast<int32_t>(end - list->items);
}

void leave_registries(quillon_capability *capability) {
  const std::lock_guard lock(registries.mutex);
  for (quillon_array *list : {registries.sub_list, registries.pub_list}) {
    _remove_capablity_obj(list, capability);
    remove_identity(list, capability);
  }
}

void leave_engines(quillon_capability &capability) {
  std::vector<std::weak_ptr<quillon_notification>> engines;
  {
    const std::lock_guard lock(capability.mutex);
    capability.destroyed = true;
    capability.filter = nullptr;
    engines.swap(capability.engines);
  }
  for (const auto &engine : engines) {
    if (const auto alive = engine.lock()) qlk::notification_forget_destroyed(*alive);
  }
}

// False, with the JID still the caller's, when memory is exhausted.
bool append_jid_locked(quillon_capability &capability, qlk::StringPtr jid) {
  const auto added = capability.jid_texts.insert(qlk::text_of(jid.get())).first;
  if (!qlk::array_add(capability.jids, jid.get())) {
    capability.jid_texts.erase(added);
    return false;
  }
  static_cast<void>(jid.release());
  return true;
}

bool misses_jid(const quillon_capability &capability, const quillon_string &jid) {
  const std::lock_guard lock(capability.mutex);
  return !capability.destroyed && !capability.jid_texts.contains(qlk::text_of(&jid));
}

bool add_copied_jid(quillon_capability &capability, qlk::StringPtr copy) {
  const std::lock_guard lock(capability.mutex);
  if (capability.destroyed || capability.jid_texts.contains(qlk::text_of(copy.get()))) return true;
  return append_jid_locked(capability, std::move(copy));
}

bool check_jid_arguments(const quillon_capability *capability, const quillon_string *jid) {
  if (capability == nullptr) wb_log(WB_LOG_ERROR, "%s", kInvalidCapability);
  if (capability != nullptr && jid == nullptr) wb_log(WB_LOG_ERROR, "Invalid jid object");
  return capability != nullptr && jid != nullptr;
}

qlk::ArrayPtr make_jids() {
  quillon_array *jids = nullptr;
  quillon_array_create(&jids, quillon_array_string_equal, quillon_array_string_free);
  return qlk::ArrayPtr(jids);
}

// Null when memory is exhausted.
qlk::ArrayPtr copy_jids(const quillon_capability &capability) {
  qlk::ArrayPtr copies = make_jids();
  const std::lock_guard lock(capability.mutex);
  for (int32_t i = 0; copies != nullptr && i < quillon_array_size(capability.jids); ++i) {
    qlk::StringPtr copy = qlk::make_string(qlk::text_of(static_cast<quillon_string *>(quillon_array_get(capability.jids, i))));
    if (copy == nullptr || !qlk::array_add(copies.get(), copy.get())) return nullptr;
    static_cast<void>(copy.release());
  }
  return copies;
}

}  // namespace

_quillon_capability::~_quillon_capability() {
  quillon_string_destroy(&topic);
  quillon_string_destroy(&name);
  quillon_string_destroy(&namespace_);
  quillon_array_destroy(jids);
}

QUILLON_STATUS qlk::_add_jid(const quillon_capability *capability, const quillon_string *jid) {
  trace(__func__);
  if (!check_jid_arguments(capability, jid)) return QUILLON_STATUS_INVALID_ARGS;
  return guarded(__func__, [&]() -> QUILLON_STATUS {
    if (!misses_jid(*capability, *jid)) return QUILLON_STATUS_OK;
    StringPtr copy = make_string(text_of(jid));
    if (copy != nullptr && add_copied_jid(changeable(capability), std::move(copy))) return QUILLON_STATUS_OK;
    wb_log(WB_LOG_ERROR, "jid copy create failed");
    return QUILLON_STATUS_MALLOC_ERROR;
  });
}

void qlk::_remove_jid(quillon_capability *capability, const quillon_string *jid) {
  trace(__func__);
  if (!check_jid_arguments(capability, jid)) return;
  const std::lock_guard lock(capability->mutex);
  if (capability->jid_texts.erase(text_of(jid)) != 0) quillon_array_remove(capability->jids, jid);
}

size_t qlk::capability_count_jids(const quillon_capability &capability) {
  const std::lock_guard lock(capability.mutex);
  return capability.jids != nullptr ? static_cast<size_t>(capability.jids->size) : 0;
}

qlk::StringPtr qlk::capability_copy_jid(const quillon_capability &capability, size_t &index) {
  const std::lock_guard lock(capability.mutex);
  if (capability.jids == nullptr || capability.jids->size == 0) return nullptr;
  if (index >= static_cast<size_t>(capability.jids->size)) index = 0;
  StringPtr copy = make_string(text_of(static_cast<quillon_string *>(capability.jids->items[index])));
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

qlk::StickyKey qlk::capability_sticky_key(const quillon_capability &capability) {
  StickyKey key = {};
  const std::lock_guard lock(capability.mutex);
  const size_t size = quillon_string_buffersize(capability.topic);
  std::memcpy(key.data(), &size, sizeof size);
  return key;
}

bool qlk::capability_copy_text(const quillon_capability &capability, TextField text, std::string &copy) {
  const std::lock_guard lock(capability.mutex);
  copy = text_of(capability.*text);
  return capability.*text != nullptr;
}

bool qlk::capability_copy_filter(const quillon_capability &capability, wb_dom_ctx *context, wb_dom_node **copy) {
  *copy = nullptr;
  const std::lock_guard lock(capability.mutex);  // the filter is the application's again once the capability is destroyed
  return capability.filter == nullptr || wb_dom_import(context, capability.filter, true, copy, nullptr);
}

void qlk::capability_remember_engine_locked(quillon_capability &capability, const std::weak_ptr<quillon_notification> &engine) {
  auto &engines = capability.engines;
  std::erase_if(engines, [](const auto &known) { return known.expired(); });
  const bool known = std::any_of(engines.begin(), engines.end(),
                                 [&](const auto &other) { return !other.owner_before(engine) && !engine.owner_before(other); });
  if (!known) engines.push_back(engine);
}

QUILLON_STATUS qlk::registry_add(Registry registry, const quillon_capability &capability) {
  const std::lock_guard lock(registries.mutex);
  quillon_array *&list = registries.of(registry);
  if (list == nullptr) quillon_array_create(&list, quillon_array_obj_equal, quillon_array_obj_free);
  if (list == nullptr) return out_of_memory(__func__);
  void **end = list->items + list->size;
  // Without a name it equals nothing, not even itself.
  const bool listed = std::find(list->items, end, &capability) != end || quillon_array_index_of(list, &capability) >= 0;
  return listed || array_add(list, &changeable(&capability)) ? QUILLON_STATUS_OK : out_of_memory(__func__);
}

std::vector<qlk::CapabilityPtr> qlk::registry_snapshot(Registry registry) {
  std::vector<CapabilityPtr> snapshot;
  const std::lock_guard lock(registries.mutex);
  const quillon_array *list = registries.of(registry);
  snapshot.reserve(list != nullptr ? static_cast<size_t>(list->size) : 0);
  for (int32_t i = 0; i < quillon_array_size(list); ++i)
    snapshot.push_back(static_cast<quillon_capability *>(quillon_array_get(list, i))->weak_self.lock());
  return snapshot;
}

bool qlk::registry_has_equal(Registry registry, const quillon_capability &capability) {
  const std::lock_guard lock(registries.mutex);
  return quillon_array_index_of(registries.of(registry), &capability) >= 0;
}

QUILLON_STATUS qlk::quillon_capability_default_create(quillon_capability **capability) {
  trace(__func__);
  if (capability == nullptr) return refuse(kInvalidCapability);
  *capability = nullptr;
  return guarded(__func__, [&]() -> QUILLON_STATUS {
    auto created = std::make_shared<_quillon_capability>();
    quillon_capability_default_initialize(created.get());
    created->weak_self = created;
    created->self = created;
    *capability = created.get();
    return QUILLON_STATUS_OK;
  });
}

QUILLON_STATUS quillon_capability_create(quillon_capability **capability) {
  qlk::trace(__func__);
  if (capability == nullptr) return qlk::refuse(kInvalidCapability);
  *capability = nullptr;
  qlk::ArrayPtr jids = make_jids();
  if (jids == nullptr) return qlk::out_of_memory(__func__);
  const QUILLON_STATUS status = qlk::quillon_capability_default_create(capability);
  if (status == QUILLON_STATUS_OK) (*capability)->jids = jids.release();
  return status;
}

void quillon_capability_default_initialize(quillon_capability *capability) {
  qlk::trace(__func__);
  if (capability == nullptr) return;
  const std::scoped_lock lock(registries.mutex, capability->mutex);
  capability->namespace_ = nullptr;
  capability->name = nullptr;
  capability->ename = nullptr;
  capability->jids = nullptr;
  capability->topic = nullptr;
  capability->filter = nullptr;
  capability->jid_texts.clear();
}

QUILLON_STATUS quillon_capability_destroy(quillon_capability *capability) {
  qlk::trace(__func__);
  if (capability == nullptr) return QUILLON_STATUS_OK;
  leave_registries(capability);
  leave_engines(*capability);
  const qlk::CapabilityPtr last = std::move(capability->self);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_capability_set_name(const quillon_capability *capability, const char *name) {
  qlk::trace(__func__);
  return set_name(capability, name, capability_tag_version);
}

QUILLON_STATUS quillon_dynamic_capability_set_name(const quillon_capability *capability, const char *name) {
  qlk::trace(__func__);
  return set_name(capability, name, {});
}

QUILLON_STATUS quillon_capability_set_namespace(const quillon_capability *capability, const char *namespace_) {
  qlk::trace(__func__);
  if (capability == nullptr) return qlk::refuse(kInvalidCapability);
  if (namespace_ == nullptr || *namespace_ == '\0') return QUILLON_STATUS_INVALID_ARGS;
  quillon_string *made = nullptr;
  const QUILLON_STATUS status = quillon_string_create(&made, namespace_, std::strlen(namespace_));
  if (status != QUILLON_STATUS_OK) return status;
  quillon_capability &record = changeable(capability);
  const std::scoped_lock lock(registries.mutex, record.mutex);
  replace(record.namespace_, qlk::StringPtr(made));
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_capability_set_filter(const quillon_capability *capability, wb_dom_node *filter) {
  qlk::trace(__func__);
  if (capability == nullptr) return qlk::refuse(kInvalidCapability);
  quillon_capability &record = changeable(capability);
  const std::lock_guard lock(record.mutex);
  record.filter = filter;
  return QUILLON_STATUS_OK;
}

quillon_array *quillon_capability_get_jids(quillon_capability *capability) {
  qlk::trace(__func__);
  if (capability != nullptr) return capability->jids;
  wb_log(WB_LOG_ERROR, "%s", kInvalidCapability);
  return nullptr;
}

quillon_array *quillon_capability_copy_jids(quillon_capability *capability) {
  qlk::trace(__func__);
  if (capability == nullptr) {
    wb_log(WB_LOG_ERROR, "%s", kInvalidCapability);
    return nullptr;
  }
  return copy_jids(*capability).release();
}

bool quillon_array_obj_equal(const void *item1, const void *item2) {
  qlk::trace(__func__);
  const auto *first = static_cast<const quillon_capability *>(item1);
  const auto *second = static_cast<const quillon_capability *>(item2);
  return first != nullptr && second != nullptr && quillon_string_equals(first->name, second->name) &&
         quillon_string_equals(first->namespace_, second->namespace_);
}

void quillon_array_obj_free(void *) { qlk::trace(__func__); }

void _remove_capablity_obj(quillon_array *list, quillon_capability *capability) {
  qlk::trace(__func__);
  if (quillon_array_index_of(list, capability) >= 0) quillon_array_remove(list, capability);
}
