/* SASL mechanisms: an application gives the client the mechanisms that it may use, in the order of preference. */
#ifndef WARBLER_SASL_H
#define WARBLER_SASL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <warbler/err.h>
#include <warbler/export.h>
#include <warbler/htable.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A mechanism: its name and what it does. */
typedef struct wb_sasl_mech wb_sasl_mech;

/* One exchange by a mechanism. */
typedef struct wb_sasl_mech_instance wb_sasl_mech_instance;

/* The mechanisms that a client may use, in the order of preference. */
typedef struct wb_sasl_factory wb_sasl_factory;

/* How a step of a mechanism ended. Anything but WB_SASL_ERR_NONE aborts the exchange. */
typedef enum wb_sasl_error {
  WB_SASL_ERR_NONE = 0,               /* it went well */
  WB_SASL_ERR_ABORTED,                /* the mechanism gives up */
  WB_SASL_ERR_INCORRECT_ENCODING,     /* the challenge cannot be decoded */
  WB_SASL_ERR_INVALID_AUTHZID,        /* the identity to act as is not valid */
  WB_SASL_ERR_MECH_TOO_WEAK,          /* the mechanism does not protect enough */
  WB_SASL_ERR_NOT_AUTHORIZED,         /* the credentials do not do */
  WB_SASL_ERR_TEMPORARY_AUTH_FAILURE, /* it may go well later */
  WB_SASL_ERR_USER                    /* the first value that a mechanism may use for reasons of its own */
} wb_sasl_error;

/* Called once by each start or step with its output. The client takes over out, which came from wb_data_malloc or wb_data_strdup
 * (NULL: no output); needs_base64 tells that out is raw; done tells that the mechanism expects nothing more than the server's
 * success: a challenge after that aborts the exchange, and so does a success before it. A mechanism without evaluate_step is done
 * once it has started. */
typedef void (*wb_sasl_complete)(wb_sasl_mech_instance *instance, uint8_t *out, size_t length, bool needs_base64, bool done,
                                 wb_sasl_error error);

/* What a mechanism does; all run on the event loop. clean and evaluate_step may be NULL: nothing to clean, no challenge is
 * answered. */
typedef struct wb_sasl_mech_functions {
  /* Begins an exchange; config is the table given to wb_client_connect. */
  bool (*init)(wb_sasl_mech_instance *instance, wb_htable *config, wb_err *err);
  /* Ends an exchange: frees what init or a step attached. */
  void (*clean)(wb_sasl_mech_instance *instance);
  /* Produces the initial response; in is NULL and length 0. */
  bool (*evaluate_start)(wb_sasl_mech_instance *instance, uint8_t *in, size_t length, wb_sasl_complete complete, wb_err *err);
  /* Answers a challenge, which comes decoded and is the client's. What the server adds to its success comes here too, unless the
   * mechanism is done: it then says that it is, without output, or refuses the server. */
  bool (*evaluate_step)(wb_sasl_mech_instance *instance, uint8_t *in, size_t length, wb_sasl_complete complete, wb_err *err);
} wb_sasl_mech_functions;

/* Describes a mechanism; name and functions are copied. Fails with WB_ERR_INVALID_ARG (NULL argument, empty name, no init or
 * evaluate_start) or WB_ERR_NO_MEMORY. The caller owns *out until a factory takes it. */
WB_API bool wb_sasl_mech_create(const char *name, const wb_sasl_mech_functions *functions, wb_sasl_mech **out, wb_err *err);

/* Frees a mechanism that no factory took; NULL is harmless. */
WB_API void wb_sasl_mech_destroy(wb_sasl_mech *mech);

/* A pointer of the mechanism's own, kept with the exchange. */
WB_API void wb_sasl_mech_instance_set_data(wb_sasl_mech_instance *instance, void *data);
WB_API void *wb_sasl_mech_instance_get_data(wb_sasl_mech_instance *instance);

/* Makes an empty factory; config may be NULL. Fails with WB_ERR_INVALID_ARG (NULL out) or WB_ERR_NO_MEMORY. */
WB_API bool wb_sasl_factory_create(wb_htable *config, wb_sasl_factory **out, wb_err *err);

/* Adds a mechanism, which the factory then owns. Fails with WB_ERR_INVALID_ARG or WB_ERR_NO_MEMORY; the mechanism stays the
 * caller's then. Not while a client uses the factory. */
WB_API bool wb_sasl_factory_add_mech(wb_sasl_factory *factory, wb_sasl_mech *mech, wb_err *err);

/* Frees the factory and its mechanisms; NULL is harmless. */
WB_API void wb_sasl_factory_destroy(wb_sasl_factory *factory);

/* The cleaner for a table entry whose value is a factory that the table owns and whose key it does not. */
WB_API void wb_sasl_factory_htable_cleaner(bool replace, bool destroy_key, void *key, void *value);

#ifdef __cplusplus
}
#endif

#endif
