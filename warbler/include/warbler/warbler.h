/* Warbler: an XMPP client layer in C on libevent, OpenSSL and expat. This header includes the rest.
 *
 * For all functions: fallible ones return false and fill err, which comes last and may be NULL. Arguments are borrowed until the
 * call returns and returned pointers live as long as their object, unless a comment says otherwise. No C++ exception leaves the
 * library. */
#ifndef WARBLER_WARBLER_H
#define WARBLER_WARBLER_H

#include <warbler/client.h>
#include <warbler/data.h>
#include <warbler/dom.h>
#include <warbler/err.h>
#include <warbler/event.h>
#include <warbler/htable.h>
#include <warbler/inspect.h>
#include <warbler/items.h>
#include <warbler/log.h>
#include <warbler/sasl.h>
#include <warbler/tls.h>
#include <warbler/workq.h>

#endif
