// The platform log: priorities and the logging call of the closed net library.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum nxa_LogPriority : int {
    NXA_LOG_UNKNOWN = -1,
    NXA_LOG_DEFAULT = 0,
    NXA_LOG_TRACE = 1,
    NXA_LOG_VERBOSE = 2,
    NXA_LOG_DEBUG = 3,
    NXA_LOG_INFO = 4,
    NXA_LOG_WARN = 5,
    NXA_LOG_ERROR = 6,
    NXA_LOG_FATAL = 7,
    NXA_LOG_SILENT = 8,
} nxa_LogPriority;

/**
 * Writes one line to the platform log. Provided by libhalden_net.
 *
 * @param priority  one of nxa_LogPriority
 * @param tag       module the line belongs to
 * @param format    printf format, with its arguments behind it
 * @return whatever the library returns; nobody here looks at it
 *
 * Any thread. The library may take locks of its own, so it is never called with a lock of the
 * caller held.
 */
int __halden_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
