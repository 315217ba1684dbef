#include <warbler/client.h>
#include <warbler/inspect.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "client_core.h"
#include "guard.h"

struct wb_client {
  std::shared_ptr<wb::ClientCore> core;
};

bool wb_client_create(wb_workq *queue, wb_client **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the client");
    *out = nullptr;
    if (queue == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no work queue");
    auto client = std::make_unique<wb_client>();
    client->core = std::make_shared<wb::ClientCore>(*queue, client.get());
    *out = client.release();
    return true;
  });
}

void wb_client_destroy(wb_client *client) {
  if (client == nullptr) return;
  client->core->destroy();
  delete client;
}

bool wb_client_connect(wb_client *client, wb_htable *config, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (client == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no client");
    return client->core->connect(config, err);
  });
}

void wb_client_disconnect(wb_client *client, wb_errcode reason) {
  if (client == nullptr) return;
  wb::guarded(nullptr, __func__, [&] {
    client->core->disconnect(reason);
    return true;
  });
}

bool wb_client_send_stanza(wb_client *client, wb_dom_node *stanza, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (client == nullptr || stanza == nullptr) {
      wb_dom_context_destroy(wb_dom_get_context(stanza));
      return WB_FAIL(err, WB_ERR_INVALID_ARG, "no client or stanza");
    }
    return client->core->channel().send(stanza, err);
  });
}

bool wb_client_track_iq(wb_client *client, wb_dom_node *iq, wb_client_iq_callback callback, void *arg, unsigned timeout_seconds,
                        wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (client == nullptr || iq == nullptr || callback == nullptr) {
      wb_dom_context_destroy(wb_dom_get_context(iq));
      return WB_FAIL(err, WB_ERR_INVALID_ARG, "no client, stanza or callback");
    }
    return client->core->track(iq, wb::TrackedIq{callback, arg}, std::chrono::seconds(timeout_seconds), err);
  });
}

void wb_client_leave_writing_to_loop(bool leaves) { wb::ClientCore::leave_writing_to_loop(leaves); }

bool wb_client_reconnect_get_status(const wb_event_data *event, wb_reconnect_status *status, unsigned *timeout) {
  if (event == nullptr || status == nullptr || std::strcmp(event->name, "reconnectStatusChanged") != 0) return false;
  const auto *state = static_cast<const wb::ClientCore::ReconnectState *>(event->data);
  *status = state->status;
  if (timeout != nullptr) *timeout = state->seconds;
  return true;
}

wb_event *wb_client_event(wb_client *client, const char *name) {
  return client != nullptr && name != nullptr ? client->core->event(name) : nullptr;
}

bool wb_client_get_statistics(const wb_client *client, wb_client_statistics *statistics, wb_err *err) {
  constexpr size_t kFirstVersion = offsetof(wb_client_statistics, bytes_waiting_highest) + sizeof(size_t);
  if (client == nullptr || statistics == nullptr || statistics->size < kFirstVersion)
    return WB_FAIL(err, WB_ERR_INVALID_ARG, "no client, no place for the statistics, or no size of it");
  wb_client_statistics read = {};
  client->core->channel().traffic().read(read);
  const size_t size = statistics->size;
  read.size = std::min(size, sizeof read);
  std::memset(statistics, 0, size);
  std::memcpy(statistics, &read, read.size);
  return true;
}

void wb_client_set_trace(wb_client *client, wb_client_trace function, void *arg) {
  if (client != nullptr) client->core->channel().traffic().set_trace(function, arg);
}
