/* The work queue: hands items from any thread to the thread that dispatches an event base. */
#ifndef WARBLER_WORKQ_H
#define WARBLER_WORKQ_H

#include <stdbool.h>
#include <warbler/err.h>
#include <warbler/export.h>
#include <warbler/htable.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A queue over one event base. */
typedef struct wb_workq wb_workq;

/* Runs one item on the dispatching thread. cancelled is true when the queue is destroyed before the item's turn: free what
 * belongs to it. */
typedef void (*wb_workq_function)(void *arg, bool cancelled);

/* Makes a queue over the event base that the table holds under "selector" (a struct event_base *, which must outlive the queue).
 * The base must be usable from several threads (evthread_use_pthreads and evthread_make_base_notifiable) before items are put
 * from others. Fails with WB_ERR_INVALID_ARG (no table, no selector, NULL out) or WB_ERR_NO_MEMORY. The caller destroys *out. */
WB_API bool wb_workq_create(wb_htable *config, wb_workq **out, wb_err *err);

/* Puts an item; items run in the order in which they were put, each once, in the next pass of the loop. Any thread; never blocks.
 * Many items cost one wake-up of the loop. While nothing dispatches the base they wait. Fails with WB_ERR_INVALID_ARG,
 * WB_ERR_INVALID_STATE (the queue is being destroyed) or WB_ERR_NO_MEMORY; the function is then not called. */
WB_API bool wb_workq_put(wb_workq *queue, wb_workq_function function, void *arg, wb_err *err);

/* Cancels the items that wait, in their order, on this thread, and frees the queue; NULL is harmless. Any thread: it waits for an
 * item that runs on another one, and may be called by an item itself. The queue's clients must be destroyed before. */
WB_API void wb_workq_destroy(wb_workq *queue);

#ifdef __cplusplus
}
#endif

#endif
