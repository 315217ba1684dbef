/* libqlk: joins an application to a message grid. */
#ifndef QUILLON_H
#define QUILLON_H

#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <warbler/warbler.h>

#if defined(__GNUC__)
#define QUILLON_API __attribute__((visibility("default")))
#else
#define QUILLON_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------------------------------------------- */

typedef enum QUILLON_STATUS {
  QUILLON_STATUS_OK = 0,
  QUILLON_STATUS_MALLOC_ERROR = 1,
  QUILLON_STATUS_XML_ERROR = 2,
  QUILLON_STATUS_WB_ERROR = 3,
  QUILLON_STATUS_EVENT_ERROR = 4,
  QUILLON_STATUS_XMPP_ERROR = 5,
  QUILLON_STATUS_REST_ERROR = 6,
  QUILLON_STATUS_QUILLON_ERROR = 7,
  QUILLON_STATUS_PTHREAD_ERROR = 8,
  QUILLON_STATUS_CONNECTION_ERROR = 9,
  QUILLON_STATUS_CONNECTION_TIMEOUT = 10,
  QUILLON_STATUS_CONNECTION_DENIED = 11,
  QUILLON_STATUS_ACCOUNT_PENDING = 12,
  QUILLON_STATUS_ACCOUNT_ENABLED = 13,
  QUILLON_STATUS_ACCOUNT_DISABLED = 14,
  QUILLON_STATUS_ACCOUNT_DELETED = 15,
  QUILLON_STATUS_ACCOUNT_AUTHORIZATION_CHANGED = 16,
  QUILLON_STATUS_SEND_ERROR = 17,
  QUILLON_STATUS_SEND_TIMEOUT = 18,
  QUILLON_STATUS_CAPABILITY_NOT_FOUND = 19,
  QUILLON_STATUS_NOT_AUTHORIZED = 20,
  QUILLON_STATUS_NOT_SUPPORTED = 21,
  QUILLON_STATUS_UNKNOWN = 22,
  QUILLON_STATUS_INVALID_ARGS = 23,
  QUILLON_STATUS_REST_INIT_ERROR = 24,
  QUILLON_STATUS_CONNECTION_ERROR_HOST = 25,
  QUILLON_STATUS_CONNECTION_ERROR_CLIENT = 26,
  QUILLON_STATUS_CONNECTION_ERROR_SERVER = 27,
  QUILLON_STATUS_CONNECTION_ERROR_AUTOREGOFF = 28,
  QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE = 29,
  QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED = 30,
  QUILLON_STATUS_CONNECTION_ERROR_XMPP = 31,
  QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR = 32,
  QUILLON_STATUS_MODIFY_CAPABILITY_ERROR = 33,
  QUILLON_STATUS_NO_CONNECTION = 34,
  QUILLON_STATUS_MAX = 35
} QUILLON_STATUS;

QUILLON_API const char *quillon_status_get_message(QUILLON_STATUS status);
QUILLON_API QUILLON_STATUS quillon_status_get_from_error(wb_dom_node *error);

/* ---- Logging ------------------------------------------------------------------------------------------------ */

typedef enum QUILLON_LOG_LEVEL {
  QUILLON_LOG_NONE = 0,
  QUILLON_LOG_ERROR = 1,
  QUILLON_LOG_WARN = 2,
  QUILLON_LOG_INFO = 3,
  QUILLON_LOG_VERBOSE = 4,
  QUILLON_LOG_DEBUG = 5
} QUILLON_LOG_LEVEL;

enum { QUILLON_LOG_BUFFER_SIZE = 32768 };

typedef int (*quillon_log_cb)(const char *format, va_list args);

typedef struct _quillon_log {
  quillon_log_cb log_cb;
  QUILLON_LOG_LEVEL loglevel;
} quillon_log;

QUILLON_API extern quillon_log qlnlog;

QUILLON_API int quillon_log_callback(FILE *stream, const char *format, va_list args);
QUILLON_API QUILLON_STATUS quillon_log_set_callback(quillon_log_cb callback);
QUILLON_API QUILLON_STATUS quillon_log_set_level(QUILLON_LOG_LEVEL level);
QUILLON_API void quillon_log_initialize(void);
QUILLON_API void quillon_log_wb_dom(wb_log_level level, const wb_dom_node *node, const char *caption);

/* ---- Strings ------------------------------------------------------------------------------------------------ */

typedef struct _quillon_string {
  size_t buffer_len;
  size_t data_len;
  char *buffer;
} quillon_string;

QUILLON_API void quillon_string_default_initialize(quillon_string *string);
QUILLON_API void quillon_string_set_buffer(quillon_string *string, char *buffer);
QUILLON_API void quillon_string_set_buffer_len(quillon_string *string, size_t buffer_len);
QUILLON_API void quillon_string_set_data_len(quillon_string *string, size_t data_len);
QUILLON_API void quillon_string_set(quillon_string *string, char *buffer, size_t buffer_len, size_t data_len);
QUILLON_API QUILLON_STATUS quillon_string_default_create(quillon_string **out);
QUILLON_API QUILLON_STATUS quillon_string_create(quillon_string **out, const char *text, size_t length);
QUILLON_API QUILLON_STATUS quillon_string_buffer_create(quillon_string **out, size_t length);
QUILLON_API QUILLON_STATUS quillon_string_copy_create(quillon_string **out, const quillon_string *source);
QUILLON_API void quillon_string_destroy(quillon_string **string);
QUILLON_API const char *quillon_string_cstr(const quillon_string *string);
QUILLON_API size_t quillon_string_buffersize(const quillon_string *string);
QUILLON_API size_t quillon_string_length(const quillon_string *string);
QUILLON_API QUILLON_STATUS quillon_string_assign_cstr(quillon_string *string, const char *text, size_t length);
QUILLON_API QUILLON_STATUS quillon_string_append_cstr(quillon_string *destination, const char *text, size_t length);
QUILLON_API QUILLON_STATUS quillon_string_append(quillon_string *destination, const quillon_string *source);
QUILLON_API bool quillon_string_equals_cstr(const quillon_string *string, const char *text, size_t length);
QUILLON_API bool quillon_string_equals(const quillon_string *a, const quillon_string *b);
QUILLON_API bool quillon_string_validate(const quillon_string *string);
QUILLON_API void quillon_string_tolower(quillon_string *string);

/* ---- Linked list -------------------------------------------------------------------------------------------- */

typedef struct _quillon_list {
  size_t length;
  void (*fcb)(void *data);
  bool (*ccb)(const void *element, const void *value);
  struct _node *head;
} quillon_list;

struct _node {
  void *data;
  struct _node *next;
};

QUILLON_API void quillon_list_default_initialize(quillon_list *list);
QUILLON_API QUILLON_STATUS quillon_list_default_create(quillon_list **out);
QUILLON_API QUILLON_STATUS quillon_list_create(quillon_list **out, void (*free_callback)(void *data),
                                               bool (*compare_callback)(const void *element, const void *value));
QUILLON_API void quillon_list_destroy(quillon_list **list);
QUILLON_API bool quillon_list_push_back(quillon_list *list, void *data);
QUILLON_API void quillon_list_remove_or_delete(quillon_list *list, size_t index, bool isdelete);
QUILLON_API void quillon_list_erase_at(quillon_list *list, size_t index);
QUILLON_API void quillon_list_clear_at(quillon_list *list, size_t index);
QUILLON_API void *quillon_list_get_at(const quillon_list *list, size_t index);
QUILLON_API size_t quillon_list_size(const quillon_list *list);
QUILLON_API void quillon_list_delete(quillon_list *list);
QUILLON_API int quillon_list_find(const quillon_list *list, const void *value);

/* ---- Pointer array ------------------------------------------------------------------------------------------ */

typedef bool (*quillon_array_items_equal_callback)(const void *item1, const void *item2);
typedef void (*quillon_array_items_free_callback)(void *item);

typedef struct _quillon_array {
  void **items;
  int32_t size;
  int32_t max;
  quillon_array_items_equal_callback equal_callback;
  quillon_array_items_free_callback free_callback;
} quillon_array;

QUILLON_API void quillon_array_create(quillon_array **out, quillon_array_items_equal_callback equal_callback,
                                      quillon_array_items_free_callback free_callback);
QUILLON_API void quillon_array_destroy(quillon_array *array);
QUILLON_API void quillon_array_add(quillon_array *array, void *item);
QUILLON_API int32_t quillon_array_index_of(const quillon_array *array, const void *item);
QUILLON_API void quillon_array_remove(quillon_array *array, const void *item);
QUILLON_API void *quillon_array_get(const quillon_array *array, int32_t index);
QUILLON_API int32_t quillon_array_size(const quillon_array *array);
QUILLON_API bool quillon_array_string_equal(const void *item1, const void *item2);
QUILLON_API void quillon_array_string_free(void *item);

/* ---- Monitor and blocking queue ----------------------------------------------------------------------------- */

typedef struct _quillon_monitor {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  bool is_notified;
  void *user_data;
} quillon_monitor;

QUILLON_API QUILLON_STATUS quillon_monitor_create(quillon_monitor **out);
QUILLON_API void quillon_monitor_destroy(quillon_monitor *monitor);
QUILLON_API void quillon_monitor_wait(quillon_monitor *monitor);
QUILLON_API bool quillon_monitor_timedwait(quillon_monitor *monitor, int seconds);
QUILLON_API void quillon_monitor_notify(quillon_monitor *monitor);
QUILLON_API void quillon_monitor_clear(quillon_monitor *monitor);
QUILLON_API void quillon_monitor_set_user_data(quillon_monitor *monitor, void *user_data);
QUILLON_API void *quillon_monitor_get_user_data(quillon_monitor *monitor);

typedef void (*quillon_queue_items_free_callback)(void *item);

typedef struct _quillon_queue {
  struct _linked_list *first;
  struct _linked_list *last;
  quillon_queue_items_free_callback free_callback;
  pthread_mutex_t mutex;
  pthread_cond_t cond;
} quillon_queue;

struct _linked_list {
  void *item;
  struct _linked_list *next;
};

QUILLON_API void quillon_queue_create(quillon_queue **out, quillon_queue_items_free_callback free_callback);
QUILLON_API void quillon_queue_push(quillon_queue *queue, void *item);
QUILLON_API void *quillon_queue_pop(quillon_queue *queue);
QUILLON_API void quillon_queue_destroy(quillon_queue *queue);
QUILLON_API void quillon_queue_string_free(void *item);

/* ---- XML helpers -------------------------------------------------------------------------------------------- */

QUILLON_API QUILLON_STATUS quillon_xml_add_child_and_text(wb_dom_node *parent, const char *child_name, const char *text);
QUILLON_API QUILLON_STATUS quillon_xml_get_sibling_of_name(wb_dom_node *current_node, const char *sibling_ename,
                                                           wb_dom_node **sibling);
QUILLON_API bool quillon_xml_is_ename(wb_dom_node *node, const char *ename);
QUILLON_API const char *quillon_xml_get_text_of_first_child_of_name(wb_dom_node *parent, const char *child_ename);
QUILLON_API QUILLON_STATUS quillon_xml_get_sender(wb_dom_node *node, char *sender);

/* ---- Configuration ------------------------------------------------------------------------------------------ */

typedef struct _quillon_config quillon_config;

QUILLON_API void quillon_config_free_string(void *datastr);
QUILLON_API void quillon_config_initialize(quillon_config *config);
QUILLON_API QUILLON_STATUS quillon_config_default_create(quillon_config **config);
QUILLON_API QUILLON_STATUS quillon_config_create(quillon_config **config);
QUILLON_API void quillon_config_destroy(quillon_config *config);
QUILLON_API void quillon_config_clone(const quillon_config *config, quillon_config **new_config);
QUILLON_API QUILLON_STATUS quillon_config_set_host(quillon_config *config, const char *host);
QUILLON_API QUILLON_STATUS quillon_config_set_hosts(quillon_config *config, const char **hosts, int hosts_count);
QUILLON_API QUILLON_STATUS quillon_config_set_user_name(quillon_config *config, const char *username);
QUILLON_API QUILLON_STATUS quillon_config_set_groups(quillon_config *config, const char **groups, int groups_count);
QUILLON_API QUILLON_STATUS quillon_config_set_user_group(quillon_config *config, const char *user_group);
QUILLON_API QUILLON_STATUS quillon_config_set_description(quillon_config *config, const char *description);
QUILLON_API QUILLON_STATUS quillon_config_set_client_cert_chain_filename(quillon_config *config, const char *filename);
QUILLON_API QUILLON_STATUS quillon_config_set_client_cert_key_filename(quillon_config *config, const char *filename);
QUILLON_API QUILLON_STATUS quillon_config_set_client_cert_key_password(quillon_config *config, const char *password);
QUILLON_API QUILLON_STATUS quillon_config_set_server_cert_chain_filename(quillon_config *config, const char *filename);
QUILLON_API QUILLON_STATUS quillon_config_set_bulk_server_cert_chain_filename(quillon_config *config, const char *filename);
QUILLON_API QUILLON_STATUS quillon_config_set_send_timeout_seconds(const quillon_config *config, const int seconds);
QUILLON_API void quillon_config_fill_ssl_ctx(const quillon_config *config, void *ssl_ctx, bool is_bulk_download);

/* ---- Library ------------------------------------------------------------------------------------------------ */

QUILLON_API QUILLON_STATUS quillon_init(void);
QUILLON_API void quillon_shutdown(void);
QUILLON_API bool quillon_sasl_mech_external_create(wb_htable *config, wb_sasl_mech **mech, wb_err *err);

/* ---- Connection --------------------------------------------------------------------------------------------- */

typedef struct _quillon_connection quillon_connection;
typedef struct _quillon_capability quillon_capability;

typedef enum QUILLON_CONNECTION_STATE_ENUM {
  QUILLON_CONNECTION_STATE_UNKNOWN = 0,
  QUILLON_CONNECTION_STATE_BEFORE_CONNECT = 1,
  QUILLON_CONNECTION_STATE_CONNECTED = 2,
  QUILLON_CONNECTION_STATE_DISCONNECTED = 3,
  QUILLON_CONNECTION_STATE_DISABLED = 4,
  QUILLON_CONNECTION_STATE_ENABLED = 5,
  QUILLON_CONNECTION_STATE_DELETED = 6,
  QUILLON_CONNECTION_STATE_AUTHORIZATION_CHANGED = 7,
  QUILLON_CONNECTION_STATE_MAX = 8
} QUILLON_CONNECTION_STATE_ENUM;

typedef void (*quillon_connection_connect_cb)(quillon_connection *connection, void *user_data);
typedef void (*quillon_connection_disconnect_cb)(quillon_connection *connection, QUILLON_STATUS status, void *user_data);
typedef void (*quillon_connection_account_cb)(quillon_connection *connection, QUILLON_STATUS status, void *user_data);
typedef void (*quillon_connection_ssl_ctx_cb)(quillon_connection *connection, void *ssl_ctx, void *user_data);
typedef wb_dom_node *(*quillon_query_cb)(wb_dom_node *request, void *arg);
typedef void (*quillon_notification_cb)(wb_dom_node *notification, void *arg);

QUILLON_API QUILLON_STATUS quillon_connection_create(quillon_connection **create_connection);
QUILLON_API QUILLON_STATUS quillon_connection_destroy(quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_connection_set_config(const quillon_connection *connection, quillon_config *config);
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
QUILLON_API void quillon_connection_wakeup(quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_connection_connect(const quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_connection_disconnect(const quillon_connection *connection);
QUILLON_API bool quillon_connection_is_connected(quillon_connection *connection);

QUILLON_API QUILLON_STATUS quillon_connection_query_controller(quillon_connection *connection, wb_dom_node *request,
                                                               wb_dom_node **response);
QUILLON_API QUILLON_STATUS quillon_connection_query(quillon_connection *connection, quillon_capability *capability,
                                                    wb_dom_node *request, wb_dom_node **response);
QUILLON_API QUILLON_STATUS quillon_connection_notify(quillon_connection *connection, quillon_capability *capability,
                                                     wb_dom_node *notf);
QUILLON_API QUILLON_STATUS quillon_connection_register_notification_handler(quillon_connection *connection, const char *ns,
                                                                            const char *name,
                                                                            quillon_notification_cb callback, void *arg);
QUILLON_API QUILLON_STATUS quillon_connection_register_query_handler(quillon_connection *connection, const char *ns,
                                                                     const char *name, quillon_query_cb callback, void *arg);
QUILLON_API void quillon_connection_topic_handler(wb_dom_node *node, void *arg);
QUILLON_API QUILLON_STATUS quillon_connection_register_topic_notification_handler(quillon_connection *connection,
                                                                                  quillon_notification_cb callback,
                                                                                  void *user_data);
QUILLON_API QUILLON_STATUS quillon_connection_query_capabilities(quillon_connection *connection, wb_dom_node **response);
QUILLON_API QUILLON_STATUS quillon_connection_query_capability_status(quillon_connection *connection, const char *name,
                                                                      const char *version, wb_dom_node **response);

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

typedef struct _quillon_data quillon_data;

QUILLON_API QUILLON_STATUS quillon_wb_client_create(quillon_data **data, quillon_connection *connection);
QUILLON_API void quillon_wb_client_destroy(quillon_data *data);
QUILLON_API QUILLON_STATUS quillon_wb_client_send_and_wait(quillon_data *data, wb_dom_node *iq_req, wb_dom_node **iq_result);
QUILLON_API QUILLON_STATUS quillon_wb_client_send_and_forget(quillon_data *data, wb_dom_node *node);
QUILLON_API QUILLON_STATUS quillon_wb_client_disconnect(quillon_data *data);

/* ---- Queries ------------------------------------------------------------------------------------------------ */

typedef struct _quillon_query quillon_query;

typedef struct _quillon_query_callback_info {
  quillon_query_cb callback;
  void *arg;
} quillon_query_callback_info;

QUILLON_API QUILLON_STATUS quillon_query_create(quillon_query **query, quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_query_destroy(quillon_query *query);
QUILLON_API QUILLON_STATUS quillon_query_register_handler(quillon_query *query, const quillon_string *ns,
                                                          const quillon_string *name, quillon_query_cb callback, void *arg);
QUILLON_API QUILLON_STATUS quillon_query_handle(quillon_query *query, wb_dom_node *iq);
QUILLON_API QUILLON_STATUS quillon_query_call(quillon_query *query, quillon_capability *capability, wb_dom_node *request,
                                              wb_dom_node **response);
QUILLON_API QUILLON_STATUS quillon_query_call_with_jid(quillon_query *query, const quillon_string *jid, wb_dom_node *request,
                                                       wb_dom_node **response);

QUILLON_API extern const char *const generic_message;
QUILLON_API extern const char *const qresp_iq;
QUILLON_API extern const char *const qresp_result_tag;
QUILLON_API extern const char *const qresp_response_tag;

/* ---- Notifications ------------------------------------------------------------------------------------------ */

typedef struct _quillon_notification quillon_notification;

typedef struct _quillon_notification_callback_info {
  quillon_notification_cb callback;
  void *arg;
} quillon_notification_callback_info;

QUILLON_API QUILLON_STATUS quillon_notification_create(quillon_notification **notification, quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_notification_destroy(quillon_notification *notification);
QUILLON_API QUILLON_STATUS quillon_notification_register_handler(quillon_notification *notification, const quillon_string *ns,
                                                                 const quillon_string *name,
                                                                 quillon_notification_cb callback, void *arg);
QUILLON_API QUILLON_STATUS quillon_notification_handle(quillon_notification *notification, wb_dom_node *message);
QUILLON_API QUILLON_STATUS quillon_notification_call(quillon_notification *notification, quillon_capability *capability,
                                                     wb_dom_node *payload);

QUILLON_API extern const char *const notif_quillon;

/* ---- Capabilities ------------------------------------------------------------------------------------------- */

QUILLON_API QUILLON_STATUS quillon_capability_create(quillon_capability **capability);
QUILLON_API QUILLON_STATUS quillon_capability_destroy(quillon_capability *capability);
QUILLON_API QUILLON_STATUS quillon_capability_set_name(const quillon_capability *capability, const char *name);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_set_name(const quillon_capability *capability, const char *name);
QUILLON_API QUILLON_STATUS quillon_capability_set_namespace(const quillon_capability *capability, const char *namespace_);
QUILLON_API QUILLON_STATUS quillon_capability_set_filter(const quillon_capability *capability, wb_dom_node *filter);
QUILLON_API quillon_array *quillon_capability_get_jids(quillon_capability *capability);
QUILLON_API quillon_array *quillon_capability_copy_jids(quillon_capability *capability);
QUILLON_API bool quillon_array_obj_equal(const void *item1, const void *item2);
QUILLON_API void quillon_array_obj_free(void *item);
QUILLON_API void _remove_capablity_obj(quillon_array *list, quillon_capability *capability);
QUILLON_API QUILLON_STATUS quillon_capability_subscribe(const quillon_capability *capability, quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_subscribe(const quillon_capability *capability,
                                                                quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_capability_publish(const quillon_capability *capability, quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_publish(const quillon_capability *capability,
                                                              quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_capability_create_and_query_subscriber(const quillon_capability *capability,
                                                                          quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_create_and_query_subscriber(const quillon_capability *capability,
                                                                                  quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_capability_create_and_query_publish(quillon_capability *capability,
                                                                       quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_create_and_query_publish(quillon_capability *capability,
                                                                               quillon_connection *connection);
QUILLON_API QUILLON_STATUS quillon_dynamic_capability_refresh_publisher_jids(quillon_capability *capability,
                                                                             quillon_connection *connection);
QUILLON_API void _publisher_update_notification(wb_dom_node *node, void *arg);
QUILLON_API void quillon_capability_on_connected(quillon_connection *connection);

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

#ifdef __cplusplus
}
#endif

#endif
