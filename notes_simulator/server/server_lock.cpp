#include "notes_simulator/server/server_lock.h"

#include "notes_simulator/base/status.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

int openLockFile(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        throwErrno(errno, "lock file " + file.string());
    }
    return fd;
}

void lockFile(int fd) {
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            throwErrno(errno, "server lock");
        }
    }
}

} // namespace

ServerLock::ServerLock(const Server& server) {
    const int gate = openLockFile(server.state / "gate.lock");
    try {
        lockFile(gate);
        m_fd = openLockFile(server.state / "server.lock");
        lockFile(m_fd);
    } catch (...) {
        ::close(gate);
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        throw;
    }
    ::close(gate);
}

ServerLock::~ServerLock() {
    ::close(m_fd);
}

} // namespace notes_sim
