#include "notes_simulator/server/use_mark.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/server/server_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

// flock, unlike the record locks of SQLite, survives that the same file is closed elsewhere, and
// two descriptors of one process exclude each other.
int openMark(const Server& server, const std::string& name) {
    const fs::path mark = server.state / "open" / name;
    const int fd = ::open(mark.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        throwErrno(errno, mark.string());
    }
    return fd;
}

// The exclusive form is only ever held under the server's lock, so that this one cannot fail.
void share(int fd, const std::string& detail) {
    if (::flock(fd, LOCK_SH | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd);
        throwErrno(error, "mark of " + detail);
    }
}

// Whether somebody has the mark. Closes the descriptor.
bool isShared(int fd, const std::string& detail) {
    const bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    const int error = errno;
    ::close(fd);
    if (!free && error != EWOULDBLOCK) {
        throwErrno(error, "mark of " + detail);
    }
    return !free;
}

// Beside the mark of its use: a "%" there is always followed by two digits.
std::string activityName(const std::string& key, Activity activity) {
    return key + (activity == Activity::kBackup ? "%b" : "%c");
}

} // namespace

UseMark::UseMark(const Server& server, const fs::path& file) {
    const ServerLock lock(server);
    take(server, file);
}

UseMark::UseMark(const Server& server, const fs::path& file, const ServerLock&) {
    take(server, file);
}

UseMark::~UseMark() {
    ::close(m_fd);
}

void UseMark::take(const Server& server, const fs::path& file) {
    requireOnline(server, file);
    m_fd = openMark(server, server.keyOf(file));
    share(m_fd, file.string());
}

bool UseMark::inUse(const Server& server, const fs::path& file, const ServerLock&) {
    return isShared(openMark(server, server.keyOf(file)), file.string());
}

ActivityMark::ActivityMark(const Server& server, const std::string& key, Activity activity)
    : m_fd(openMark(server, activityName(key, activity))) {
    share(m_fd, key);
}

ActivityMark::~ActivityMark() {
    ::close(m_fd);
}

bool ActivityMark::isThere(const Server& server, const std::string& key, Activity activity) {
    return isShared(openMark(server, activityName(key, activity)), key);
}

fs::path offlineFile(const Server& server, const fs::path& file) {
    return server.state / "offline" / (server.keyOf(file) + ".json");
}

bool isOffline(const Server& server, const fs::path& file) {
    std::error_code error;
    return fs::exists(offlineFile(server, file), error);
}

void requireOnline(const Server& server, const fs::path& file) {
    if (isOffline(server, file)) {
        throw StatusError(kDatabaseOffline, file.string());
    }
}

} // namespace notes_sim
