/* The allocator of memory that crosses Warbler's boundary: malloc and free under names of their own. */
#ifndef WARBLER_DATA_H
#define WARBLER_DATA_H

#include <stddef.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates size bytes; the caller frees them with wb_data_free (or free). NULL when memory is exhausted. */
WB_API void *wb_data_malloc(size_t size);

/* Copies a zero-terminated text; the caller frees the copy with wb_data_free (or free). NULL for NULL or when memory is
 * exhausted. */
WB_API char *wb_data_strdup(const char *text);

/* Frees what the two functions above returned; NULL is harmless. */
WB_API void wb_data_free(void *data);

#ifdef __cplusplus
}
#endif

#endif
