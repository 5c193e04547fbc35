/* Platform log. One call writes one line under a tag at a priority. */
#ifndef CIMCORE_PLATFORM_DLOG_H
#define CIMCORE_PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    LOG_ID_MAIN = 0, /* the main log buffer, the only one this library uses */
    LOG_ID_RADIO,
    LOG_ID_SYSTEM,
    LOG_ID_APPS,
    LOG_ID_MAX
} log_id_t;

typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT,
    DLOG_VERBOSE,
    DLOG_DEBUG,
    DLOG_INFO = 4,
    DLOG_WARN,
    DLOG_ERROR = 6,
    DLOG_FATAL,
    DLOG_SILENT
} log_priority;

/* Formats the message like printf and writes it as one line. Returns the
   number of bytes written, or a negative value on failure. */
int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
