#include "qrt_lotus_notes/qrtln_o/disk_flush.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// Returns 0 or an error number.
int flushToDisk(const char* path, int flags) {
    const int fd = open(path, flags | O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int error = fsync(fd) == 0 ? 0 : errno;
    close(fd); // nothing was written through it
    return error;
}

// Whether an error says that the directory cannot be flushed at all, rather than that it failed.
bool cannotFlush(int error) {
    return error == EINVAL || error == ENOTSUP || error == ENOSYS || error == EROFS ||
           error == EACCES;
}

std::string directoryOf(const char* path) {
    const char* delimiter = std::strrchr(path, kDelimiter);
    if (delimiter == nullptr) {
        return ".";
    }
    return delimiter == path ? "/" : std::string(path, delimiter);
}

} // namespace

int flushFile(const char* path) {
    return flushToDisk(path, 0);
}

int flushDirectoryOf(const char* path) {
    const std::string directory = directoryOf(path);
    const int error = flushToDisk(directory.c_str(), O_DIRECTORY);
    if (!cannotFlush(error)) {
        return error;
    }
    DB_TraceExt("flushDirectoryOf(): directory [%s] cannot be flushed (%d): %s", directory.c_str(),
                error, std::strerror(error));
    return 0;
}
