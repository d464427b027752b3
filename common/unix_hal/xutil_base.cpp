#include "common/xutil.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>

namespace {

constexpr mode_t kDirectoryMode = 0775;

bool isDirectory(const char* path) {
    const ENUM_STAT kind = x_Stat(path);
    return kind == X_STAT_DIR || kind == X_STAT_DRIVE;
}

// A directory that another process made in the meantime is as good as one of our own.
bool makeDirectory(const char* path) {
    return isDirectory(path) || x_CreateDir(path) == 0 || (errno == EEXIST && isDirectory(path));
}

} // namespace

int x_MakeDirBranch(char* I_cpDir) {
    const char cDelimiter = std::strchr(I_cpDir, '\\') != nullptr  ? '\\'
                            : std::strchr(I_cpDir, '/') != nullptr ? '/'
                                                                   : '\0';
    char* cursor = I_cpDir;
    if (cDelimiter != '\0' && *cursor == cDelimiter) {
        ++cursor;
    }
    for (;;) {
        char* const end = cDelimiter == '\0' ? nullptr : std::strchr(cursor, cDelimiter);
        if (end != nullptr) {
            *end = '\0';
        }
        if (!makeDirectory(I_cpDir)) {
            return -1;
        }
        if (end == nullptr) {
            return 0;
        }
        *end = cDelimiter;
        cursor = end;
        while (*cursor == cDelimiter) {
            ++cursor;
        }
    }
}

int x_CreateDir(const char* path) {
    if (mkdir(path, kDirectoryMode) != 0) {
        return -1;
    }
    chmod(path, kDirectoryMode);
    return 0;
}

ENUM_STAT x_Stat(const char* path) {
    struct stat status;
    if (lstat(path, &status) != 0) {
        return X_STAT_ERROR;
    }
    // A link counts as a directory whatever it points to: branches that lead through linked
    // directories are taken as they are, never created.
    if (S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode)) {
        return X_STAT_DIR;
    }
    return S_ISREG(status.st_mode) ? X_STAT_FILE : X_STAT_ERROR;
}
