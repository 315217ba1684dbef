/* Visibility of Warbler's public functions. */
#ifndef WARBLER_EXPORT_H
#define WARBLER_EXPORT_H

#if defined(__GNUC__)
#define WB_API __attribute__((visibility("default")))
#define WB_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#define WB_NODISCARD __attribute__((warn_unused_result))
#else
#define WB_API
#define WB_PRINTF(format_index, first_argument)
#define WB_NODISCARD
#endif

#endif
