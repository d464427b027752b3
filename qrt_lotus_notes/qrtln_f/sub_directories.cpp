#include "qrt_lotus_notes/qrtln_f/sub_directories.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/directory_reader.h"
#include "qrt_lotus_notes/qrtln_f/path_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// Whether the link at `directory`/name leads back to a directory on its own path: entering it would
// never end.
bool isOwnAncestor(const char* directory, const struct stat& target) {
    char szAncestor[kPathSize];
    copyText(szAncestor, directory);
    removeTrailingDelimiter(szAncestor);
    for (;;) {
        struct stat status;
        if (stat(*szAncestor ? szAncestor : "/", &status) == 0 && status.st_dev == target.st_dev &&
            status.st_ino == target.st_ino) {
            return true;
        }
        char* delimiter = std::strrchr(szAncestor, kDelimiter);
        if (delimiter == nullptr) {
            return false; // that was the root, or the first component of a relative path
        }
        *delimiter = '\0';
    }
}

// Whether an entry of a directory is a directory that is to be entered. What cannot be examined,
// and a link that would never end, is logged and is not.
bool isToBeEntered(const char* directory, const char* path, bool bReport) {
    struct stat status;
    if (stat(path, &status) != 0) {
        const int error = errno;
        DB_LogExt("getSubDirectories(): stat() for [%s] returned error (%d): %s", path, error,
                  std::strerror(error));
        // A link that leads nowhere is none of these.
        if (error != ELOOP) {
            tellLeftOut("getSubDirectories", path, error);
        }
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        return false;
    }
    struct stat link;
    if (lstat(path, &link) == 0 && S_ISLNK(link.st_mode) && isOwnAncestor(directory, status)) {
        if (bReport) {
            DB_LogExt("getSubDirectories(): [%s] is a symbolic link to a directory that holds "
                      "it and is not entered again",
                      path);
        }
        return false;
    }
    return true;
}

} // namespace

int collectSubDirectories(const char* cpFullPattern, const char* cpITEM_PATH,
                          LIST_INFO* _lhSubDirList, bool bReport) {
    char szDirectory[kPathSize + 1];
    copyText(szDirectory, cpFullPattern);
    if (char* delimiter = std::strrchr(szDirectory, kDelimiter)) {
        delimiter[1] = '\0';
    } else {
        formatText(szDirectory, sizeof szDirectory, "%s%c", cpITEM_PATH, kDelimiter);
    }
    DirectoryReader directory(szDirectory);
    if (!directory) {
        tellLeftOut("getSubDirectories", szDirectory, errno);
        return DB_NUM_E_FAILED;
    }
    const dirent* entry = nullptr;
    while ((entry = directory.read()) != nullptr) {
        // Where the file system says what an entry is, a file is not asked for: most entries are.
        if (isDotEntry(entry->d_name) || entry->d_type == DT_REG) {
            continue;
        }
        char szPath[kUnmeasuredPathSize];
        formatText(szPath, sizeof szPath, "%s%s", szDirectory, entry->d_name);
        if (isToBeEntered(szDirectory, szPath, bReport) &&
            (std::strlen(szPath) < kPathSize || bReport)) {
            pushPath(_lhSubDirList, szPath, DB_BACKUP_FILE_TYPE_DB);
        }
    }
    tellNotReadToEnd("getSubDirectories", szDirectory, errno);
    return DB_NUM_I_OK;
}

int getSubDirectories(const char* cpFullPattern, const char* cpITEM_PATH,
                      LIST_INFO* _lhSubDirList) {
    return collectSubDirectories(cpFullPattern, cpITEM_PATH, _lhSubDirList, true);
}

void getDatabasesIn(const char* cpDirectory, LIST_INFO* _lhDatabases) {
    DirectoryReader directory(cpDirectory);
    if (!directory) {
        tellLeftOut("getDatabasesIn", cpDirectory, errno);
        return;
    }
    const dirent* entry = nullptr;
    while ((entry = directory.read()) != nullptr) {
        char szPath[kUnmeasuredPathSize];
        formatText(szPath, sizeof szPath, "%s%c%s", cpDirectory, kDelimiter, entry->d_name);
        struct stat status;
        if (!isFileNotesNSF(entry->d_name)) {
            continue;
        }
        if (stat(szPath, &status) != 0) {
            // Not run by a test: the long form of the failing calls does.
            if (errno != ENOENT) {
                DB_LogExt("getDatabasesIn(): [%s] cannot be read and is left out (%d): %s", szPath,
                          errno, std::strerror(errno));
            }
        } else if (S_ISREG(status.st_mode)) {
            pushPath(_lhDatabases, szPath, DB_BACKUP_FILE_TYPE_DB);
        }
    }
    tellNotReadToEnd("getDatabasesIn", cpDirectory, errno);
}
