#include "qrt_lotus_notes/qrtln_n/durable_copy.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// Makes a file, or a directory's entries, durable. Returns 0 or an error number.
int flushToDisk(const char* path, int flags) {
    const int fd = open(path, flags | O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int error = fsync(fd) == 0 ? 0 : errno;
    close(fd); // nothing was written through it
    return error;
}

std::string directoryOf(const char* path) {
    const char* delimiter = std::strrchr(path, kDelimiter);
    if (delimiter == nullptr) {
        return ".";
    }
    return delimiter == path ? "/" : std::string(path, delimiter);
}

} // namespace

bool copyToDisk(const char* function, const char* cpSource, const char* cpTarget) {
    if (!SysFileCopy(cpSource, cpTarget, FALSE)) {
        return false;
    }
    int error = flushToDisk(cpTarget, 0);
    if (error == 0) {
        error = flushToDisk(directoryOf(cpTarget).c_str(), O_DIRECTORY);
    }
    if (error != 0) {
        DB_TraceExt("%s(): flushing file [%s] to disk failed with errno (%d): %s", function,
                    getUTF8FileName(cpTarget), error, getSysMsg(static_cast<unsigned int>(error)));
    }
    return error == 0;
}

bool isVacant(const char* cpTarget) {
    struct stat status;
    return lstat(cpTarget, &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}
