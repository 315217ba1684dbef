/* Error records: how every fallible Warbler operation says what went wrong. */
#ifndef WARBLER_ERR_H
#define WARBLER_ERR_H

#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What kind of failure it was. */
typedef enum wb_errcode {
  WB_ERR_NONE = 0,       /* no failure */
  WB_ERR_INVALID_ARG,    /* an argument is NULL or outside its range */
  WB_ERR_INVALID_STATE,  /* the object cannot do this now: not connected, already connected, being destroyed */
  WB_ERR_NO_MEMORY,      /* memory, a thread or a descriptor could not be had */
  WB_ERR_BAD_FORMAT,     /* bytes that are no XML, no UTF-8, no name, no JID, or over a limit */
  WB_ERR_SOCKET_CONNECT, /* a name could not be resolved or no address answered */
  WB_ERR_PROTOCOL,       /* the peer said something that the protocol forbids */
  WB_ERR_TIMEOUT,        /* the time allowed ran out */
  WB_ERR_NOT_AUTHORIZED, /* the server refused the credentials */
  WB_ERR_TLS,            /* the TLS handshake failed or the server's certificate was refused */
  WB_ERR_USER            /* the first value that an application may use for reasons of its own */
} wb_errcode;

/* A filled error record. The texts are constants: they are never freed and outlive the record. */
typedef struct wb_err {
  wb_errcode code;      /* what kind of failure */
  const char *message;  /* what happened, in words */
  const char *function; /* the function that noticed it */
  const char *file;     /* the source file of that function */
  unsigned line;        /* the line in that file */
} wb_err;

/* The constant text of a code; "unknown error" for a value that has none. Any thread; never blocks; never NULL. */
WB_API const char *wb_err_message(wb_errcode code);

#ifdef __cplusplus
}
#endif

#endif
