#include "notes_simulator/base/files.h"

#include "notes_simulator/base/status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;

namespace notes_sim {

bool readingDenied(const fs::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return errno == EACCES;
    }
    // The bits count for the superuser too, so that a test can deny reading whoever runs it.
    return (info.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0 || ::access(file.c_str(), R_OK) != 0;
}

fs::path canonicalPath(const fs::path& path) {
    // Closed, such a descriptor leaves the locks of this process on the file as they are.
    const int fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    if (fd >= 0) {
        char target[4096];
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
        struct stat there {};
        struct stat opened {};
        const bool sure =
            length > 0 && static_cast<std::size_t>(length) < sizeof target &&
            ::fstat(fd, &opened) == 0 &&
            ::lstat(std::string(target, static_cast<std::size_t>(length)).c_str(), &there) == 0 &&
            there.st_dev == opened.st_dev && there.st_ino == opened.st_ino;
        ::close(fd);
        if (sure) {
            return std::string(target, static_cast<std::size_t>(length));
        }
    }
    return fs::weakly_canonical(path);
}

void replaceFile(const fs::path& file, const std::string& content) {
    const fs::path fresh = file.string() + ".new." + std::to_string(::getpid());
    {
        std::ofstream stream(fresh, std::ios::binary | std::ios::trunc);
        stream << content;
        stream.close();
        if (!stream) {
            const int error = errno;
            std::error_code ignored; // the first failure is the one to report
            fs::remove(fresh, ignored);
            throwErrno(error, "writing " + file.string());
        }
    }
    fs::rename(fresh, file);
}

} // namespace notes_sim
