// The one exception type of the client, and its exit codes.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace qrtln {

// What the process returns. Scripts rely on the numbers.
enum class ExitCode {
    complete = 0,
    failed = 1,
    usage = 2,
    items_failed = 3, // a set was stored, but some of its items failed
    damage_found = 4,
    no_store = 10,
    locked = 11,
    no_permission = 12, // this user may not read or write what is in the store, or run the module
    no_such = 13,       // no set or database of that name
    server_error = 14,  // the module or the server's library failed
    remote_failed = 15, // the store lies elsewhere, and that place failed
    logs_missing = 16,  // a set was stored, but the chain of transaction logs has a gap
    interrupted = 128,  // plus the number of the signal
};

// A failure that ends a command. The message is lowercase and names the operation, the object and
// the outside status; the hint, where there is one, says what to do.
class ClientError : public std::runtime_error {
  public:
    ClientError(ExitCode code, const std::string& message, std::string hint = {})
        : std::runtime_error(message), m_code(static_cast<int>(code)), m_hint(std::move(hint)) {}
    ClientError(int code, const std::string& message, std::string hint = {})
        : std::runtime_error(message), m_code(code), m_hint(std::move(hint)) {}

    int exit_code() const { return m_code; }
    const std::string& hint() const { return m_hint; }

  private:
    int m_code;
    std::string m_hint;
};

// The system's text for an error number.
inline std::string system_error_text(int error) {
    return std::strerror(error);
}

} // namespace qrtln
