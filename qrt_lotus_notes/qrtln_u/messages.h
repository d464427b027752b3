// Trace, log and the error record: all that the module says goes through the client's two callbacks
// or is fetched with DB_GetError. A message is at most 1511 bytes; trailing line ends are removed.
#pragma once

#include "common/trace.h"
#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/syserrtxt.h"

// Texts that several units report.
inline constexpr char kRuntimeNotInitialized[] = "The Notes runtime system is not initialized!";
inline constexpr char kOperationNotExpected[] = "This operation type is not expected";

// Whether a trace or log callback is set.
inline bool isTracing() {
    return g_sQRTLN_Global.vpTraceFunc != nullptr;
}
inline bool isLogging() {
    return g_sQRTLN_Global.vpLogFunc != nullptr;
}

// Formats and passes the text to the trace callback. REQUIRES: there is one; the macros below ask.
[[gnu::format(printf, 1, 2)]] void DB_TraceExt(const char* format, ...);

// Formats and passes the text to the log callback, likewise.
[[gnu::format(printf, 1, 2)]] void DB_LogExt(const char* format, ...);

// A call of either evaluates its arguments only when its callback is set: a text that nobody hears
// costs nothing, whatever its arguments do. A function cannot leave its arguments alone, so its
// name is a macro too.
#define DB_TraceExt(...) (isTracing() ? (DB_TraceExt)(__VA_ARGS__) : static_cast<void>(0))
#define DB_LogExt(...) (isLogging() ? (DB_LogExt)(__VA_ARGS__) : static_cast<void>(0))

// Passes a finished text to the trace callback; nothing without one.
void DB_TraceExt_ln(const char* text);

// Traces the three lines that open an entry point: "=" as long as the middle line, it, "=" again.
[[gnu::format(printf, 1, 2)]] void traceBanner(const char* format, ...);

// Records an error for the client, unless one is pending already, and logs it.
[[gnu::format(printf, 3, 4)]] void DB_ErrHandler(unsigned long ulSysErrCode, int iErrFlag,
                                                 const char* format, ...);

// Hands over the pending error and clears it: the body of DB_GetError.
void takeError(TYPE_DB_Error* error);

// The system's text for an error number, or for the current errno when it is 0. Returns a static
// buffer of 1512 bytes that the next call overwrites.
char* getSysMsg(unsigned int number);
