#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "dispatch_thread.h"
#include "owners.h"
#include "quillon.h"

namespace qlk {

// One registration. Those of the publisher updates share the capability that they update, so that it outlives its last update.
struct NotificationHandler {
  quillon_notification_callback_info info;
  std::shared_ptr<quillon_capability> capability;
};

// What is registered under one name, in the order of registration. It is not changed while it is being dispatched to.
using NotificationHandlers = std::vector<NotificationHandler>;

}  // namespace qlk

struct _quillon_notification {
  quillon_connection *connection = nullptr;                                  // borrowed
  qlk::TablePtr map_of_name_to_callback;                                     // to std::shared_ptr<NotificationHandlers>
  std::atomic<int64_t> iq_id = 0;                                            // of the next publish
  qlk::DispatchThread notf_handler{"notifications wait for their handler"};  // thread, queue and run flag
  std::mutex map_mutex;                                                      // guards the table, its entries and the next two
  std::shared_ptr<qlk::NotificationHandlers> in_dispatch;
  bool has_stale = false;                       // some of those in dispatch belong to a capability that was destroyed meanwhile
  std::shared_ptr<_quillon_notification> self;  // the creator's reference; the dispatch thread has one too
  std::weak_ptr<_quillon_notification> weak_self;
};

namespace qlk {

// Whether it keeps account and publishers right, which no flood of notifications may push out.
bool is_from_controller(const wb_dom_node *message);

// Ends the dispatch thread.
// Thread: any; on the dispatch thread itself the loop ends when the callback returns.
void notification_stop(quillon_notification *notification);

// Takes out every registration whose capability is marked as destroyed.
void notification_forget_destroyed(_quillon_notification &notification);

// Dispatches one message: the handler of the dispatch thread, whose owner is the quillon_notification.
void handle_notification(void *owner, wb_dom_node *message);

}  // namespace qlk
