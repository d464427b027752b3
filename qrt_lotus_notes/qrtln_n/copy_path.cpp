#include "qrt_lotus_notes/qrtln_n/copy_path.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>

#include "common/bounded_text.h"

bool leadsUpwards(std::string_view path) {
    while (!path.empty()) {
        const std::size_t end = std::min(path.find(kDelimiter), path.size());
        if (path.substr(0, end) == "..") {
            return true;
        }
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return false;
}

const char* relativeDatabaseName(const char* cpDatabase) {
    const std::size_t cut = std::strlen(g_sQRTLN_Global.szNotesDataDirectory);
    if (std::strchr(cpDatabase, kDelimiter) == nullptr || std::strlen(cpDatabase) < cut ||
        leadsUpwards(cpDatabase + cut)) {
        return nullptr;
    }
    return cpDatabase + cut;
}

bool buildCopyPath(const char* cpDatabase, char (&szCopy)[kPathSize]) {
    const char* relative = relativeDatabaseName(cpDatabase);
    if (relative == nullptr) {
        return false;
    }
    if (*g_sQRTLN_Global.szTmpDir == '\0') {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        return false;
    }
    return joinPath(szCopy, sizeof szCopy, g_sQRTLN_Global.szTmpDir, relative);
}

bool isSameFile(const char* cpFirst, const char* cpSecond) {
    struct stat first;
    struct stat second;
    return stat(cpFirst, &first) == 0 && stat(cpSecond, &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}
