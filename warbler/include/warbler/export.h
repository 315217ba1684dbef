/* Visibility of Warbler's public functions. */
#ifndef WARBLER_EXPORT_H
#define WARBLER_EXPORT_H

#if defined(__GNUC__)
/* Marks what the library exports. */
#define WB_API __attribute__((visibility("default")))
/* Lets the compiler check a format against the arguments; 0 for arguments that come as a va_list. */
#define WB_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
/* Lets the compiler warn of a result that nobody looks at. */
#define WB_NODISCARD __attribute__((warn_unused_result))
#else
#define WB_API
#define WB_PRINTF(format_index, first_argument)
#define WB_NODISCARD
#endif

#endif
