// What every function of the C API shares: the lock, the faults, the journal, and the way from
// exceptions back to statuses.
#pragma once

#include "notes_simulator/api/process.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/server/faults.h"

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace notes_sim {

/// Text in quotes for the journal; "NULL" for none.
std::string quoted(const char* text);

/// Copies text into a buffer of a known size, cut and terminated. Returns the length.
std::uint16_t copyText(const std::string& text, char* buffer, std::uint16_t size);

/// Throws StatusError(kInvalidArgument) when a required pointer is NULL.
inline void require(const void* pointer) {
    if (pointer == nullptr) {
        throw StatusError(kInvalidArgument, "");
    }
}

/// One call: takes the process's lock, counts the call, and writes its line when it ends.
class ApiCall {
  public:
    ApiCall(const char* function, std::string arguments);
    ~ApiCall();
    ApiCall(const ApiCall&) = delete;
    ApiCall& operator=(const ApiCall&) = delete;

    /// The status of the fault that this call meets, if it meets one.
    const std::optional<Status>& fault() const { return m_fault; }
    /// The status as the caller receives it: in the mood "flags" one of a failure carries flags.
    Status answer(Status status);
    void result(std::string text) { m_result = std::move(text); }
    /// Adds an output to the journal line, as " name=value".
    void output(const char* name, std::uint64_t value);
    void output(const char* name, const char* text);

  private:
    std::unique_lock<std::recursive_mutex> m_lock;
    const char* m_function;
    std::string m_arguments;
    std::string m_result;
    std::string m_outputs;
    std::optional<Status> m_fault;
};

/// The status that stands for the exception being handled.
Status currentExceptionStatus() noexcept;

/// Runs the body of a function that returns a STATUS. The body throws StatusError to fail, or
/// returns a status.
template <class Body>
Status statusCall(const char* function, std::string arguments, Body&& body) noexcept {
    try {
        ApiCall call(function, std::move(arguments));
        Status status = kOk;
        if (call.fault()) {
            status = *call.fault();
        } else {
            try {
                status = body(call);
            } catch (const std::exception& error) {
                status = currentExceptionStatus();
                call.output("why", error.what());
            }
        }
        status = call.answer(status);
        call.result(std::to_string(status));
        return status;
    } catch (...) {
        return currentExceptionStatus();
    }
}

/// Runs the body of a function with another result; failure is what it returns when it fails.
template <class Result, class Body>
Result valueCall(const char* function, std::string arguments, Result failure,
                 Body&& body) noexcept {
    try {
        ApiCall call(function, std::move(arguments));
        Result result = failure;
        if (!call.fault()) {
            try {
                result = body(call);
            } catch (const std::exception& error) {
                result = failure;
                call.output("why", error.what());
            }
        }
        if constexpr (std::is_pointer_v<Result>) {
            call.result(result == nullptr ? "NULL" : "address");
        } else {
            call.result(std::to_string(result));
        }
        return result;
    } catch (...) {
        return failure;
    }
}

} // namespace notes_sim
