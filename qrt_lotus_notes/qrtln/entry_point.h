// What the entry points share: the frame that keeps exceptions in, and the state checks.
#pragma once

#include <new>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

// Every entry point is defined with this: the module is built with hidden symbols.
#define QRTLN_EXPORT extern "C" [[gnu::visibility("default")]]

namespace entry_point {

// Reports from a handler, where a second failure must not escape either.
inline void reportCaught(const char* what) noexcept {
    try {
        DB_ErrHandler(0, kErrorKindNone, "%s", what);
    } catch (...) {
        // Nothing is left to report with: the status code says that the call failed.
    }
}

// Runs the body of an entry point. No exception leaves it: the client may be no C++ program.
template <typename Body>
int run(Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        reportCaught("The module ran out of memory");
    } catch (...) {
        reportCaught("The module met an unexpected condition");
    }
    return DB_NUM_E_FAILED;
}

// Reports a failure of the call and returns it.
inline int fail(const char* text) {
    DB_ErrHandler(0, kErrorKindNone, "%s", text);
    return DB_NUM_E_FAILED;
}

inline constexpr char kMissingArgument[] = "A required argument is missing (NULL)";

// Returns 3000 when the runtime is up, else reports and returns 1000.
inline int requireRuntime() {
    return g_sQRTLN_Global.bNotesInitialized ? DB_NUM_I_OK : fail(kRuntimeNotInitialized);
}

// Returns 3000 when the runtime is up and the operation is a backup, else reports and returns 1000.
inline int requireBackup() {
    if (requireRuntime() != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    return g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK ? DB_NUM_I_OK
                                                           : fail(kOperationNotExpected);
}

// The text or, for a client's NULL, what stands for it in a trace.
inline const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

} // namespace entry_point
