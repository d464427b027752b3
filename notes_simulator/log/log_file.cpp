#include "notes_simulator/log/log_file.h"

#include "notes_simulator/base/status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace fs = std::filesystem;

namespace notes_sim {

LogFile::LogFile(const fs::path& path, int flags)
    : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
    if (m_fd < 0) {
        throwErrno(errno, path.string());
    }
}

LogFile::~LogFile() {
    ::close(m_fd);
}

void writeAt(int fd, std::span<const std::uint8_t> bytes, std::uint64_t position) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::pwrite(fd, bytes.data() + done, bytes.size() - done,
                                         static_cast<off_t>(position + done));
        if (written < 0 && errno != EINTR) {
            throwErrno(errno, "writing the transaction log");
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

Bytes readAt(int fd, std::size_t length, std::uint64_t position) {
    Bytes bytes(length);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t got =
            ::pread(fd, bytes.data() + done, length - done, static_cast<off_t>(position + done));
        if (got < 0 && errno != EINTR) {
            throwErrno(errno, "reading the transaction log");
        }
        if (got == 0) {
            break;
        }
        done += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    bytes.resize(done);
    return bytes;
}

} // namespace notes_sim
