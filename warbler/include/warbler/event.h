/* Events: named points of an object to which functions are bound. */
#ifndef WARBLER_EVENT_H
#define WARBLER_EVENT_H

#include <stdbool.h>
#include <warbler/err.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An event of one object; the object owns it. */
typedef struct wb_event wb_event;

/* What a bound function receives. It lives until the function returns. */
typedef struct wb_event_data {
  const char *name; /* the event's name */
  void *source;     /* the object that raised it */
  void *data;       /* what it carries; the event's description tells */
} wb_event_data;

/* A bound function; arg is what it was bound with. */
typedef void (*wb_event_callback)(wb_event_data *event, void *arg);

/* Binds a function; the functions of an event run in the order in which they were bound, on the thread that raises the event.
 * Binding during a dispatch takes effect with the next one. Any thread. Fails with WB_ERR_INVALID_ARG or WB_ERR_NO_MEMORY. */
WB_API bool wb_event_bind(wb_event *event, wb_event_callback callback, void *arg, wb_err *err);

/* Unbinds every binding of the function; one that was not bound is harmless. Any thread. It does not wait for a call that is
 * under way. */
WB_API void wb_event_unbind(wb_event *event, wb_event_callback callback);

#ifdef __cplusplus
}
#endif

#endif
