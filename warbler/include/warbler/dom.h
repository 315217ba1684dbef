/* XML trees. Every node lives in a context, an arena that owns it: creating a node is a step of a pointer, and the last
 * wb_dom_context_destroy frees the arena's chunks without looking at a node.
 *
 * Names are expanded names: "{namespace}local", with "{}local" for a name without a namespace. "local" alone means the same as
 * "{}local", and "namespace|local" the same as "{namespace}local". The library hands names out in the braced form.
 *
 * A context and its nodes are used by one thread at a time; only the reference count may be changed by several. Pointers that
 * these functions return live as long as the context, unless a comment says otherwise. No algorithm here recurses, so the depth
 * of a tree is bounded by memory alone. */
#ifndef WARBLER_DOM_H
#define WARBLER_DOM_H

#include <stdbool.h>
#include <stddef.h>
#include <warbler/err.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A context: the arena that owns the nodes of one tree or of several. */
typedef struct wb_dom_ctx wb_dom_ctx;

/* A node: an element or a text. */
typedef struct wb_dom_node wb_dom_node;

/* Makes a context with one reference, the caller's. Fails with WB_ERR_INVALID_ARG (NULL out) or WB_ERR_NO_MEMORY. */
WB_API bool wb_dom_context_create(wb_dom_ctx **out, wb_err *err);

/* Adds a reference. Any thread that holds one. Fails with WB_ERR_INVALID_ARG for NULL. */
WB_API bool wb_dom_context_retain(wb_dom_ctx *context, wb_err *err);

/* Drops a reference; with the last one the context and all its nodes are gone. Any thread; NULL is harmless. */
WB_API void wb_dom_context_destroy(wb_dom_ctx *context);

/* The memory in bytes that the context and its nodes take, without the names that contexts of a client share; 0 for NULL. */
WB_API size_t wb_dom_context_get_memory(const wb_dom_ctx *context);

/* The context that owns the node; NULL for NULL. */
WB_API wb_dom_ctx *wb_dom_get_context(const wb_dom_node *node);

/* Makes an element without a parent. Fails with WB_ERR_INVALID_ARG (a NULL argument), WB_ERR_BAD_FORMAT (no XML name)
 * or WB_ERR_NO_MEMORY. */
WB_API bool wb_dom_element_create(wb_dom_ctx *context, const char *ename, wb_dom_node **out, wb_err *err);

/* Makes a text node without a parent from a copy of the text. The text is looked at when it is serialised: bytes that are
 * not UTF-8, or characters that XML does not know, are refused then. Fails with WB_ERR_INVALID_ARG or WB_ERR_NO_MEMORY. */
WB_API bool wb_dom_text_create(wb_dom_ctx *context, const char *text, wb_dom_node **out, wb_err *err);

/* Makes child the last child of parent; a child that has a parent leaves it first. Fails with WB_ERR_INVALID_ARG for a NULL
 * argument, a parent that is a text, a node of another context, and a child that is parent itself or an ancestor of it. */
WB_API bool wb_dom_add_child(wb_dom_node *parent, wb_dom_node *child, wb_err *err);

/* Takes child out of parent; the node stays in the context. Fails with WB_ERR_INVALID_ARG when it is no child of parent. */
WB_API bool wb_dom_remove_child(wb_dom_node *parent, wb_dom_node *child, wb_err *err);

/* Sets an attribute to a copy of value, replacing an earlier one; a NULL value removes it. Fails with WB_ERR_INVALID_ARG (NULL
 * element or name, or a text node), WB_ERR_BAD_FORMAT (no XML name) or WB_ERR_NO_MEMORY. */
WB_API bool wb_dom_set_attribute(wb_dom_node *element, const char *name, const char *value, wb_err *err);

/* The value of the attribute, or NULL. It lives until the attribute is set again. */
WB_API const char *wb_dom_get_attribute(const wb_dom_node *element, const char *name);

/* Declares a namespace prefix on the element ("": the default namespace), replacing an earlier declaration of that prefix on it.
 * Fails with WB_ERR_INVALID_ARG (a NULL argument, a text node, an empty URI for a prefix, a default namespace on an element that
 * has none), WB_ERR_BAD_FORMAT (no prefix, or one that XML reserves) or WB_ERR_NO_MEMORY. */
WB_API bool wb_dom_put_namespace(wb_dom_node *element, const char *prefix, const char *uri, wb_err *err);

/* Copies the node into the context, with all below it when deep is true, else with its attributes and declarations only.
 * The copy has no parent. Fails with WB_ERR_INVALID_ARG or WB_ERR_NO_MEMORY. */
WB_API bool wb_dom_import(wb_dom_ctx *context, const wb_dom_node *node, bool deep, wb_dom_node **out, wb_err *err);

/* The parent element, or NULL. */
WB_API wb_dom_node *wb_dom_get_parent(const wb_dom_node *node);
/* The first child element, or NULL; texts are passed over. */
WB_API wb_dom_node *wb_dom_get_first_child(const wb_dom_node *node);
/* The next sibling element, or NULL; texts are passed over. */
WB_API wb_dom_node *wb_dom_get_sibling(const wb_dom_node *node);
/* The first child of any kind, or NULL. */
WB_API wb_dom_node *wb_dom_get_first_node(const wb_dom_node *node);
/* The next sibling of any kind, or NULL. */
WB_API wb_dom_node *wb_dom_get_next_node(const wb_dom_node *node);
/* The first child element of that name (NULL: of any name), or NULL. */
WB_API wb_dom_node *wb_dom_get_first_element(const wb_dom_node *node, const char *ename);

/* The three forms of an element's name: "{uri}local", "local", "uri" ("" where there is none). NULL for a text or NULL. */
WB_API const char *wb_dom_get_ename(const wb_dom_node *element);
WB_API const char *wb_dom_get_localname(const wb_dom_node *element);
WB_API const char *wb_dom_get_namespace_uri(const wb_dom_node *element);

/* The text of the first child that is a text, or NULL. */
WB_API const char *wb_dom_get_first_text(const wb_dom_node *element);
/* The text of a text node; NULL for an element or NULL. */
WB_API const char *wb_dom_get_value(const wb_dom_node *text);

/* Writes the node and all below it as XML without a declaration. *xml is zero-terminated and the caller's to free();
 * *length, which may be NULL, is its length. Fails with WB_ERR_INVALID_ARG, WB_ERR_BAD_FORMAT (a text or value that is not UTF-8
 * or holds a character that XML does not know) or WB_ERR_NO_MEMORY; *xml is then NULL. */
WB_API bool wb_serialize_xml(const wb_dom_node *node, char **xml, size_t *length, wb_err *err);

/* Reads one whole document, XML 1.0 in UTF-8, into a context of its own; the caller owns that context's one reference,
 * wb_dom_get_context(*root). A document type declaration is refused; comments and processing instructions are passed over. Fails
 * with WB_ERR_INVALID_ARG, WB_ERR_BAD_FORMAT or WB_ERR_NO_MEMORY; *root is then NULL. */
WB_API bool wb_dom_parse(const char *xml, size_t length, wb_dom_node **root, wb_err *err);

#ifdef __cplusplus
}
#endif

#endif
