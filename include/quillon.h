/* libqlk: joins an application to a message grid.
 *
 * What holds for every function, unless its own comment says otherwise:
 *
 * Arguments   are borrowed until the call returns: texts are copied, and the caller keeps what it passed.
 *             Texts are zero-terminated UTF-8.
 * Results     that are pointers belong to the object they were asked of and live, unchanged, until it is changed or destroyed.
 *             An object that a create function stores through its out argument is the caller's, who ends it with the destroy
 *             function of its type; when create fails, the out argument holds NULL. Destroying NULL is harmless. String and
 *             list destroy take the address of the caller's pointer and clear it; the others take the pointer itself.
 * Statuses    QUILLON_STATUS_OK is success. A missing required argument is QUILLON_STATUS_INVALID_ARGS, exhausted memory
 *             QUILLON_STATUS_MALLOC_ERROR: both can come from every function that returns a status, and are written at a
 *             function only where there is more to say. A call that fails leaves the object as it was.
 * Threads     Objects are not locked: one thread at a time, or a lock of the caller's. Connections, capabilities, monitors and
 *             queues may be used by several threads at once. Nothing blocks but what says so. No function may be called from
 *             a signal handler. The library's own threads, on which most callbacks run, block all signals but those of faults,
 *             such as SIGSEGV.
 * Exceptions  None leaves the library, and none may leave a callback into it.
 * Logging     Failures are logged with their cause, but for values outside their range. Where nothing is set, the records up to
 *             QUILLON_LOG_INFO go to standard error without a newline: an application that wants to read them installs a
 *             function of its own with quillon_log_set_callback before it makes its first configuration. Pass phrases and
 *             tokens are never logged. */
#ifndef QUILLON_H
#define QUILLON_H

#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <warbler/warbler.h>

/* Marks what the library exports. */
#if defined(__GNUC__)
#define QUILLON_API __attribute__((visibility("default")))
#else
#define QUILLON_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------------------------------------------- */

/* What a call came to, and what has become of a connection or an account. */
typedef enum QUILLON_STATUS {
  QUILLON_STATUS_OK = 0,                             /* success */
  QUILLON_STATUS_MALLOC_ERROR = 1,                   /* memory is exhausted */
  QUILLON_STATUS_XML_ERROR = 2,                      /* a stanza or another XML tree could not be built or read */
  QUILLON_STATUS_WB_ERROR = 3,                       /* a call of the XMPP layer failed */
  QUILLON_STATUS_EVENT_ERROR = 4,                    /* the event loop could not be set up or woken */
  QUILLON_STATUS_XMPP_ERROR = 5,                     /* the server or the peer refused the request */
  QUILLON_STATUS_REST_ERROR = 6,                     /* the HTTPS transfer of a bulk download failed */
  QUILLON_STATUS_QUILLON_ERROR = 7,                  /* the grid, or the peer, did not answer as it should */
  QUILLON_STATUS_PTHREAD_ERROR = 8,                  /* a thread could not be started or joined */
  QUILLON_STATUS_CONNECTION_ERROR = 9,               /* the connect failed for a reason that has no status of its own */
  QUILLON_STATUS_CONNECTION_TIMEOUT = 10,            /* no XMPP session in time */
  QUILLON_STATUS_CONNECTION_DENIED = 11,             /* the controller denied the connect */
  QUILLON_STATUS_ACCOUNT_PENDING = 12,               /* the account waits for an administrator */
  QUILLON_STATUS_ACCOUNT_ENABLED = 13,               /* the account was enabled */
  QUILLON_STATUS_ACCOUNT_DISABLED = 14,              /* the account is disabled */
  QUILLON_STATUS_ACCOUNT_DELETED = 15,               /* the account is deleted */
  QUILLON_STATUS_ACCOUNT_AUTHORIZATION_CHANGED = 16, /* what the account may do has changed */
  QUILLON_STATUS_SEND_ERROR = 17,                    /* the stanza could not be handed to the event loop */
  QUILLON_STATUS_SEND_TIMEOUT = 18,                  /* no reply in time; the peer may still have seen the request */
  QUILLON_STATUS_CAPABILITY_NOT_FOUND = 19,          /* no publisher of the capability is known */
  QUILLON_STATUS_NOT_AUTHORIZED = 20,                /* the grid does not allow it */
  QUILLON_STATUS_NOT_SUPPORTED = 21,                 /* the grid, or the peer, cannot do it */
  QUILLON_STATUS_UNKNOWN = 22,                       /* failed for a reason that has no status of its own */
  QUILLON_STATUS_INVALID_ARGS = 23,                  /* an argument is missing or outside its range */
  QUILLON_STATUS_REST_INIT_ERROR = 24,               /* the HTTPS transfer could not be set up */
  QUILLON_STATUS_CONNECTION_ERROR_HOST = 25,         /* the host cannot be resolved or does not answer */
  QUILLON_STATUS_CONNECTION_ERROR_CLIENT = 26,       /* the client's certificate or key was refused */
  QUILLON_STATUS_CONNECTION_ERROR_SERVER = 27,       /* the server's certificate was refused */
  QUILLON_STATUS_CONNECTION_ERROR_AUTOREGOFF = 28,   /* the account is unknown and may not register itself */
  QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE = 29, /* the server cannot reach the controller */
  QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED = 30,            /* the server does not let this client reach the controller */
  QUILLON_STATUS_CONNECTION_ERROR_XMPP = 31,                      /* another XMPP error answered the connect request */
  QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR = 32,                   /* the proposal of a capability failed */
  QUILLON_STATUS_MODIFY_CAPABILITY_ERROR = 33,                    /* the change of a capability failed */
  QUILLON_STATUS_NO_CONNECTION = 34,                              /* not connected to the grid; nothing was sent */
  QUILLON_STATUS_MAX = 35                                         /* the end of the range, no status */
} QUILLON_STATUS;

/* The text of a status, constant and never freed; NULL for QUILLON_STATUS_NO_CONNECTION, QUILLON_STATUS_MAX and whatever is no
 * status. Thread: any. */
QUILLON_API const char *quillon_status_get_message(QUILLON_STATUS status);

/* What an XMPP error element means: its first child's text decides.
 * Returns: QUILLON_STATUS_NOT_AUTHORIZED  the text begins with "not authorized", in this case of letters
 *          QUILLON_STATUS_QUILLON_ERROR   everything else, NULL too */
QUILLON_API QUILLON_STATUS quillon_status_get_from_error(wb_dom_node *error);

/* ---- Logging ------------------------------------------------------------------------------------------------ */

/* Which records pass: those of the level and of all above it in this list. */
typedef enum QUILLON_LOG_LEVEL {
  QUILLON_LOG_NONE = 0,    /* nothing */
  QUILLON_LOG_ERROR = 1,   /* what failed */
  QUILLON_LOG_WARN = 2,    /* what is odd, and was dealt with */
  QUILLON_LOG_INFO = 3,    /* the course of things: connects, ends of sessions */
  QUILLON_LOG_VERBOSE = 4, /* each step of it */
  QUILLON_LOG_DEBUG = 5    /* what helps to find a fault */
} QUILLON_LOG_LEVEL;

/* A size of buffer, in bytes, that holds every record but those with a large stanza. */
enum { QUILLON_LOG_BUFFER_SIZE = 32768 };

/* Receives each record that passes, as format and arguments: nothing is added, no time, no level, no newline. It runs on
 * whichever thread logs, on several at once, may not log itself and should return soon. Its result goes unused. */
typedef int (*quillon_log_cb)(const char *format, va_list args);

/* The settings of the logger; change them through the functions below. */
typedef struct _quillon_log {
  quillon_log_cb log_cb;      /* receives the records; NULL: they go to standard error */
  QUILLON_LOG_LEVEL loglevel; /* which records pass */
} quillon_log;

/* The settings in force: at first standard error and QUILLON_LOG_INFO. */
QUILLON_API extern quillon_log qlnlog;

/* The function that quillon_log_initialize installs into the XMPP layer's logger: passes the record to the log function in force
 * and returns its result; stream is not looked at. Thread: any. */
QUILLON_API int quillon_log_callback(FILE *stream, const char *format, va_list args) WB_PRINTF(2, 0);

/* Sets the log function; NULL restores printing to standard error. It gets records from the first quillon_config_create or
 * quillon_log_initialize on. Set it before other threads log. Returns QUILLON_STATUS_OK. */
QUILLON_API QUILLON_STATUS quillon_log_set_callback(quillon_log_cb callback);

/* Sets the level and hands it to the XMPP layer's logger, in force at once. A value outside the scale is kept in qlnlog but acts
 * as QUILLON_LOG_INFO. Thread: any. Returns QUILLON_STATUS_OK. */
QUILLON_API QUILLON_STATUS quillon_log_set_level(QUILLON_LOG_LEVEL level);

/* Leads the XMPP layer's records to the log function in force and applies the level again. quillon_config_create does this first,
 * so it is needed only to log before there is a configuration. */
QUILLON_API void quillon_log_initialize(void);

/* Logs "caption(context: address, ref: address)" followed by the node as XML, in which the text of elements called token or
 * password is a row of asterisks. caption NULL is an empty text; node NULL has no XML. Thread: any that may read the node. */
QUILLON_API void quillon_log_wb_dom(wb_log_level level, const wb_dom_node *node, const char *caption);

/* ---- Strings ------------------------------------------------------------------------------------------------ */

/* A text with its length, which owns its buffer. Lengths that create, assign and append are given, in bytes without the
 * terminator, are 1 to 65536; a text may grow beyond by appending. buffer_len counts the bytes allocated, data_len those of the
 * text. */
typedef struct _quillon_string {
  size_t buffer_len;
  size_t data_len;
  char *buffer;
} quillon_string;

/* Makes all fields zero and NULL without freeing anything. string must not be NULL. */
QUILLON_API void quillon_string_default_initialize(quillon_string *string);

/* Store fields as given. A buffer from malloc becomes the string's; a buffer that was there is not freed and nothing is checked.
 * string must not be NULL. */
QUILLON_API void quillon_string_set_buffer(quillon_string *string, char *buffer);
QUILLON_API void quillon_string_set_buffer_len(quillon_string *string, size_t buffer_len);
QUILLON_API void quillon_string_set_data_len(quillon_string *string, size_t data_len);
QUILLON_API void quillon_string_set(quillon_string *string, char *buffer, size_t buffer_len, size_t data_len);

/* Makes an empty string without a buffer, to assign or append to. */
QUILLON_API QUILLON_STATUS quillon_string_default_create(quillon_string **out);

/* Makes a string of the first length bytes of text, which need not be terminated.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a length outside 1 to 65536 */
QUILLON_API QUILLON_STATUS quillon_string_create(quillon_string **out, const char *text, size_t length);

/* Makes a string of length zero bytes for the caller to fill; its length is already length.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a length outside 1 to 65536 */
QUILLON_API QUILLON_STATUS quillon_string_buffer_create(quillon_string **out, size_t length);

/* Makes a copy.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a source that is empty or longer than 65536 bytes */
QUILLON_API QUILLON_STATUS quillon_string_copy_create(quillon_string **out, const quillon_string *source);

/* Frees the string and its buffer and clears the caller's pointer. */
QUILLON_API void quillon_string_destroy(quillon_string **string);

/* The text; NULL for NULL and for a string without a buffer. Valid until the string is changed. */
QUILLON_API const char *quillon_string_cstr(const quillon_string *string);

/* The bytes allocated; 0 for NULL. */
QUILLON_API size_t quillon_string_buffersize(const quillon_string *string);

/* The length of the text in bytes; 0 for NULL. */
QUILLON_API size_t quillon_string_length(const quillon_string *string);

/* Replaces the content with the first length bytes of text, which must be zero-terminated: nothing beyond its terminator is read.
 * Meant for a string fresh from quillon_string_default_create. A buffer that already holds length bytes is kept, and as many
 * bytes are copied as the former content was long: make a new string rather than assign a longer text over a shorter one.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_QUILLON_ERROR  string or text is NULL, or length is outside 1 to 65536 */
QUILLON_API QUILLON_STATUS quillon_string_assign_cstr(quillon_string *string, const char *text, size_t length);

/* Appends the first length bytes of text, which may be part of destination itself.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a length outside 1 to 65536 */
QUILLON_API QUILLON_STATUS quillon_string_append_cstr(quillon_string *destination, const char *text, size_t length);

/* Appends the text of source.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a source that is empty or longer than 65536 bytes */
QUILLON_API QUILLON_STATUS quillon_string_append(quillon_string *destination, const quillon_string *source);

/* True when the string is length bytes long and equal to text, case-sensitively; false for NULL. */
QUILLON_API bool quillon_string_equals_cstr(const quillon_string *string, const char *text, size_t length);

/* True when both have the same length and text, case-sensitively; false for NULL and for two strings without a buffer. */
QUILLON_API bool quillon_string_equals(const quillon_string *a, const quillon_string *b);

/* True when there is a string with a buffer and a length above 0. */
QUILLON_API bool quillon_string_validate(const quillon_string *string);

/* Lowers every byte with the C library's tolower in the current locale; nothing for NULL, an empty text and one above 65536
 * bytes. */
QUILLON_API void quillon_string_tolower(quillon_string *string);

/* ---- Linked list -------------------------------------------------------------------------------------------- */

/* A singly linked list of pointers to elements. fcb frees an element that the list deletes (NULL: elements stay the caller's);
 * ccb tells whether an element is the one looked for (NULL: nothing is ever found). Indices count from 0. */
typedef struct _quillon_list {
  size_t length; /* the number of elements */
  void (*fcb)(void *data);
  bool (*ccb)(const void *element, const void *value);
  struct _node *head; /* the first element; NULL when there is none */
} quillon_list;

/* One element of a list. */
struct _node {
  void *data;         /* the application's pointer */
  struct _node *next; /* the next element; NULL at the end */
};

/* Makes all fields zero and NULL without freeing anything. list must not be NULL. */
QUILLON_API void quillon_list_default_initialize(quillon_list *list);

/* Makes an empty list without callbacks. */
QUILLON_API QUILLON_STATUS quillon_list_default_create(quillon_list **out);

/* Makes an empty list with these callbacks, each of which may be NULL. */
QUILLON_API QUILLON_STATUS quillon_list_create(quillon_list **out, void (*free_callback)(void *data),
                                               bool (*compare_callback)(const void *element, const void *value));

/* Deletes all elements as quillon_list_delete does, frees the list and clears the caller's pointer. */
QUILLON_API void quillon_list_destroy(quillon_list **list);

/* Appends an element, which the list frees with fcb from then on. False, and the element stays the caller's, when list or data is
 * NULL or memory is exhausted. Walks the whole list. */
QUILLON_API bool quillon_list_push_back(quillon_list *list, void *data);

/* Takes the element at the index out and, when isdelete is true, passes it to fcb. Nothing beyond the last element. */
QUILLON_API void quillon_list_remove_or_delete(quillon_list *list, size_t index, bool isdelete);

/* Takes the element at the index out and frees it with fcb. */
QUILLON_API void quillon_list_erase_at(quillon_list *list, size_t index);

/* Takes the element at the index out; the element is the caller's again. */
QUILLON_API void quillon_list_clear_at(quillon_list *list, size_t index);

/* The element at the index; NULL when there is none. */
QUILLON_API void *quillon_list_get_at(const quillon_list *list, size_t index);

/* The number of elements, counted; 0 for NULL. */
QUILLON_API size_t quillon_list_size(const quillon_list *list);

/* Takes all elements out, passing each to fcb; the list stays and can be used again. */
QUILLON_API void quillon_list_delete(quillon_list *list);

/* The index of the first element for which ccb(element, value) is true; -1 when there is none. */
QUILLON_API int quillon_list_find(const quillon_list *list, const void *value);

/* ---- Pointer array ------------------------------------------------------------------------------------------ */

/* Tells whether two items are equal; frees an item. */
typedef bool (*quillon_array_items_equal_callback)(const void *item1, const void *item2);
typedef void (*quillon_array_items_free_callback)(void *item);

/* A growing array of pointers, of which slots 0 to size - 1 are in use; NULL is a possible item. equal_callback compares items
 * (NULL: the pointers are compared), free_callback frees one that is removed or left at the end (NULL: items stay the caller's).
 * Nothing is logged. */
typedef struct _quillon_array {
  void **items;
  int32_t size;
  int32_t max; /* the slots that are allocated */
  quillon_array_items_equal_callback equal_callback;
  quillon_array_items_free_callback free_callback;
} quillon_array;

/* Makes an empty array of 16 slots. *out is NULL when memory is exhausted. */
QUILLON_API void quillon_array_create(quillon_array **out, quillon_array_items_equal_callback equal_callback,
                                      quillon_array_items_free_callback free_callback);

/* Passes each item to free_callback and frees the array. */
QUILLON_API void quillon_array_destroy(quillon_array *array);

/* Appends an item, doubling the slots when only one is left. When memory is exhausted and no slot is left the array stays as it
 * was and the item the caller's: quillon_array_size tells. */
QUILLON_API void quillon_array_add(quillon_array *array, void *item);

/* The index of the first item for which equal_callback(element, item) is true; -1 when there is none or for NULL. */
QUILLON_API int32_t quillon_array_index_of(const quillon_array *array, const void *item);

/* Passes the first equal item to free_callback and closes the gap; nothing when there is none. */
QUILLON_API void quillon_array_remove(quillon_array *array, const void *item);

/* The item at the index; NULL outside the array and for NULL. */
QUILLON_API void *quillon_array_get(const quillon_array *array, int32_t index);

/* The number of items; -1 for NULL. */
QUILLON_API int32_t quillon_array_size(const quillon_array *array);

/* The two callbacks for arrays of quillon_string: quillon_string_equals, and quillon_string_destroy. */
QUILLON_API bool quillon_array_string_equal(const void *item1, const void *item2);
QUILLON_API void quillon_array_string_free(void *item);

/* ---- Monitor and blocking queue ----------------------------------------------------------------------------- */

/* A notification that stays until it is cleared, with a pointer to pass along. All functions may run on any threads at once, but
 * destroy only when no other thread uses the monitor any more. NULL is harmless everywhere. */
typedef struct _quillon_monitor {
  pthread_mutex_t mutex; /* held to look at is_notified and to change it */
  pthread_cond_t cond;   /* what waiters wait on */
  bool is_notified;      /* from notify to clear */
  void *user_data;       /* the pointer to pass along */
} quillon_monitor;

/* Makes a monitor that is not notified and carries NULL. */
QUILLON_API QUILLON_STATUS quillon_monitor_create(quillon_monitor **out);

/* Frees the monitor, not what it carries. NULL is harmless but logged as an error. */
QUILLON_API void quillon_monitor_destroy(quillon_monitor *monitor);

/* Returns when the monitor is notified.
 * Blocks: without a limit. It waits once and may return early: who must know looks at what the notification stands for. */
QUILLON_API void quillon_monitor_wait(quillon_monitor *monitor);

/* Returns when the monitor is notified or the time is over: false only for the latter and for NULL.
 * Blocks: seconds at most, and up to one second less, since the deadline is a whole second of the wall clock; not at all for a
 *         value below 1. It waits once and may return true early. */
QUILLON_API bool quillon_monitor_timedwait(quillon_monitor *monitor, int seconds);

/* Notifies: one waiter wakes, and every wait until the next clear returns at once. */
QUILLON_API void quillon_monitor_notify(quillon_monitor *monitor);

/* Takes the notification back, so that the next wait waits. */
QUILLON_API void quillon_monitor_clear(quillon_monitor *monitor);

/* Sets the pointer that the monitor carries; it is neither looked at nor freed. */
QUILLON_API void quillon_monitor_set_user_data(quillon_monitor *monitor, void *user_data);

/* The pointer that was set last; NULL for NULL. */
QUILLON_API void *quillon_monitor_get_user_data(quillon_monitor *monitor);

/* Frees an item that is still queued when the queue is destroyed. */
typedef void (*quillon_queue_items_free_callback)(void *item);

/* An unbounded queue of pointers, first in, first out; NULL is a possible item. Any threads may push and pop at once, but destroy
 * only when no other thread uses the queue any more. Nothing is logged. */
typedef struct _quillon_queue {
  struct _linked_list *first;                      /* the item that is popped next; NULL when the queue is empty */
  struct _linked_list *last;                       /* the item that was pushed last */
  quillon_queue_items_free_callback free_callback; /* frees what is left at the end; may be NULL */
  pthread_mutex_t mutex;                           /* held to look at the items and to change them */
  pthread_cond_t cond;                             /* what poppers wait on */
} quillon_queue;

/* One item of a queue. */
struct _linked_list {
  void *item;                /* the application's pointer */
  struct _linked_list *next; /* the item pushed after it; NULL at the end */
};

/* Makes an empty queue; free_callback may be NULL. *out is NULL when memory is exhausted. */
QUILLON_API void quillon_queue_create(quillon_queue **out, quillon_queue_items_free_callback free_callback);

/* Appends an item and wakes one waiter. When memory is exhausted the item is not queued and stays the caller's. */
QUILLON_API void quillon_queue_push(quillon_queue *queue, void *item);

/* Takes the first item out; it is the caller's.
 * Blocks: while the queue is empty, without a limit. It waits once and may return NULL early: simply pop again. */
QUILLON_API void *quillon_queue_pop(quillon_queue *queue);

/* Passes each item left to free_callback and frees the queue. */
QUILLON_API void quillon_queue_destroy(quillon_queue *queue);

/* The free callback for queues of quillon_string. */
QUILLON_API void quillon_queue_string_free(void *item);

/* ---- XML helpers -------------------------------------------------------------------------------------------- */

/* Appends an element of that expanded name ("{namespace}local") that holds the text, which may be empty.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_XML_ERROR  the XMPP layer refused, for example the name; parent is unchanged */
QUILLON_API QUILLON_STATUS quillon_xml_add_child_and_text(wb_dom_node *parent, const char *child_name, const char *text);

/* Finds the first element after current_node whose expanded name is sibling_ename or a beginning of it. *sibling is NULL when
 * there is none, which is no error.
 * Returns: QUILLON_STATUS_OK */
QUILLON_API QUILLON_STATUS quillon_xml_get_sibling_of_name(wb_dom_node *current_node, const char *sibling_ename,
                                                           wb_dom_node **sibling);

/* True when the node's expanded name begins with ename; false for NULL. */
QUILLON_API bool quillon_xml_is_ename(wb_dom_node *node, const char *ename);

/* The first text of the first child element with exactly this expanded name; NULL when there is none. The text lives as long as
 * the node. */
QUILLON_API const char *quillon_xml_get_text_of_first_child_of_name(wb_dom_node *parent, const char *child_ename);

/* Writes who sent the stanza that the node is part of: the bare JID in the attribute "from" of the stanza's root, without the
 * resource; an empty text when there is none, or it is too long for a JID. Sender must have room for 2048 bytes, the longest bare
 * JID with its terminator.
 * Returns: QUILLON_STATUS_OK, always */
QUILLON_API QUILLON_STATUS quillon_xml_get_sender(wb_dom_node *node, char *sender);

/* ---- Configuration ------------------------------------------------------------------------------------------ */

/* All that a client needs to reach the grid. Connections and bulk downloads keep a pointer to it, so it must outlive them, and it
 * should not be changed while they use it. Setters copy their argument, 1 to 65536 bytes without the terminator, and free the
 * value they replace.
 *
 * What every setter below returns, unless it says otherwise:
 *          QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  config or the argument is NULL, or the text is empty or too long
 *          QUILLON_STATUS_MALLOC_ERROR  memory is exhausted
 * The old value stays in force when one fails. */
typedef struct _quillon_config quillon_config;

/* Frees a quillon_string: the free callback of the configuration's lists. */
QUILLON_API void quillon_config_free_string(void *datastr);

/* Makes every pointer NULL, the host index -1 and all other numbers 0 without freeing anything. config must not be NULL. */
QUILLON_API void quillon_config_initialize(quillon_config *config);

/* Makes a configuration without lists and with a send time-out of 0. Applications use quillon_config_create. */
QUILLON_API QUILLON_STATUS quillon_config_default_create(quillon_config **config);

/* Starts logging as quillon_log_initialize does, then makes an empty configuration with a send time-out of 15 seconds. */
QUILLON_API QUILLON_STATUS quillon_config_create(quillon_config **config);

/* Frees the configuration and all it holds; the pass phrase is wiped from memory first. The caller's pointer is not cleared. */
QUILLON_API void quillon_config_destroy(quillon_config *config);

/* Makes a deep copy, the caller's to destroy, with the same set of credentials in force. *new_config is NULL when config is NULL
 * or memory is exhausted; a single value for which memory is lacking is left out of the copy, but for the file of the
 * revocations: there is no copy that does not look for them. */
QUILLON_API void quillon_config_clone(const quillon_config *config, quillon_config **new_config);

/* Replaces all hosts with this one: "name", "name:port", "192.0.2.1:port" or "[2001:db8::1]:port"; without a port it is 5222. The
 * form is looked at when connecting. A configuration made by quillon_config_default_create keeps no host, and the result is
 * QUILLON_STATUS_OK all the same. */
QUILLON_API QUILLON_STATUS quillon_config_set_host(quillon_config *config, const char *host);

/* Replaces all hosts with these, which successive connects try in turn, beginning with the first. hosts_count is at least 1. One
 * bad entry leaves the old hosts in force. */
QUILLON_API QUILLON_STATUS quillon_config_set_hosts(quillon_config *config, const char **hosts, int hosts_count);

/* Sets the user name, lower-cased, and derives the client's JID from it: name@<grid domain>/qlk. */
QUILLON_API QUILLON_STATUS quillon_config_set_user_name(quillon_config *config, const char *username);

/* Replaces the groups that the connect request lists; the first also becomes the user group. groups_count is at least 1. One bad
 * entry leaves the old groups in force. */
QUILLON_API QUILLON_STATUS quillon_config_set_groups(quillon_config *config, const char **groups, int groups_count);

/* Sets the group that the connect request names; without one it names "Session". */
QUILLON_API QUILLON_STATUS quillon_config_set_user_group(quillon_config *config, const char *user_group);

/* Sets the free text that administrators see when the client registers. */
QUILLON_API QUILLON_STATUS quillon_config_set_description(quillon_config *config, const char *description);

/* Sets the PEM file with the client's certificate, followed by the chain that leads to its CA. */
QUILLON_API QUILLON_STATUS quillon_config_set_client_cert_chain_filename(quillon_config *config, const char *filename);

/* Sets the PEM file with the client's private key. */
QUILLON_API QUILLON_STATUS quillon_config_set_client_cert_key_filename(quillon_config *config, const char *filename);

/* Sets the pass phrase of the private key. The copy is wiped from memory when it is replaced or the configuration destroyed. */
QUILLON_API QUILLON_STATUS quillon_config_set_client_cert_key_password(quillon_config *config, const char *password);

/* Sets the PEM file with the CAs that vouch for the XMPP server; NULL clears it. */
QUILLON_API QUILLON_STATUS quillon_config_set_server_cert_chain_filename(quillon_config *config, const char *filename);

/* Sets the PEM file with the CAs that vouch for the bulk download server; NULL clears it. */
QUILLON_API QUILLON_STATUS quillon_config_set_bulk_server_cert_chain_filename(quillon_config *config, const char *filename);

/* Sets how long a send waits for its reply, in seconds: any value; 0 and less time out at once.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL */
QUILLON_API QUILLON_STATUS quillon_config_set_send_timeout_seconds(const quillon_config *config, const int seconds);

/* What the client's first response of SASL EXTERNAL tells the server: whom the certificate is to stand for. */
typedef enum QUILLON_SASL_RESPONSE {
  QUILLON_SASL_RESPONSE_USER_NAME = 0, /* the user name */
  QUILLON_SASL_RESPONSE_BARE_JID = 1,  /* the JID without its resource */
  QUILLON_SASL_RESPONSE_NONE = 2,      /* nothing: the server takes the identity from the certificate */
  QUILLON_SASL_RESPONSE_MAX = 3        /* the end of the range, no such choice */
} QUILLON_SASL_RESPONSE;

/* Sets what that response carries, from the next connect on: at first the user name. Other servers want the JID or nothing.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL or response is no such value */
QUILLON_API QUILLON_STATUS quillon_config_set_sasl_response(quillon_config *config, QUILLON_SASL_RESPONSE response);

/* What becomes of a stanza that finds its handler queue full. */
typedef enum QUILLON_HANDLER_QUEUE_OVERFLOW {
  QUILLON_HANDLER_QUEUE_OVERFLOW_DROP = 0,  /* it is dropped and counted */
  QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE = 1, /* the same, and the session is ended */
  QUILLON_HANDLER_QUEUE_OVERFLOW_MAX = 2    /* the end of the range, no such choice */
} QUILLON_HANDLER_QUEUE_OVERFLOW;

/* Sets how many stanzas may wait for a handler of the application before a warning is logged: once, and again only after half of
 * them or fewer were left. It holds for each of the two handler queues of a connection, from its next connect on, and for the
 * asynchronous queries that wait to be called back, of which there are never more than the application has begun.
 * stanzas: 1 and more, at first 1000; 0: there is no warning, as in a configuration made by quillon_config_default_create.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL or stanzas negative */
QUILLON_API QUILLON_STATUS quillon_config_set_handler_queue_warning(quillon_config *config, int stanzas);

/* Sets how many stanzas may wait for a handler at most, in each of the two handler queues of a connection, and what becomes of
 * further ones: see QUILLON_HANDLER_QUEUE_OVERFLOW. Where nothing is set the queues grow as long as there is memory. It holds
 * from the next connect on. The first stanza that is dropped is logged as a warning, under the conditions of
 * quillon_config_set_handler_queue_warning; a full queue is worth that warning, too. A request that is dropped is not answered,
 * so that its sender asks another publisher when its time-out is over. What the controller says of the account and of publishers
 * is taken nevertheless, until 1000 more than the bound wait; then the session is ended, whatever is chosen, as it must not go
 * on without that.
 *   A session that is ended so is reported to disconnect_cb as QUILLON_STATUS_CONNECTION_ERROR; what waits is handled all the
 * same, and it is the application that connects again.
 * stanzas: 1 and more; 0: no bound
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL, stanzas negative or overflow no such value */
QUILLON_API QUILLON_STATUS quillon_config_set_handler_queue_bound(quillon_config *config, int stanzas,
                                                                  QUILLON_HANDLER_QUEUE_OVERFLOW overflow);

/* Sets how many bytes of memory the stanzas that wait for a handler may take, beside their number, in each of the two handler
 * queues of a connection; it holds from the next connect on. A stanza takes about 3 KiB and more, up to twenty times what it has
 * on the wire: it is a tree of small elements then.
 *   From warning bytes on the warning of quillon_config_set_handler_queue_warning is logged, also for asynchronous queries. What
 * would make it more than bound bytes is treated as one that finds the queue full, see quillon_config_set_handler_queue_bound
 * and the overflow that is chosen there; but a stanza that waits alone is taken whatever its size, and what the controller
 * says until 64 MiB more than the bound wait.
 * warning: 1 and more, at first 64 MiB; 0: there is none, as in a configuration made by quillon_config_default_create
 * bound: 1 and more; 0, as at first: no bound
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL */
QUILLON_API QUILLON_STATUS quillon_config_set_handler_queue_bytes(quillon_config *config, size_t warning, size_t bound);

/* Fills an OpenSSL SSL_CTX from the configuration: client certificate chain, private key with its pass phrase, the CA file of the
 * bulk download server or of the XMPP server, and peer verification on. For an application's own TLS-context callback. The
 * context keeps a pointer to the configuration. Each file that cannot be used is logged as an error with OpenSSL's reason, one
 * that is not set as a warning; the rest is filled all the same, and the handshake fails later. OpenSSL's error queue of the
 * thread is empty afterwards. Where a set of credentials is in force, the context is filled from that and not from the files,
 * whose changes are looked for before, see quillon_config_reload_credentials and quillon_config_set_live_credentials. The file
 * of quillon_config_set_crl is read in either case. */
QUILLON_API void quillon_config_fill_ssl_ctx(const quillon_config *config, void *ssl_ctx, bool is_bulk_download);

/* ---- Library ------------------------------------------------------------------------------------------------ */

/* The library runs on one event base, which all connections of the process share. While a connection is connecting or up, a
 * thread of the library, called the event loop, dispatches it. */

/* Brings the library up; quillon_connection_create does so itself. On a library that is up it only logs a warning. It
 * switches libevent's support of threads on for the whole process. Thread: any.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_MALLOC_ERROR  memory is exhausted
 *          QUILLON_STATUS_WB_ERROR      the XMPP layer or the event base could not be set up; or the caller is a child made by
 *                                       fork while the library was up, see quillon_shutdown
 *          QUILLON_STATUS_EVENT_ERROR   an event could not be made
 *          The library stays down when it fails, and the call may be repeated. */
QUILLON_API QUILLON_STATUS quillon_init(void);

/* Takes the library down; it may be brought up again. It also runs when the process exits, but not at dlclose, after which the
 * library stays in the process. Destroy the connections first: those left lose their sessions without a callback and can only be
 * destroyed; calls on them that wait on other threads return. At the exit of the process downloads that are open are broken off
 * too, for which it takes up to 3 seconds.
 *   A child that fork makes while the library is up has none of its threads, and what it has open is the parent's: quillon_init
 * fails there with QUILLON_STATUS_WB_ERROR, this function and quillon_connection_destroy do nothing, and nothing else may be
 * called. The child may end or call exec; the parent's sessions do not notice.
 * Blocks:  until the event loop has ended, at most 5 seconds. */
QUILLON_API void quillon_shutdown(void);

/* Makes the SASL mechanism EXTERNAL, whose response is the text under "quillon.user_name" in the table of the session's client:
 * what quillon_config_set_sasl_response has chosen.
 * quillon_init gives it to all clients. config is not looked at. The caller owns *mech until a factory takes it. False with a
 * filled err as wb_sasl_mech_create. */
QUILLON_API bool quillon_sasl_mech_external_create(wb_htable *config, wb_sasl_mech **mech, wb_err *err);

/* ---- Connection --------------------------------------------------------------------------------------------- */

/* The application's handle on one session with the grid. Any threads may use it at once, but set the configuration and the
 * callbacks before connecting. Functions that block must not be called on the event loop, which they would wait for: that is
 * where disconnect_cb and the TLS-context callback run. Such a call fails at once, with an error logged; a disconnect, which
 * never fails for that, does nothing. */
typedef struct _quillon_connection quillon_connection;

/* A service of the grid that is subscribed to, published or queried. */
typedef struct _quillon_capability quillon_capability;

/* What the controller has said of the account last, and DISCONNECTED after the end of a session. */
typedef enum QUILLON_CONNECTION_STATE_ENUM {
  QUILLON_CONNECTION_STATE_UNKNOWN = 0,               /* something that this library does not know */
  QUILLON_CONNECTION_STATE_BEFORE_CONNECT = 1,        /* nothing yet */
  QUILLON_CONNECTION_STATE_CONNECTED = 2,             /* the connection was admitted */
  QUILLON_CONNECTION_STATE_DISCONNECTED = 3,          /* the session has ended */
  QUILLON_CONNECTION_STATE_DISABLED = 4,              /* the account was disabled */
  QUILLON_CONNECTION_STATE_ENABLED = 5,               /* the account was enabled */
  QUILLON_CONNECTION_STATE_DELETED = 6,               /* the account was deleted */
  QUILLON_CONNECTION_STATE_AUTHORIZATION_CHANGED = 7, /* what the account may do has changed */
  QUILLON_CONNECTION_STATE_MAX = 8                    /* the end of the range, no state */
} QUILLON_CONNECTION_STATE_ENUM;

/* The connection is part of the grid now. On the thread that connects, before connect returns. A session that ends in this very
 * moment may have disconnect_cb run at the same time. */
typedef void (*quillon_connection_connect_cb)(quillon_connection *connection, void *user_data);

/* The session, or the attempt at one, has ended; the connection still counts as connected until this returns. On the event loop:
 * it must return soon and may not block on the connection; it may destroy it. status is
 *          QUILLON_STATUS_CONNECTION_ERROR    the grid had accepted the connection, and the server gave no reason: it was lost,
 *                                             disconnected, or ended over a handler queue that was full
 *          QUILLON_STATUS_QUILLON_ERROR       the same before that, and for a server that could not be reached or refused us
 *          QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED, QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE,
 *          QUILLON_STATUS_CONNECTION_ERROR_XMPP  the server's reason: these two, or any other */
typedef void (*quillon_connection_disconnect_cb)(quillon_connection *connection, QUILLON_STATUS status, void *user_data);

/* The controller said something of the account: denied (CONNECTION_DENIED) or pending (ACCOUNT_PENDING), on the thread that
 * connects; ACCOUNT_DISABLED, ACCOUNT_DELETED, ACCOUNT_AUTHORIZATION_CHANGED, each before the library disconnects, or
 * ACCOUNT_ENABLED, on the connection's notification thread. It may destroy the connection. */
typedef void (*quillon_connection_account_cb)(quillon_connection *connection, QUILLON_STATUS status, void *user_data);

/* Prepares the TLS context, an OpenSSL SSL_CTX *, of one connection attempt: certificate, key, trusted CAs, verification. On the
 * event loop. quillon_config_fill_ssl_ctx does what the library would. A context that does not verify accepts every server. */
typedef void (*quillon_connection_ssl_ctx_cb)(quillon_connection *connection, void *ssl_ctx, void *user_data);

/* Answers a query: see quillon_query_register_handler. */
typedef wb_dom_node *(*quillon_query_cb)(wb_dom_node *request, void *arg);

/* Receives a notification: see quillon_notification_register_handler. */
typedef void (*quillon_notification_cb)(wb_dom_node *notification, void *arg);

/* Makes a connection, bringing the library up if need be; starts its two handler threads. It has no configuration yet.
 * Thread:  any.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_QUILLON_ERROR  a handler thread or its tables could not be made
 *          QUILLON_STATUS_WB_ERROR       the XMPP client could not be made
 *          QUILLON_STATUS_EVENT_ERROR    as quillon_init */
QUILLON_API QUILLON_STATUS quillon_connection_create(quillon_connection **create_connection);

/* Drops the session, if one is up, without waiting for the server, makes whatever waits on the connection return, joins its
 * threads and frees it. No callback runs afterwards. Disconnect first to leave in order. A connect, a disconnect, a drain, a
 * query or a reconnection thread may be under way on other threads, and returns soon, perhaps after this call: a query says
 * QUILLON_STATUS_UNKNOWN, or QUILLON_STATUS_SEND_TIMEOUT when its session had ended before, and asks no further publisher. Other
 * calls must have returned.
 * Blocks:  until the callbacks that are running have returned, but for one that makes this call itself: it may be made out of
 *          every callback of the connection.
 * Thread:  any.
 * Returns: QUILLON_STATUS_OK, also for NULL */
QUILLON_API QUILLON_STATUS quillon_connection_destroy(quillon_connection *connection);

/* Sets the configuration, which must outlive the connection. Connect takes the host, the user name and the JID from it. */
QUILLON_API QUILLON_STATUS quillon_connection_set_config(const quillon_connection *connection, quillon_config *config);

/* Set the callbacks, each called with the user data that is set for it. NULL: none; for the TLS context that means that it is
 * left as the XMPP layer made it, without certificate or verification. Until a callback is set for it, it is filled from the
 * configuration. */
QUILLON_API QUILLON_STATUS quillon_connection_set_disconnect_cb(const quillon_connection *connection,
                                                                quillon_connection_disconnect_cb callback);
QUILLON_API QUILLON_STATUS quillon_connection_set_connect_cb(const quillon_connection *connection,
                                                             quillon_connection_connect_cb callback);
QUILLON_API QUILLON_STATUS quillon_connection_set_account_cb(const quillon_connection *connection,
                                                             quillon_connection_account_cb callback);
QUILLON_API QUILLON_STATUS quillon_connection_set_ssl_ctx_cb(const quillon_connection *connection,
                                                             quillon_connection_ssl_ctx_cb callback);
QUILLON_API QUILLON_STATUS quillon_connection_set_disconnect_cb_user_data(const quillon_connection *connection, void *user_data);
QUILLON_API QUILLON_STATUS quillon_connection_set_connect_cb_user_data(const quillon_connection *connection, void *user_data);
QUILLON_API QUILLON_STATUS quillon_connection_set_account_cb_user_data(const quillon_connection *connection, void *user_data);
QUILLON_API QUILLON_STATUS quillon_connection_set_ssl_ctx_cb_user_data(const quillon_connection *connection, void *user_data);

/* Makes the event loop run one pass. Thread: any. NULL is harmless. */
QUILLON_API void quillon_connection_wakeup(quillon_connection *connection);

/* Joins the grid: an XMPP session with the host whose turn it is, then the controller's approval of the account, then the
 * subscriptions and publications again. Each call tries the next host of the configuration. A session that an earlier connect
 * left up is ended first, which may block as long as a disconnect. On a connection that is part of the grid it does nothing.
 * Blocks:  up to 50 seconds for the XMPP session, send_timeout_seconds for each answer of the controller, and without a limit
 *          while the account is pending. quillon_connection_disconnect and quillon_connection_destroy on another thread end it.
 * Thread:  any but the event loop's; one connect at a time, others wait for it.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS        connection is NULL, or there is no configuration, user name or host
 *          QUILLON_STATUS_CONNECTION_ERROR    no XMPP session; or the account was not enabled after "pending"; or the answer of
 *                                             the controller was not understood; or a disconnect, drain or destroy came
 *                                             meanwhile; or the session ended while the capabilities were announced
 *          QUILLON_STATUS_CONNECTION_DENIED   the controller denied the account; the XMPP session stays up
 *          QUILLON_STATUS_SEND_TIMEOUT        the controller did not answer; the XMPP session stays up, unless it was lost
 *          QUILLON_STATUS_XMPP_ERROR, QUILLON_STATUS_QUILLON_ERROR  the request was refused; the XMPP session stays up
 *          QUILLON_STATUS_WB_ERROR            the host or the JID has no valid form
 *          QUILLON_STATUS_PTHREAD_ERROR       the event loop could not be started
 *          QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_UNKNOWN  the presence or the request could not be sent: the session was lost
 *          QUILLON_STATUS_XML_ERROR           a stanza could not be built, for example because a text is no UTF-8 */
QUILLON_API QUILLON_STATUS quillon_connection_connect(const quillon_connection *connection);

/* Ends the session, or the connect that is under way, and waits for its end. Nothing is sent to the controller.
 * Blocks:  up to send_timeout_seconds for the event loop and 50 seconds for the end, which disconnect_cb is part of.
 * Thread:  any but the event loop's, where it ends nothing.
 * Returns: QUILLON_STATUS_OK, also without a session, on the event loop, and when the end did not come in time: both are logged
 *          QUILLON_STATUS_MALLOC_ERROR  memory is exhausted, and the session may still be up */
QUILLON_API QUILLON_STATUS quillon_connection_disconnect(const quillon_connection *connection);

/* True while the connection is part of the grid: false while its account is pending, and for NULL. Thread: any. */
QUILLON_API bool quillon_connection_is_connected(quillon_connection *connection);

/* The queues of stanzas that have arrived and wait for a handler of the application. */
typedef enum QUILLON_HANDLER_QUEUE {
  QUILLON_HANDLER_QUEUE_QUERIES = 0,       /* requests, for the request-handler thread */
  QUILLON_HANDLER_QUEUE_NOTIFICATIONS = 1, /* messages, for the dispatch thread */
  QUILLON_HANDLER_QUEUE_MAX = 2            /* the end of the range, no queue */
} QUILLON_HANDLER_QUEUE;

/* How a handler queue is used. */
typedef struct _quillon_handler_queue_usage {
  size_t depth;         /* the stanzas that wait now, without the one that is being handled */
  size_t highest;       /* the most that ever waited, since the connection was made */
  uint64_t dropped;     /* those that found the queue full, since the connection was made */
  size_t bytes;         /* the memory that those take that wait now */
  size_t highest_bytes; /* the most that it ever was, since the connection was made */
} quillon_handler_queue_usage;

/* Tells how a handler queue is used: one whose depth grows has a handler that is too slow for what arrives. What may wait is
 * limited by quillon_config_set_handler_queue_bound and quillon_config_set_handler_queue_bytes.
 * Thread:  any, handlers too; it does not block.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a value of queue that is none */
QUILLON_API QUILLON_STATUS quillon_connection_get_handler_queue_usage(const quillon_connection *connection,
                                                                      QUILLON_HANDLER_QUEUE queue,
                                                                      quillon_handler_queue_usage *usage);

/* Sends a request to the controller: quillon_query_call_with_jid with the controller's address. */
QUILLON_API QUILLON_STATUS quillon_connection_query_controller(quillon_connection *connection, wb_dom_node *request,
                                                               wb_dom_node **response);

/* Sends a request to a publisher of the capability: quillon_query_call on the connection. */
QUILLON_API QUILLON_STATUS quillon_connection_query(quillon_connection *connection, quillon_capability *capability,
                                                    wb_dom_node *request, wb_dom_node **response);

/* Publishes a notification on the capability's topic: quillon_notification_call on the connection. */
QUILLON_API QUILLON_STATUS quillon_connection_notify(quillon_connection *connection, quillon_capability *capability,
                                                     wb_dom_node *notf);

/* Registers a handler for the notifications of that namespace, which may be empty, and name: as
 * quillon_notification_register_handler. */
QUILLON_API QUILLON_STATUS quillon_connection_register_notification_handler(quillon_connection *connection, const char *ns,
                                                                            const char *name, quillon_notification_cb callback,
                                                                            void *arg);

/* Registers the handler of the queries of that namespace, which may be empty, and name: as quillon_query_register_handler. */
QUILLON_API QUILLON_STATUS quillon_connection_register_query_handler(quillon_connection *connection, const char *ns,
                                                                     const char *name, quillon_query_cb callback, void *arg);

/* Passes an update of the registered capabilities to the callback in arg, a quillon_notification_callback_info *, if one is set
 * there. The library registers it for core_notif_name. */
QUILLON_API void quillon_connection_topic_handler(wb_dom_node *node, void *arg);

/* Sets the callback for updates of the registered capabilities, which runs on the connection's notification thread; NULL: none.
 * Updates that arrive without one are dropped. */
QUILLON_API QUILLON_STATUS quillon_connection_register_topic_notification_handler(quillon_connection *connection,
                                                                                  quillon_notification_cb callback,
                                                                                  void *user_data);

/* Asks the controller for the registered capabilities.
 * Blocks:  until the answer, at most send_timeout_seconds. Thread: any but the event loop's.
 * Owner:   *response, NULL unless the result is OK, is the caller's: wb_dom_context_destroy(wb_dom_get_context(*response)).
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_NO_CONNECTION  not connected to the grid; nothing was sent
 *          QUILLON_STATUS_XML_ERROR      the request could not be built
 *          and what quillon_query_call_with_jid returns */
QUILLON_API QUILLON_STATUS quillon_connection_query_capabilities(quillon_connection *connection, wb_dom_node **response);

/* Asks the controller for the status of one capability. version may be NULL: any.
 * As quillon_connection_query_capabilities, and
 *          QUILLON_STATUS_UNKNOWN        name is NULL; the connection was up */
QUILLON_API QUILLON_STATUS quillon_connection_query_capability_status(quillon_connection *connection, const char *name,
                                                                      const char *version, wb_dom_node **response);

/* The names of the connection's part of the grid protocol. Those that begin with ele_ or jabber_ele_ are expanded names,
 * "{namespace}local", but for ele_session_name, the group of a client without one, and ele_id_fieldname_val, the id of the
 * presence. */
QUILLON_API extern const char *const conn_namespace_id;
QUILLON_API extern const char *const conn_upd_notif_name;
QUILLON_API extern const char *const state_disabled;
QUILLON_API extern const char *const state_deleted;
QUILLON_API extern const char *const state_auth;
QUILLON_API extern const char *const state_enabled;
QUILLON_API extern const char *const ele_connect_name;
QUILLON_API extern const char *const ele_disconnect_name;
QUILLON_API extern const char *const ele_cred_name;
QUILLON_API extern const char *const ele_username_name;
QUILLON_API extern const char *const ele_username_value;
QUILLON_API extern const char *const ele_group_name;
QUILLON_API extern const char *const ele_groups_name;
QUILLON_API extern const char *const ele_ginode_info_tag;
QUILLON_API extern const char *const ele_desc_name;
QUILLON_API extern const char *const ele_approval_status;
QUILLON_API extern const char *const ele_get_capabilities_name;
QUILLON_API extern const char *const ele_get_capability_status;
QUILLON_API extern const char *const ele_cap_name;
QUILLON_API extern const char *const ele_cap_version;
QUILLON_API extern const char *const ele_session_name;
QUILLON_API extern const char *const ele_pres_name;
QUILLON_API extern const char *const ele_id_fieldname;
QUILLON_API extern const char *const ele_id_fieldname_val;
QUILLON_API extern const char *const ele_to_fieldname;
QUILLON_API extern const char *const jabber_ele_not_authorized_err;
QUILLON_API extern const char *const jabber_ele_remote_connection_err;
QUILLON_API extern const char *const core_capability_ns;
QUILLON_API extern const char *const core_capability_name;
QUILLON_API extern const char *const core_notif_name;

/* ---- Sending ------------------------------------------------------------------------------------------------ */

/* One operation on a connection's XMPP client, for a thread that is not the event loop's: create, one operation, destroy. What
 * the operation needs outlives the record, so that it may be destroyed as soon as the operation has returned. */
typedef struct _quillon_data quillon_data;

/* Makes a record for the connection, which is borrowed. */
QUILLON_API QUILLON_STATUS quillon_wb_client_create(quillon_data **data, quillon_connection *connection);

/* Frees the record. A reply that was handed out stays the caller's. */
QUILLON_API void quillon_wb_client_destroy(quillon_data *data);

/* Sends an IQ of type get or set and waits for its answer, a result or an error.
 * Blocks:  send_timeout_seconds at most, and 2 seconds more while something holds the event loop up. 0 or less times out at once.
 * Thread:  any but the event loop's.
 * Owner:   consumes one reference of the IQ's context but for INVALID_ARGS. *iq_result, NULL unless the result is OK, is the
 *          caller's with one reference of its context.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_SEND_TIMEOUT  no answer in time, or the event loop does not run, or the session ended meanwhile
 *          QUILLON_STATUS_SEND_ERROR    called on the event loop, or there is no memory to hand the IQ over
 *          QUILLON_STATUS_UNKNOWN       the XMPP client refused it: no session, no legal text, too large; or the connection is
 *                                       being destroyed */
QUILLON_API QUILLON_STATUS quillon_wb_client_send_and_wait(quillon_data *data, wb_dom_node *iq_req, wb_dom_node **iq_result);

/* Sends a stanza without waiting for an answer. Consumes one reference of its context but for INVALID_ARGS.
 * Blocks:  not while a session is up; otherwise until the event loop has refused it, at most send_timeout_seconds.
 * Thread:  any.
 * Returns: QUILLON_STATUS_OK          it will be written if the session lives
 *          QUILLON_STATUS_SEND_ERROR  the XMPP client refused it
 *          QUILLON_STATUS_UNKNOWN     the event loop does not run, or the connection is being destroyed */
QUILLON_API QUILLON_STATUS quillon_wb_client_send_and_forget(quillon_data *data, wb_dom_node *node);

/* Tells the XMPP client to end its session, which goes on after the return: quillon_connection_disconnect waits for it.
 * Blocks:  until the event loop has taken it, at most send_timeout_seconds. Thread: any but the event loop's.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_SEND_TIMEOUT  the event loop did not take it in time; it will when it runs
 *          QUILLON_STATUS_SEND_ERROR    called on the event loop, or there is no memory to hand it over */
QUILLON_API QUILLON_STATUS quillon_wb_client_disconnect(quillon_data *data);

/* ---- Reconnection ------------------------------------------------------------------------------------------- */

/* A thread that keeps a connection up: it connects at once, and then looks every 60 seconds whether the connection is down and
 * connects again, each time to the next host of the configuration. */
typedef struct _quillon_reconnection quillon_reconnection;

/* Makes the object; its thread does not run yet.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_QUILLON_ERROR when connection is NULL */
QUILLON_API QUILLON_STATUS quillon_reconnection_create(quillon_reconnection **reconnection, quillon_connection *connection);

/* Starts the thread; on one that runs it does nothing. The callbacks that connecting calls run on that thread. Not with several
 * threads at once.
 * Blocks:  up to 5 seconds when a thread that was stopped is still leaving.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_PTHREAD_ERROR  the system has no thread to give */
QUILLON_API QUILLON_STATUS quillon_reconnection_start(quillon_reconnection *reconnection);

/* Tells the thread to leave and disconnects as quillon_connection_disconnect does, which also ends a connect that the thread is
 * waiting in. The thread leaves by itself. On an object whose thread does not run nothing is disconnected.
 * Blocks:  as quillon_connection_disconnect. Thread: any but the event loop's.
 * Returns: QUILLON_STATUS_OK */
QUILLON_API QUILLON_STATUS quillon_reconnection_stop(quillon_reconnection *reconnection);

/* Stops the thread if it runs, waits for it and frees the object. Called by the thread itself, out of a callback, it does not
 * wait: the thread leaves when the callback returns.
 * Blocks:  as quillon_connection_disconnect, and up to 5 seconds for the thread.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS for NULL */
QUILLON_API QUILLON_STATUS quillon_reconnection_destroy(quillon_reconnection *reconnection);

/* ---- Queries ------------------------------------------------------------------------------------------------ */

/* The query engine of a connection, which makes and destroys it; applications reach it through quillon_connection_query,
 * quillon_connection_query_controller and quillon_connection_register_query_handler. Its functions may run on any threads at
 * once. */
typedef struct _quillon_query quillon_query;

/* A query handler with its argument. */
typedef struct _quillon_query_callback_info {
  quillon_query_cb callback; /* the handler */
  void *arg;                 /* passed to it */
} quillon_query_callback_info;

/* Makes an engine and starts its request-handler thread.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_WB_ERROR       a table could not be made
 *          QUILLON_STATUS_PTHREAD_ERROR  the thread could not be started */
QUILLON_API QUILLON_STATUS quillon_query_create(quillon_query **query, quillon_connection *connection);

/* Ends the engine; requests that are still queued are dropped.
 * Blocks:  until a handler that is running returns. Called by a handler itself it does not wait, and the handler's reply is
 *          dropped.
 * Returns: QUILLON_STATUS_OK, always */
QUILLON_API QUILLON_STATUS quillon_query_destroy(quillon_query *query);

/* Registers the handler for requests whose payload has that name, instead of an earlier one; letters of either case are the
 * same. ns may be an empty string. The handler runs on the request-handler thread, one request at a time, in the order of
 * arrival. The node it returns, in a context of its own, is consumed by the reply; NULL sends none.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS   query, ns or callback is NULL, or name is NULL or empty
 *          QUILLON_STATUS_QUILLON_ERROR  the name is too long or could not be stored */
QUILLON_API QUILLON_STATUS quillon_query_register_handler(quillon_query *query, const quillon_string *ns,
                                                          const quillon_string *name, quillon_query_cb callback, void *arg);

/* Queues a received IQ, with a reference of its own to its context, for the request-handler thread. A request without a
 * handler, and whatever is no request, gets no answer. Never waits.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_WB_ERROR  iq is NULL
 *          QUILLON_STATUS_UNKNOWN   the queue is full, and the stanza was dropped */
QUILLON_API QUILLON_STATUS quillon_query_handle(quillon_query *query, wb_dom_node *iq);

/* Asks a publisher of the capability, beginning with the one that answered last; each further one is asked when the one before
 * did not answer in time or answered with an XMPP error. Capabilities whose topics have buffers of one size share the memory
 * of who answered last.
 * Blocks:  until an answer, at most the send time-out for each publisher and 2 seconds more while the event loop is held up.
 * Thread:  any but the event loop's, which would wait for itself.
 * Owner:   request is consumed with one reference of its context, unless the result is QUILLON_STATUS_INVALID_ARGS or
 *          QUILLON_STATUS_CAPABILITY_NOT_FOUND. *response, NULL unless the result is QUILLON_STATUS_OK, is the caller's:
 *          wb_dom_context_destroy(wb_dom_get_context(*response)).
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_CAPABILITY_NOT_FOUND  no publisher is known
 *          QUILLON_STATUS_SEND_TIMEOUT          the last publisher did not answer in time; any may still have seen the request
 *          QUILLON_STATUS_XMPP_ERROR            the last publisher, or the server, refused the request
 *          QUILLON_STATUS_QUILLON_ERROR         a publisher answered, but with no response
 *          QUILLON_STATUS_XML_ERROR             the request could not be built
 *          QUILLON_STATUS_UNKNOWN               there is no session, or it did not take the request
 *          QUILLON_STATUS_SEND_ERROR            the request could not be handed to the event loop
 *          QUILLON_STATUS_NO_CONNECTION         the connection was drained, see quillon_connection_drain; nothing was sent */
QUILLON_API QUILLON_STATUS quillon_query_call(quillon_query *query, quillon_capability *capability, wb_dom_node *request,
                                              wb_dom_node **response);

/* As quillon_query_call, asking only the client of that full JID. */
QUILLON_API QUILLON_STATUS quillon_query_call_with_jid(quillon_query *query, const quillon_string *jid, wb_dom_node *request,
                                                       wb_dom_node **response);

/* Expanded names and values of the query envelope: genericMessage of the grid's namespace, the element iq, and the types of a
 * reply and of the grid element in it. */
QUILLON_API extern const char *const generic_message;
QUILLON_API extern const char *const qresp_iq;
QUILLON_API extern const char *const qresp_result_tag;
QUILLON_API extern const char *const qresp_response_tag;

/* ---- Notifications ------------------------------------------------------------------------------------------ */

/* The notification engine of a connection, which makes and destroys it; applications reach it through
 * quillon_connection_notify and quillon_connection_register_notification_handler. Its functions may run on any threads at
 * once. */
typedef struct _quillon_notification quillon_notification;

/* A notification handler with its argument. */
typedef struct _quillon_notification_callback_info {
  quillon_notification_cb callback; /* the handler */
  void *arg;                        /* passed to it */
} quillon_notification_callback_info;

/* Makes an engine and starts its dispatch thread. connection may be NULL: the engine then only receives.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_WB_ERROR       the table could not be made
 *          QUILLON_STATUS_PTHREAD_ERROR  the thread could not be started */
QUILLON_API QUILLON_STATUS quillon_notification_create(quillon_notification **notification, quillon_connection *connection);

/* Ends the engine; messages that are still queued are dropped.
 * Blocks:  until a handler that is running returns. Called by a handler itself it does not wait; no further handler is called.
 * Returns: QUILLON_STATUS_OK, always */
QUILLON_API QUILLON_STATUS quillon_notification_destroy(quillon_notification *notification);

/* Registers a handler for notifications whose payload has that name, letters of either case being the same. ns may be an empty
 * string. All handlers of a name run, in the order of registration and as often as they were registered, on the dispatch
 * thread, one message at a time in the order of arrival. The payload is gone when the last one returns: who wants it longer
 * imports it into a context of its own. Only _publisher_update_notification is registered once for each capability, and its
 * registration ends with the capability.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  notification, ns or callback is NULL, or name is NULL or empty
 *          QUILLON_STATUS_MALLOC_ERROR  memory is exhausted, or the name is too long
 *          QUILLON_STATUS_WB_ERROR      the handler could not be stored */
QUILLON_API QUILLON_STATUS quillon_notification_register_handler(quillon_notification *notification, const quillon_string *ns,
                                                                 const quillon_string *name, quillon_notification_cb callback,
                                                                 void *arg);

/* Queues a received message, with a reference of its own to its context, for the dispatch thread. What comes neither from the
 * publish-subscribe service nor from the controller is dropped there. Never waits.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_WB_ERROR  message is NULL
 *          QUILLON_STATUS_UNKNOWN   the queue is full, and the stanza was dropped */
QUILLON_API QUILLON_STATUS quillon_notification_handle(quillon_notification *notification, wb_dom_node *message);

/* Publishes the payload on the capability's topic. No answer is awaited: QUILLON_STATUS_OK means that the session took the
 * notification, not that the service accepted it.
 * Blocks:  not while a session is up; otherwise until the event loop has refused it, at most the send time-out.
 * Thread:  any.
 * Owner:   payload is consumed with one reference of its context, unless an argument is missing.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_QUILLON_ERROR  notification is NULL
 *          QUILLON_STATUS_XML_ERROR      the capability has no name, or the stanza could not be built
 *          QUILLON_STATUS_SEND_ERROR     there is no session, or it did not take the stanza
 *          QUILLON_STATUS_UNKNOWN        the event loop does not run, or the connection is being destroyed */
QUILLON_API QUILLON_STATUS quillon_notification_call(quillon_notification *notification, quillon_capability *capability,
                                                     wb_dom_node *payload);

/* The expanded name of the element that carries the payload of a notification. */
QUILLON_API extern const char *const notif_quillon;

/* ---- Capabilities ------------------------------------------------------------------------------------------- */

/* A capability is a service of the grid, named by a name in an XML namespace: what a client subscribes to, publishes on, and
 * queries. It has a topic, the publish-subscribe node, and a list of its publishers' JIDs that the library keeps current while
 * it is subscribed. A plain and a dynamic capability differ in the functions that are used for them: quillon_capability_... or
 * quillon_dynamic_capability_... . All functions may run on any threads at once, but a capability is destroyed once, and then
 * used no more. */

/* Makes a capability without namespace, name and publishers. */
QUILLON_API QUILLON_STATUS quillon_capability_create(quillon_capability **capability);

/* Makes all fields NULL without freeing anything: a capability that was in use loses, and leaks, what it had. Applications
 * have no need of it. */
QUILLON_API void quillon_capability_default_initialize(quillon_capability *capability);

/* Frees the capability. It is announced no more, on any connection, and so is one of the same namespace and name; publisher
 * updates no longer reach it. May be called by a handler. The filter is the application's again when the function returns.
 * Returns: QUILLON_STATUS_OK, always */
QUILLON_API QUILLON_STATUS quillon_capability_destroy(quillon_capability *capability);

/* Sets the name, 1 to 65536 bytes, and the topic, which is the name followed by "-1.0".
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a name that is empty or too long; the old one is kept */
QUILLON_API QUILLON_STATUS quillon_capability_set_name(const quillon_capability *capability, const char *name);

/* The same for a dynamic capability, whose topic is the name itself. */
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_set_name(const quillon_capability *capability, const char *name);

/* Sets the namespace URI, 1 to 65536 bytes.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for one that is empty or too long; the old one is kept */
QUILLON_API QUILLON_STATUS quillon_capability_set_namespace(const quillon_capability *capability, const char *namespace_);

/* Sets the filter, of which every subscribe request carries a copy; NULL clears it.
 * Owner:   filter stays the application's, which keeps it, unchanged, until another is set or the capability is destroyed: every
 *          reconnect copies it again.
 * Returns: QUILLON_STATUS_OK */
QUILLON_API QUILLON_STATUS quillon_capability_set_filter(const quillon_capability *capability, wb_dom_node *filter);

/* The JIDs of the known publishers, as quillon_string: the live array, not to be changed or freed. It is changed by
 * subscribing and refreshing and, while a connection is up, by notifications on their own thread at any time: read it only
 * before the first subscription or inside a notification handler of the only connection, and take quillon_capability_copy_jids
 * elsewhere. NULL for NULL. */
QUILLON_API quillon_array *quillon_capability_get_jids(quillon_capability *capability);

/* A copy of that array; the caller frees it with quillon_array_destroy. NULL for NULL and when memory is exhausted. */
QUILLON_API quillon_array *quillon_capability_copy_jids(quillon_capability *capability);

/* The callbacks for arrays of capabilities. Two are equal when they have the same name and the same namespace; one without
 * either equals none. The free callback does nothing, since capabilities are the application's. */
QUILLON_API bool quillon_array_obj_equal(const void *item1, const void *item2);
QUILLON_API void quillon_array_obj_free(void *item);

/* Takes the first item that equals the capability out of the array. */
QUILLON_API void _remove_capablity_obj(quillon_array *list, quillon_capability *capability);

/* Subscribes to the capability's notifications and learns its publishers. The capability, unless one of its namespace and name
 * is there, is remembered until it is destroyed, and announced again after every connect; without a connection that is all
 * that is done.
 * Blocks:  while connected, until the controller answers, at most the send time-out.
 * Thread:  any but the event loop's, which would wait for itself.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_UNKNOWN         an argument is NULL, or the request could not be sent
 *          QUILLON_STATUS_XML_ERROR       namespace or name is not set, or the request could not be built
 *          QUILLON_STATUS_SEND_TIMEOUT    no answer in time; the controller may still have seen the request
 *          QUILLON_STATUS_SEND_ERROR      the request could not be handed to the event loop
 *          QUILLON_STATUS_NOT_AUTHORIZED  the controller does not allow it
 *          QUILLON_STATUS_QUILLON_ERROR   the controller refused for another reason, or its answer was none
 *          QUILLON_STATUS_XMPP_ERROR      the server or the controller refused the request */
QUILLON_API QUILLON_STATUS quillon_capability_subscribe(const quillon_capability *capability, quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_subscribe(const quillon_capability *capability,
                                                                quillon_connection *connection);

/* Announces the client as a publisher of the capability, and remembers the capability as quillon_capability_subscribe does.
 * Blocks and runs as that. What the controller answers is not read.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_UNKNOWN        an argument is NULL, or the request could not be sent
 *          QUILLON_STATUS_XML_ERROR      namespace or name is not set, or the request could not be built
 *          QUILLON_STATUS_SEND_TIMEOUT   no answer in time; the controller may still have seen the request
 *          QUILLON_STATUS_SEND_ERROR     the request could not be handed to the event loop
 *          QUILLON_STATUS_QUILLON_ERROR  the controller's answer was none
 *          QUILLON_STATUS_XMPP_ERROR     the server or the controller refused the request */
QUILLON_API QUILLON_STATUS quillon_capability_publish(const quillon_capability *capability, quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_publish(const quillon_capability *capability,
                                                              quillon_connection *connection);

/* The requests alone: send at once what subscribing or publishing sends, and remember nothing. Same statuses, threads and
 * waits. */
QUILLON_API QUILLON_STATUS quillon_capability_create_and_query_subscriber(const quillon_capability *capability,
                                                                          quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_create_and_query_subscriber(const quillon_capability *capability,
                                                                                  quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_capability_create_and_query_publish(quillon_capability *capability,
                                                                       quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_create_and_query_publish(quillon_capability *capability,
                                                                               quillon_connection *connection);

/* Asks the controller for all publishers and adds those of this capability to its list; from then on their changes are followed.
 * Blocks:  until the controller answers, at most the send time-out.
 * Thread:  any but the event loop's, which would wait for itself.
 * Returns: QUILLON_STATUS_OK         also when there was no answer
 *          QUILLON_STATUS_UNKNOWN    an argument is NULL, or a JID of the answer cannot be kept
 *          QUILLON_STATUS_XML_ERROR  the request could not be built, or the answer names a publisher without a JID */
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_refresh_publisher_jids(quillon_capability *capability,
                                                                             quillon_connection *connection);

/* The library's own notification handler: adds the publisher that the notification names to the list of the capability arg, or
 * takes it out. It looks at no name: every capability that is registered follows every update. NULL arg is harmless. */
QUILLON_API void _publisher_update_notification(wb_dom_node *node, void *arg);

/* Announces the connection's core capability and every remembered capability again, all of them in the plain form. The connect
 * does this. A request that fails is logged, and the next one made, as long as the session lives.
 * Blocks:  until the controller has answered each request, at most the send time-out for each. */
QUILLON_API void quillon_capability_on_connected(quillon_connection *connection);

/* Expanded names of the requests and replies, and the literals in them. */
QUILLON_API extern const char *const element_subreq_name;
QUILLON_API extern const char *const element_pubreq_name;
QUILLON_API extern const char *const element_cap_name;
QUILLON_API extern const char *const element_cap_reference;
QUILLON_API extern const char *const capability_tag_id;
QUILLON_API extern const char *const capability_name_tag;
QUILLON_API extern const char *const namespace_version_tag;
QUILLON_API extern const char *const element_attr_type_name;
QUILLON_API extern const char *const element_base_events_capability_name;
QUILLON_API extern const char *const node_xmppDetails_name;
QUILLON_API extern const char *const node_jid_name;
QUILLON_API extern const char *const node_error_name;
QUILLON_API extern const char *const element_getallpubs_req_name;
QUILLON_API extern const char *const element_publisher_info;
QUILLON_API extern const char *const node_name_change;
QUILLON_API extern const char *const node_name_pub_jid;
QUILLON_API extern const char *const publish_update_notif_name;
QUILLON_API extern const char *const cap_namespace_id;
QUILLON_API extern const char *const capability_tag_version;
QUILLON_API extern const char *const capability_tag_add;
QUILLON_API extern const char *const capability_tag_delete;
QUILLON_API extern const char *const namespace_qn_tag;
QUILLON_API extern const char *const namespace_xsi_tag;
QUILLON_API extern const char *const namespace_xsi_tag_value;

/* ---- Proposing and modifying -------------------------------------------------------------------------------- */

/* Proposes a new capability to the controller: its name and version, the methods that its publishers answer, a description and
 * a vendor platform. querylist names the methods that read, actionlist those that write; a list may be NULL when its count is
 * 0 or less. Of the capability argument only the namespace is used, and nothing of it is changed.
 * Blocks:  until the controller answers, at most the send time-out.
 * Thread:  any but the event loop's, which would wait for itself.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_UNKNOWN                   a required argument is NULL, or the request could not be sent
 *          QUILLON_STATUS_NO_CONNECTION             not connected to the grid; nothing was sent
 *          QUILLON_STATUS_XML_ERROR                 the capability has no namespace, or the request could not be built
 *          QUILLON_STATUS_SEND_TIMEOUT              no answer in time; the controller may still have seen the request
 *          QUILLON_STATUS_SEND_ERROR                the request could not be handed to the event loop
 *          QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR  the controller refused; the log tells its reason
 *          QUILLON_STATUS_XMPP_ERROR                the server or the controller refused the request
 *          QUILLON_STATUS_QUILLON_ERROR             the controller's answer was none */
QUILLON_API QUILLON_STATUS quillon_capability_propose(const quillon_capability *capability, quillon_connection *connection,
                                                      const char *name, const char *version, const char **querylist,
                                                      const int num_queries, const char **actionlist, const int num_actions,
                                                      const char *description, const char *vendor_platform);

/* Changes the definition of an existing capability; the same in all else, but that a refusal is
 * QUILLON_STATUS_MODIFY_CAPABILITY_ERROR. */
QUILLON_API QUILLON_STATUS quillon_capability_modify(const quillon_capability *capability, quillon_connection *connection,
                                                     const char *name, const char *version, const char **querylist,
                                                     const int num_queries, const char **actionlist, const int num_actions,
                                                     const char *description, const char *vendor_platform);

/* Expanded names of the two requests and their replies. */
QUILLON_API extern const char *const element_propose_cap;
QUILLON_API extern const char *const element_modify_cap;
QUILLON_API extern const char *const propose_modify_cap_name;
QUILLON_API extern const char *const propose_modify_cap_version;
QUILLON_API extern const char *const propose_modify_cap_querymethods;
QUILLON_API extern const char *const propose_modify_cap_operation;
QUILLON_API extern const char *const propose_modify_cap_methodName;
QUILLON_API extern const char *const propose_modify_cap_methodPermissions;
QUILLON_API extern const char *const propose_modify_cap_description;
QUILLON_API extern const char *const propose_modify_cap_vplatform;
QUILLON_API extern const char *const propose_modify_cap_err;
QUILLON_API extern const char *const propose_modify_cap_errcode;
QUILLON_API extern const char *const propose_modify_cap_errdescription;

/* ---- Authorisation ------------------------------------------------------------------------------------------ */

/* Asks the controller whether the user may perform the operation of the capability. True only when it says so: a missing
 * argument, a refusal and a missing answer are false as well, and only the log tells them apart.
 * Blocks: until the controller answers, at most the send time-out.
 * Thread: any but the event loop's, which would wait for itself; a query handler may ask. */
QUILLON_API bool quillon_connection_is_authorized(quillon_connection *connection, const char *capability_name,
                                                  const char *operation_name, const char *user);

/* Expanded names of the request and its reply. */
QUILLON_API extern const char *const auth_request_name;
QUILLON_API extern const char *const auth_capability_name;
QUILLON_API extern const char *const auth_operation_name;
QUILLON_API extern const char *const auth_user_name;
QUILLON_API extern const char *const auth_node_name;

/* ---- Authentication token ----------------------------------------------------------------------------------- */

/* A token that proves to other services who the client is. The controller is asked for it when it is first needed. */
typedef struct _quillon_authentication_token quillon_authentication_token;

/* Makes a token object and sends nothing. The connection must outlive it. */
QUILLON_API QUILLON_STATUS quillon_authentication_token_create(quillon_authentication_token **token,
                                                               quillon_connection *connection);

/* The token's text, which lives as long as the object and never changes: a new token needs a new object. NULL when there is
 * none to be had; the next call then asks again. The text is a secret: the library wipes its copy at the end and never logs
 * it.
 * Blocks: until the controller answers, at most the send time-out; not at all once there is a text.
 * Thread: any but the event loop's; several at once all get the same text. */
QUILLON_API const char *quillon_authentication_token_get(quillon_authentication_token *token);

/* Wipes and frees the token.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS for NULL, which is harmless */
QUILLON_API QUILLON_STATUS quillon_authentication_token_destroy(quillon_authentication_token *token);

/* Expanded names of the request and its reply. */
QUILLON_API extern const char *const element_tokenreq_name;
QUILLON_API extern const char *const element_tokenresp_name;
QUILLON_API extern const char *const element_tokenchild_name;

/* ---- Bulk download ------------------------------------------------------------------------------------------ */

/* Fetches a large XML document from an HTTPS service and hands it out item by item; an item is an element two levels below the
 * root. The request goes out as a POST with the header "user:" followed by the client's bare JID. A thread of the library
 * transfers while the application's thread parses: in between are at most 50 pieces of the response as they came, of 16 KiB or
 * less, and an application that stops calling quillon_bulkdownload_next stops the transfer.
 *
 * A document is refused (QUILLON_STATUS_XML_ERROR) when it is not well-formed, has declarations in its document type, nests
 * more than 16384 elements, has a tag or comment of more than 4 MiB, or an item that takes more than 64 MiB of memory. HTTP
 * statuses are not looked at: what an error page holds is parsed like any other document.
 *
 * create, the setters, open, next, close and destroy are for one thread at a time. What is set while a download is open may
 * still reach its transfer, and holds from the next open on. */
typedef struct _quillon_bulkdownload quillon_bulkdownload;

/* The state of an open download. */
typedef struct _quillon_bulkdownload_iter quillon_bulkdownload_iter;

/* Prepares the TLS context, an OpenSSL SSL_CTX *, of the transfer that begins: certificate, key, trusted CAs, verification. On
 * the transfer thread. quillon_config_fill_ssl_ctx(config, ssl_ctx, true) does what the library would. A context that does not
 * verify accepts every certificate that bears the host's name. TLS is 1.2 or newer, whatever it sets. */
typedef void (*quillon_bulkdownload_ssl_ctx_cb)(quillon_bulkdownload *bulkdownload, void *ssl_ctx, void *user_data);

/* Reserved: the library calls no function of this type. */
typedef void (*quillon_bulkdownload_open_result_cb)(quillon_bulkdownload *bulkdownload, void *user_data, QUILLON_STATUS status,
                                                    const char *description, int description_length);

/* Makes an object with nothing set. Applications use quillon_bulkdownload_create. */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_default_create(quillon_bulkdownload **bulkdownload);

/* Makes every pointer of the object NULL without freeing anything. bulkdownload must not be NULL. */
QUILLON_API void quillon_bulkdownload_default_initialize(quillon_bulkdownload *bulkdownload);

/* Makes a bulk download for the configuration, which must outlive it and have a user name: the name is copied. The certificates
 * are read at each open.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a configuration without a user name */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_create(quillon_bulkdownload **bulkdownload, quillon_config *config);

/* Frees the object and clears the caller's pointer; a download that is still open is closed first.
 * Blocks:  as quillon_bulkdownload_close. */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_destroy(quillon_bulkdownload **bulkdownload);

/* Sets what fills the TLS context, and what is passed to it. Until then the configuration fills it. NULL callback: nothing does,
 * so that there is no client certificate, the server is not verified, and the HTTP library writes the session's keys to a file
 * that the variable SSLKEYLOGFILE of the environment names. */
QUILLON_API void quillon_bulkdownload_set_ssl_ctx_cb(quillon_bulkdownload *bulkdownload,
                                                     quillon_bulkdownload_ssl_ctx_cb callback);
QUILLON_API void quillon_bulkdownload_set_ssl_ctx_cb_user_data(quillon_bulkdownload *bulkdownload, void *user_data);

/* Sets the service's URL, 1 to 65536 bytes.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for one that is empty or too long; the old one is kept */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_set_url(quillon_bulkdownload *bulkdownload, const char *url);

/* Sets the request: an element, which is written as XML at once and stays the caller's. Without success there is no request
 * afterwards.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  also for an element of more than 65536 bytes as XML
 *          QUILLON_STATUS_WB_ERROR      the element is NULL or cannot be written */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_set_request(quillon_bulkdownload *bulkdownload, wb_dom_node *request);

/* Starts the transfer and returns; how it goes is told by quillon_bulkdownload_next. After a close it may be called again.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  also when there is no request, or the download is open already
 *          QUILLON_STATUS_REST_ERROR    the transfer thread could not be started */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_open(quillon_bulkdownload *bulkdownload);

/* Hands out the next item. *p_node is NULL with QUILLON_STATUS_OK at the end of the data, which is also where a document ends
 * that breaks off. The node lives in a context of its own, which the caller ends with
 * wb_dom_context_destroy(wb_dom_get_context(node)).
 * Text is found in the element whose end tag comes next: what stands before a child, indentation too, is the beginning of the
 * child's text, and what follows the last child is the element's own. Namespace declarations are not kept.
 * Blocks:  until an item is whole, without a limit.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS     also when the download is not open
 *          QUILLON_STATUS_XML_ERROR        a piece of the response could not be parsed: items that were whole before the fault
 *                                          come with the following calls, and no others
 *          QUILLON_STATUS_REST_ERROR, QUILLON_STATUS_REST_INIT_ERROR, QUILLON_STATUS_MALLOC_ERROR
 *                                          the transfer failed; *p_node may hold an item that came before, and is NULL when there
 *                                          are no more */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_next(quillon_bulkdownload *bulkdownload, wb_dom_node **p_node);
QUILLON_API QUILLON_STATUS quillon_bulkdownload_iter_next(quillon_bulkdownload_iter *iter, wb_dom_node **p_node);

/* Ends the download, breaking the transfer off if it is still under way. Nodes that were handed out stay.
 * Blocks:  for about a second at most, whatever the server does; longer only while a TLS-context callback is running.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  also when the download is not open
 *          QUILLON_STATUS_REST_ERROR    the transfer thread could not be joined; the download is closed all the same */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_close(quillon_bulkdownload *bulkdownload);

/* Ends an open download as quillon_bulkdownload_close does, from its iterator. NULL is harmless. */
QUILLON_API void quillon_bulkdownload_iter_free(quillon_bulkdownload_iter *iter);

/* Writes what the HTTP library says of the last transfer into description, at most description_length - 1 bytes and a zero; the
 * rest of it becomes zero too. Faults of the XML are not told.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a length below 1 */
QUILLON_API QUILLON_STATUS quillon_bulkdownload_get_error_details(quillon_bulkdownload *bulkdownload, char *description,
                                                                  int description_length);

#ifdef __cplusplus
}
#endif

#include <quillon_async.h>
#include <quillon_credentials.h>
#include <quillon_reconnection_options.h>
#include <quillon_statistics.h>

#endif
