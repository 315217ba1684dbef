/* A hash table of pointers. It is not locked: one thread at a time, or a lock of the owner's. */
#ifndef WARBLER_HTABLE_H
#define WARBLER_HTABLE_H

#include <stdbool.h>
#include <warbler/err.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A table; it knows its keys by the two functions that it was made with. */
typedef struct wb_htable wb_htable;

/* The hash of a key; equal keys have equal hashes. */
typedef unsigned (*wb_htable_hashfunc)(const void *key);
/* 0 when the keys are equal, anything else otherwise. */
typedef int (*wb_htable_cmpfunc)(const void *a, const void *b);
/* Called with the key and the value that leave the table: replace is true when a new entry takes their place, destroy_key tells
 * that the key leaves too (always so). It runs on the thread that changes the table. */
typedef void (*wb_htable_cleaner)(bool replace, bool destroy_key, void *key, void *value);
/* Called for each entry; false stops the walk. It must not change the table. */
typedef bool (*wb_htable_walkfunc)(wb_htable *table, const void *key, void *value, void *arg);

/* Makes an empty table. buckets is a hint of the size (0: the default); the table grows and shrinks with its content.
 * Fails with WB_ERR_INVALID_ARG for a NULL function or out, or WB_ERR_NO_MEMORY. The caller destroys *out. */
WB_API bool wb_htable_create(unsigned buckets, wb_htable_hashfunc hash, wb_htable_cmpfunc compare, wb_htable **out, wb_err *err);

/* Inserts or replaces. The table keeps the two pointers; the cleaner (NULL: none) runs for them when they leave. Over an existing
 * key the entry's cleaner gets the old key and the old value, and the table holds the new ones. Fails with WB_ERR_INVALID_ARG
 * (NULL table) or WB_ERR_NO_MEMORY; the table is then as before and the pointers are the caller's. */
WB_API bool wb_htable_put(wb_htable *table, const void *key, void *value, wb_htable_cleaner cleaner, wb_err *err);

/* The value stored under the key, or NULL. */
WB_API void *wb_htable_get(wb_htable *table, const void *key);

/* Removes the entry, running its cleaner; an absent key is harmless. */
WB_API void wb_htable_remove(wb_htable *table, const void *key);

/* The number of entries; 0 for NULL. */
WB_API unsigned wb_htable_get_count(wb_htable *table);

/* Runs every entry's cleaner and frees the table; NULL is harmless. */
WB_API void wb_htable_destroy(wb_htable *table);

/* Calls the function for each entry, in no set order. False with WB_ERR_INVALID_ARG for a NULL argument, or with WB_ERR_NONE
 * when the function stopped the walk. */
WB_API bool wb_htable_walk(wb_htable *table, wb_htable_walkfunc walk, void *arg, wb_err *err);

/* Hash and comparison of zero-terminated texts, exact. */
WB_API unsigned wb_str_hashcode(const void *key);
WB_API int wb_str_compare(const void *a, const void *b);

/* Hash and comparison of zero-terminated texts without regard to the case of ASCII letters. */
WB_API unsigned wb_strcase_hashcode(const void *key);
WB_API int wb_strcase_compare(const void *a, const void *b);

/* Hash and comparison of the pointer's own value, taken as an integer. */
WB_API unsigned wb_int_hashcode(const void *key);
WB_API int wb_int_compare(const void *a, const void *b);

#ifdef __cplusplus
}
#endif

#endif
