/* libqlk: credentials that are replaced while the program runs, and certificates that are revoked. quillon.h includes this
 * header, and what it says of all functions holds here too.
 *
 * With none of this every connect and every bulk download reads the files of the configuration as it finds them. A set of
 * credentials is the client's certificate with its chain, the key as the pass phrase opens it, and the CAs of both servers. It
 * is read and looked at as a whole, together with the list of revoked certificates, before it comes into force, and only a good
 * one does: a set that is half written, or wrong, changes nothing. The list itself is no part of the set: see
 * quillon_config_set_crl. */
#ifndef QUILLON_CREDENTIALS_H
#define QUILLON_CREDENTIALS_H

#include <quillon.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Live credentials --------------------------------------------------------------------------------------- */

/* Reads a set of credentials from the files of the configuration and puts it into force, in place of the one before. From
 * then on connects and bulk downloads use the set, and not the files: see quillon_config_fill_ssl_ctx. What is under way goes
 * on with what it began with; quillon_connection_renew changes that. When the set is refused, the one before stays in force,
 * and where there is none, files are read as before; the reason is logged as an error and told by
 * quillon_config_get_credentials_info.
 *   While a certificate that is about to expire is in force, this and each use of it logs a warning, once a day. The file
 * names and the pass phrase may be set meanwhile, on any thread: they belong to the next set.
 * Thread:  any, callbacks too, several at once. It reads files, and does not block otherwise.
 * Returns: QUILLON_STATUS_OK                       the set is in force
 *          QUILLON_STATUS_INVALID_ARGS             config is NULL
 *          QUILLON_STATUS_CONNECTION_ERROR_CLIENT  certificate or key: a file is not set or cannot
 *                                                  be read, the pass phrase does not open the key,
 *                                                  the key is not the certificate's, a certificate
 *                                                  of the chain has expired or is not valid yet,
 *                                                  ours is revoked, or OpenSSL's security level
 *                                                  does not allow them
 *          QUILLON_STATUS_CONNECTION_ERROR_SERVER  a CA file, or that of the revocations, cannot be
 *                                                  read; or a list of revocations is past its next
 *                                                  update
 *          QUILLON_STATUS_MALLOC_ERROR             memory is exhausted, where OpenSSL tells that; it
 *                                                  is one of the two above else */
QUILLON_API QUILLON_STATUS quillon_config_reload_credentials(quillon_config *config);

/* True: each connect, and each bulk download, first looks whether one of the files has changed (by name, place, size and times),
 * or the pass phrase, and if so does what quillon_config_reload_credentials does; a set that is refused is not read again until
 * there is another change, unless it was for a date, which time or a corrected clock may cure, or because the system could not
 * read a file that is there, as without descriptors or memory: that is read again, and logged, each time. At first false.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL */
QUILLON_API QUILLON_STATUS quillon_config_set_live_credentials(quillon_config *config, bool is_live);

/* Sets how many days before its end the client's certificate counts as about to expire: at first 14; 0: never.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL or days negative */
QUILLON_API QUILLON_STATUS quillon_config_set_expiry_warning_days(quillon_config *config, int days);

/* The set in force. Texts that are too long are cut. Later versions may append fields. */
typedef struct _quillon_credentials_info {
  size_t size; /* in: sizeof(quillon_credentials_info) of the caller; out: how much of it the library has filled */

  uint32_t sets;              /* how many have come into force; 0: none, and what follows about the certificate is empty */
  int64_t expires;            /* when the client's certificate, or one of its chain, ends: seconds since the epoch */
  bool is_about_to_expire;    /* within the days of quillon_config_set_expiry_warning_days, or already */
  char subject[256];          /* of the client's certificate, as RFC 2253 writes it */
  QUILLON_STATUS last_status; /* what the last reading came to, asked for or not; QUILLON_STATUS_OK when there was none */
  char failure[512];          /* why, for a person to read; empty when it was not refused */
} quillon_credentials_info;

/* Tells what is in force, and how the last reading ended; set info->size first. Reads no file. What lies beyond the fields that
 * the library knows is set to zero.
 * Thread:  any; it does not block.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config or info is NULL, and for a
 *          size that ends before failure does */
QUILLON_API QUILLON_STATUS quillon_config_get_credentials_info(const quillon_config *config, quillon_credentials_info *info);

/* Has a connection that is part of the grid show the credentials in force: it is drained as by quillon_connection_drain and
 * connected again as by quillon_connection_connect, with all that both tell the application. A quillon_reconnection may run; it
 * may take part, and take this for an outage.
 * Blocks:  as both, one after the other; milliseconds are the drain's.
 * Thread:  any but the event loop's and the callbacks of the connection.
 * Returns: what quillon_connection_connect does, or
 *          QUILLON_STATUS_SEND_TIMEOUT   also when the old session has not ended, see quillon_connection_drain: nothing connects
 *          QUILLON_STATUS_NO_CONNECTION  it is not part of the grid: nothing was done
 *          QUILLON_STATUS_SEND_ERROR     called on the event loop: nothing was done */
QUILLON_API QUILLON_STATUS quillon_connection_renew(quillon_connection *connection, uint32_t milliseconds);

/* ---- Revoked certificates ----------------------------------------------------------------------------------- */

/* Sets the PEM file with the lists of revoked certificates, one of each CA that has issued a server's certificate; NULL
 * clears it, and then nobody looks for revocations. A server whose certificate is listed is refused, and so is every server
 * whose CA has no list in the file, or one that is past its next update: an error in the log says which. Only the server's
 * own certificate is looked up, not those of the CAs between it and the trusted one.
 *   The file is read as it is by each connect and each bulk download, whether a set of credentials is in force or not, and
 * whether another was refused: while it cannot be read every server is refused. An application that fills the TLS context in a
 * callback of its own, without quillon_config_fill_ssl_ctx, has to look for revocations itself.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS for a text that is empty or longer than 65536 bytes */
QUILLON_API QUILLON_STATUS quillon_config_set_crl(quillon_config *config, const char *filename);

#ifdef __cplusplus
}
#endif

#endif
