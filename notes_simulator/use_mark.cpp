#include "notes_simulator/use_mark.h"

#include "notes_simulator/status.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

// flock, unlike the record locks of SQLite, survives that the same file is closed elsewhere, and
// two descriptors of one process exclude each other.
int openMark(const Server& server, const fs::path& file) {
    const fs::path mark = server.state / "open" / server.keyOf(file);
    const int fd = ::open(mark.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        throwErrno(errno, mark.string());
    }
    return fd;
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
    m_fd = openMark(server, file);
    // The exclusive form is only ever held under the server's lock, so that this one cannot fail.
    if (::flock(m_fd, LOCK_SH | LOCK_NB) != 0) {
        const int error = errno;
        ::close(m_fd);
        throwErrno(error, "mark of " + file.string());
    }
}

bool UseMark::inUse(const Server& server, const fs::path& file, const ServerLock&) {
    const int fd = openMark(server, file);
    const bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    const int error = errno;
    ::close(fd);
    if (!free && error != EWOULDBLOCK) {
        throwErrno(error, "mark of " + file.string());
    }
    return !free;
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
