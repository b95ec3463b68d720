// The trace. A message at a level goes out when GvDebugMask has the level's bit and the IRQL is PASSIVE_LEVEL, as two
// DbgPrint calls: a prefix with process, thread and function, then the message. Pointers and 64-bit values print
// through %x, so the adapter narrows them to their low 32 bits; a value meant for %I64x is wrapped in GvWide.
#pragma once

#include "frame/nt.h"

enum GvTraceLevel : ULONG {
    GvTraceError = 1,       // failing callees, refused input, broken invariants
    GvTraceNotable = 2,     // expected events worth seeing in a normal log
    GvTraceFlow = 4,        // which path a request takes
    GvTraceDispatch = 8,    // opening and closing of each request
    GvTraceUnsupported = 16 // requests for features that the driver does not have
};

extern ULONG GvDebugMask;

struct GvWide {
    ULONGLONG Value;
};

template <typename T>
ULONG GvTraceArgument(T integer)
{
    return static_cast<ULONG>(integer);
}
template <typename T>
ULONG GvTraceArgument(T* pointer)
{
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(pointer));
}
inline PCUNICODE_STRING GvTraceArgument(PCUNICODE_STRING text) { return text; }
inline PCUNICODE_STRING GvTraceArgument(PUNICODE_STRING text) { return text; }
// Text that may be written to as well: else the template above would take it for a pointer to narrow.
inline const char* GvTraceArgument(const char* text) { return text; }
inline const char* GvTraceArgument(char* text) { return text; }
inline const WCHAR* GvTraceArgument(const WCHAR* text) { return text; }
inline const WCHAR* GvTraceArgument(WCHAR* text) { return text; }
inline ULONGLONG GvTraceArgument(GvWide wide) { return wide.Value; }

inline bool GvTraceWanted(ULONG level) { return (GvDebugMask & level) != 0 && KeGetCurrentIrql() == PASSIVE_LEVEL; }

void GvTracePrefix(const char* function);

// For code that speaks in another function's name, such as the shared dispatch skeleton.
#define GV_TRACE_AS(function, level, ...) \
    do {                                  \
        if (GvTraceWanted(level)) {       \
            GvTracePrefix(function);      \
            GvTraceMessage(__VA_ARGS__);  \
        }                                 \
    } while (0)

#define GV_TRACE(level, ...) GV_TRACE_AS(__func__, level, __VA_ARGS__)

// A callee that failed: its name and its status.
#define GV_TRACE_FAILED_AS(function, callee, status) GV_TRACE_AS(function, GvTraceError, callee "(): 0x%x\n", status)
#define GV_TRACE_FAILED(callee, status)              GV_TRACE_FAILED_AS(__func__, callee, status)

// A refusal: traces why, and is the status.
#define GV_REFUSE_AS(function, status, ...) \
    (GvTraceWanted(GvTraceError) ? GvTraceLine(function, __VA_ARGS__) : static_cast<void>(0), (status))
#define GV_REFUSE(status, ...) GV_REFUSE_AS(__func__, status, __VA_ARGS__)

// Leaves the routine with the status of a step that failed: silently, or with the trace of a callee that failed. Not in
// a body under a guard, where nothing may be left behind.
#define GV_TRY(...)                                                                          \
    do {                                                                                     \
        if (const NTSTATUS gvStatus = (__VA_ARGS__); !NT_SUCCESS(gvStatus)) return gvStatus; \
    } while (0)
#define GV_TRY_TRACED_AS(function, callee, ...)                               \
    do {                                                                      \
        if (const NTSTATUS gvStatus = (__VA_ARGS__); !NT_SUCCESS(gvStatus)) { \
            GV_TRACE_FAILED_AS(function, callee, gvStatus);                   \
            return gvStatus;                                                  \
        }                                                                     \
    } while (0)
#define GV_TRY_TRACED(callee, ...) GV_TRY_TRACED_AS(__func__, callee, __VA_ARGS__)

template <typename... Arguments>
void GvTraceMessage(const char* format, Arguments... arguments)
{
    DbgPrint(format, GvTraceArgument(arguments)...);
}

template <typename... Arguments>
void GvTraceLine(const char* function, const char* format, Arguments... arguments)
{
    GvTracePrefix(function);
    GvTraceMessage(format, arguments...);
}

// The closing trace of a request; ends in two line feeds, which separate requests in a log.
void GvTraceClosing(const char* function, PFILE_OBJECT fileObject, NTSTATUS status, ULONG_PTR information);
