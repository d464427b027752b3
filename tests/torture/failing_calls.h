// Failing calls of the loaded module into libc, its allocations and its calls on files: those that
// its own code makes, and nobody else's. The slots through which the module calls other libraries
// are redirected, so that the simulator, the host and the sanitizers are left alone. Calls that a
// library makes on the module's behalf are not reached.
//
// What a failing call leaves behind is what the system leaves: a stream whose close fails is closed
// and has lost what was not written yet, a short write has written a half.
#pragma once

#include <cerrno>
#include <string>
#include <vector>

namespace qrtln::torture {

// Stand among the errors of a write: for one that writes a half, and for a disk that is full from
// then on. Both are ENOSPC to the caller.
inline constexpr int short_write = 1000;
inline constexpr int disk_full = 1001;

// A function that the module calls, and what stands in for it.
struct FailingCall {
    const char* symbol; // as the module names it
    void* replacement;
    std::vector<int> errors; // what it can fail with
    void* original = nullptr;
    unsigned calls = 0; // since it was armed

    bool allocates() const { return errors == std::vector<int>{ENOMEM}; }
};

std::vector<FailingCall>& failing_calls();
// nullptr for any other, as those of the server's library.
FailingCall* failing_call(const std::string& symbol);

// Redirects the loaded module's calls; fails the call of that name and number, from 1 on, with an
// error. Without a name the calls are counted and none fails. Throws std::runtime_error when the
// module makes a call on files for which there is no replacement: it would not be tortured as it
// should be.
void arm(const std::string& symbol, unsigned number, int error);
// Lets every call succeed from now on.
void disarm();

bool call_has_failed();
// What the call that failed was about: a path, "" before it.
const std::string& failed_path();
std::string error_text(int error);

} // namespace qrtln::torture
