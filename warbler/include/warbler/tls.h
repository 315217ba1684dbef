/* TLS hooks of the client. */
#ifndef WARBLER_TLS_H
#define WARBLER_TLS_H

#include <stdbool.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The TLS side of one connection. */
typedef struct wb_tls_session wb_tls_session;

/* Prepares a TLS context (an OpenSSL SSL_CTX *) that the client has just made for one connection attempt: certificate, key,
 * trusted CAs, verification. It runs on the event loop and must not keep the pointer without a reference of its own. */
typedef void (*wb_tls_connect_func)(void *tls_context, void *arg);

/* Asked, on the event loop, after a handshake in which the context did not verify the server. Answer with wb_tls_proceed, at once
 * or later. */
typedef void (*wb_tls_accept_func)(wb_tls_session *session, void *arg);

/* Accepts or refuses the server. On the event loop. A later answer must come before the session ends. */
WB_API void wb_tls_proceed(wb_tls_session *session, bool accept);

/* The connection of the session as OpenSSL knows it (an SSL *), to look at certificates and parameters. On the event loop only.
 */
WB_API void *wb_tls_session_get_ssl(wb_tls_session *session);

/* Ends the use of TLS by the process's clients. OpenSSL cleans up after itself, so there is nothing left to free; kept for
 * symmetry. */
WB_API void wb_tls_terminate(void);

#ifdef __cplusplus
}
#endif

#endif
