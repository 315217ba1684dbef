/* The logger. A record passes when its level is not above the threshold; each record is one call of the
 * application's function, with the caller's format and arguments untouched: no prefix, no time stamp, no newline. */
#ifndef WARBLER_LOG_H
#define WARBLER_LOG_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <warbler/dom.h>
#include <warbler/err.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How important a record is, and as a threshold, which records pass: those of the level and of all above it in this list. */
typedef enum wb_log_level {
  WB_LOG_NONE = 0,    /* the threshold that nothing passes */
  WB_LOG_ERROR = 1,   /* what failed */
  WB_LOG_WARN = 2,    /* what is odd, and was dealt with */
  WB_LOG_INFO = 3,    /* the course of things */
  WB_LOG_VERBOSE = 4, /* each step of it */
  WB_LOG_DEBUG = 5,   /* what helps to find a fault */
  WB_LOG_TRACE = 6    /* stanzas that come, and calls of the library */
} wb_log_level;

/* Receives one record. stream is standard error. It may be called on any thread, on several at once, and must not log itself.
 * The result is ignored. */
typedef int (*wb_log_function)(FILE *stream, const char *format, va_list args);

/* Logs one record. A level that does not pass costs a call, one load and one branch. Any thread. */
WB_API void wb_log(wb_log_level level, const char *format, ...) WB_PRINTF(2, 3);

/* Logs an error record under a caption, as "caption: message (function, file:line)". NULL err logs the caption alone. Any thread.
 */
WB_API void wb_log_err(wb_log_level level, const wb_err *err, const char *caption);

/* Logs the formatted text, one blank, and the node serialised as XML; a NULL node, or one that cannot be serialised, adds
 * nothing. The text of elements called token or password, in any namespace, is a row of asterisks. Any thread that may read the
 * node. */
WB_API void wb_log_dom(wb_log_level level, const wb_dom_node *node, const char *format, ...) WB_PRINTF(3, 4);

/* Installs the function that receives the records; NULL restores vfprintf. Set it before other threads log. */
WB_API void wb_log_set_function(wb_log_function function);

/* Sets the threshold: records of levels 1 to level pass, WB_LOG_NONE silences all. The default is WB_LOG_INFO. Any thread. */
WB_API void wb_log_set_level(wb_log_level level);

/* The threshold in force. Any thread. */
WB_API wb_log_level wb_log_get_level(void);

/* Switches the nested context of log records, a prefix "[host] " that tells connections apart, on or off. The default is off. */
WB_API void wb_log_set_ndc_enabled(bool enabled);

#ifdef __cplusplus
}
#endif

#endif
