// The one library-wide object, shared by every connection in the process.
#pragma once

#include <event2/event.h>

#include <atomic>
#include <memory>

#include "event_loop.h"
#include "quillon.h"

struct _quillon_lib_obj {
  event_base *eventBase;
  event *send_event;
  wb_htable *wb_base_config;               // owned; what the other three point to lives with the loop
  wb_workq *wb_workq_;                     // named so because wb_workq is the type
  std::shared_ptr<qlk::EventLoop> loop;    // private addition
  std::shared_ptr<_quillon_lib_obj> self;  // private addition: the library's own reference

  ~_quillon_lib_obj();
};

namespace qlk {

extern _quillon_lib_obj *g_Qln_Lib;  // null while the library is down
extern std::atomic<bool> bLibInitialize;

// The object in force, which stays whole while it is held, even if the library is shut down meanwhile; null while the library is
// down. Any thread.
std::shared_ptr<_quillon_lib_obj> library();

// True in a child that fork made while the library was up: nothing of the library's is the child's to end.
bool is_forked_away();

// What is registered last runs first at exit, and OpenSSL, which comes up with the first session, would clean up while our
// threads still use it. To be called when it is up; any thread.
void shut_down_before_openssl();

// Handler of send_event: waking the loop is all that it is for.
void _wakeup_callback(int fd, short events, void *arg);

}  // namespace qlk
