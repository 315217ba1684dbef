#include <warbler/data.h>

#include <cstdlib>
#include <cstring>

void *wb_data_malloc(size_t size) { return std::malloc(size); }

char *wb_data_strdup(const char *text) { return text != nullptr ? strdup(text) : nullptr; }

void wb_data_free(void *data) { std::free(data); }
