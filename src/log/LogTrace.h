#pragma once

// The trace pattern shared by every operation of the library. Each operation
// keeps its trace object in a kt::LogFnSlot that is empty when logging is off, so
// an untraced call pays one test. The level test always comes before the
// arguments are captured; these macros keep that order in one place and let the
// compiler check every format against its arguments.

#include "log/LogDdi.h"
#include "log/LogEntry.h"
#include "log/LogFn.h"

#define DDI_TRACE_ENTER(fn, ...)                                                   \
    do {                                                                           \
        if ((fn) && (fn)->WillBeLogged()) (fn)->LogEnterMessage(__VA_ARGS__);      \
    } while (0)

#define DDI_TRACE_MSG(fn, level, ...)                                              \
    do {                                                                           \
        if ((fn) && (fn)->WillBeLogged(kt::LogEntry::level))                       \
            (fn)->LogMessage(kt::LogEntry::level, __VA_ARGS__);                    \
    } while (0)

// A message followed by a hex dump of size bytes at data.
#define DDI_TRACE_DUMP(fn, level, data, size, ...)                                 \
    do {                                                                           \
        if ((fn) && (fn)->WillBeLogged(kt::LogEntry::level))                       \
            (fn)->LogDumpMessage(kt::LogEntry::level, (data), (size), __VA_ARGS__); \
    } while (0)

#define DDI_TRACE_RETURN_ARGS(fn, ...)                                             \
    do {                                                                           \
        if ((fn) && (fn)->WillBeLogged()) (fn)->SetReturnArgs(__VA_ARGS__);        \
    } while (0)

#define DDI_TRACE_RESULT(fn, ...)                                                  \
    do {                                                                           \
        if ((fn) && (fn)->WillBeLogged()) (fn)->SetReturnResult(__VA_ARGS__);      \
    } while (0)

// "%s" of a C string that may be null, printed the way the C library prints it.
inline const char* DdiStr(const char* text) { return text ? text : "(null)"; }
