#include "qrt_lotus_notes/qrtln_u/argument_paths.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>

#include <dirent.h>
#include <fnmatch.h>
#include <strings.h>
#include <sys/stat.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/local_time.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

constexpr char kArgumentKeyword[] = "DATABASE";
constexpr char kWholeSystem[] = "NOTES";

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// The value behind the keyword and its separator; an argument may also be the value alone.
const char* valueOfArgument(const char* arg) {
    constexpr std::size_t kKeywordLength = sizeof kArgumentKeyword - 1;
    if (std::strncmp(arg, kArgumentKeyword, kKeywordLength) != 0) {
        return arg;
    }
    return arg + kKeywordLength + (arg[kKeywordLength] == '\0' ? 0 : 1);
}

void removeTrailingDelimiter(char* path) {
    const std::size_t length = std::strlen(path);
    if (length > 0 && path[length - 1] == kDelimiter) {
        path[length - 1] = '\0';
    }
}

// Whether some entry of the pattern's directory matches its last component. False with a trace,
// too, when the directory cannot be read.
bool patternMatchesSomething(const char* pattern) {
    char szDirectory[kPathSize];
    copyText(szDirectory, pattern);
    char* const delimiter = std::strrchr(szDirectory, kDelimiter);
    const char* name = pattern;
    if (delimiter == nullptr) {
        copyText(szDirectory, ".");
    } else {
        name += delimiter - szDirectory + 1;
        delimiter[delimiter == szDirectory ? 1 : 0] = '\0';
    }
    const Directory directory(opendir(szDirectory));
    if (directory == nullptr) {
        DB_TraceExt("handleRelativeArguments(): opendir failed with errno [%d]", errno);
        return false;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 &&
            fnmatch(name, entry->d_name, FNM_PERIOD) == 0) {
            return true;
        }
    }
    DB_TraceExt("handleRelativeArguments(): File [%s] is not accessible", pattern);
    return false;
}

bool hasExtension(const char* name, std::initializer_list<const char*> extensions) {
    constexpr std::size_t kExtensionLength = 4;
    const std::size_t length = std::strlen(name);
    if (length <= kExtensionLength) {
        return false;
    }
    for (const char* extension : extensions) {
        if (strcasecmp(name + length - kExtensionLength, extension) == 0) {
            return true;
        }
    }
    return false;
}

bool hasDriveLetter(const char* path) {
    return path[0] != '\0' && path[1] == ':';
}

} // namespace

int handleRelativeArguments(const char* arg, char* out) {
    const char* const value = valueOfArgument(arg);
    if (*value == '\0' || strcasecmp(value, "all") == 0 || strcasecmp(value, kWholeSystem) == 0) {
        copyText(out, kPathSize, kWholeSystem);
        DB_TraceExt("handleRelativeArguments(): Return full path: [%s]", out);
        return 0;
    }

    // The text that the previous call left in `out` comes first: an argument that exists hides
    // those after it in the same buffer. Clients count on it, or write their arguments around it.
    removeTrailingDelimiter(out);
    if (SysFileExists(out)) {
        DB_TraceExt("handleRelativeArguments(): Full database argument file path: [%s]", out);
        return 0;
    }

    // The data directory goes before absolute paths, too.
    if (!formatText(out, kPathSize, "%s%s", g_sQRTLN_Global.szNotesDataDirectory, value)) {
        // A path cut short would name something else.
        DB_LogExt("handleRelativeArguments(): the path is longer than %d bytes and is skipped: "
                  "%s%s",
                  static_cast<int>(kPathSize - 1), g_sQRTLN_Global.szNotesDataDirectory, value);
        *out = '\0';
        return 0;
    }
    if (SysFileExists(out)) {
        DB_TraceExt("handleRelativeArguments(): Argument file is relative to LN DATA directory");
    } else if (std::strchr(value, '*') != nullptr && !patternMatchesSomething(out)) {
        DB_TraceExt("Could not find file %s", out);
        copyText(out, kPathSize, value);
        return 0;
    }
    DB_TraceExt("handleRelativeArguments(): Return full path: [%s]", out);
    return 0;
}

int ifMatchPattern(const char* path, LIST_INFO* patterns) {
    int items = 0;
    int matches = 0;
    if (patterns != nullptr) {
        char cpPatternItem[kPathSize];
        unsigned int size = 0;
        // The walk goes to the end also after a match: only that sets the shared cursor back.
        while (ListFIFOItem(patterns, cpPatternItem, &size)) {
            ++items;
            if (matches != 0) {
                continue;
            }
            DB_TraceExt("ifMatchPattern: pattern list item [%d] szFullPattern [%s]", items,
                        cpPatternItem);
            DB_TraceExt("ifMatchPattern: cpPatternItem [%s] cpFullPathSection [%s]", cpPatternItem,
                        path);
            // Without flags "*" matches "/" as well: a directory's pattern covers the files of its
            // subdirectories.
            matches = fnmatch(cpPatternItem, path, 0) == 0 ? 1 : 0;
        }
        if (items == 0) {
            DB_TraceExt("ifMatchPattern: empty list");
        }
    }
    const int result = items == 0 ? 1 : matches;
    DB_TraceExt("ifMatchPattern: return [%s]", result != 0 ? "TRUE" : "FALSE");
    return result;
}

int isDatabaseForRecovery(const char* name) {
    LIST_INFO* const list = g_sQRTLN_Global.lhNotesFileList;
    char szItem[kPathSize];
    unsigned int size = 0;
    int found = 0;
    for (int number = 1; ListFIFOItem(list, szItem, &size); ++number) {
        if (std::strcmp(szItem, name) == 0) {
            found = number;
        }
    }
    // It leaves the queue, so that a database named twice is recovered once.
    return found != 0 && DeleteFIFOItemAt(list, found) ? 1 : 0;
}

int isFullIncrementalRestore() {
    return isIncrementalRestore() && g_sQRTLN_Global.eI_BackupType == QRTLN_OPERATION_TYPE_NOTES;
}

int isIncrementalRestore() {
    return g_sQRTLN_Global.eI_OperationType == DB_TYPE_RST &&
           g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_INCR;
}

void getFileName(const char* path, char* out) {
    const char* const delimiter = std::strrchr(path, kDelimiter);
    if (delimiter == nullptr) {
        copyText(out, kPathSize, path);
    } else {
        copyText(out, kPathSize, delimiter[1] == '\0' ? "/" : delimiter + 1);
    }
}

int getCurrentTime(char* day, char* month, char* year, char* hour, char* minute) {
    constexpr std::size_t kNumberSize = 12;
    struct tm local = {};
    if (!localFieldsOf(std::time(nullptr), local)) {
        // Not run by a test: libc and the kernel do not fail so with these arguments.
        return 0;
    }
    std::snprintf(day, kNumberSize, "%02d", local.tm_mday);
    std::snprintf(month, kNumberSize, "%02d", local.tm_mon + 1);
    std::snprintf(year, kNumberSize, "%d", local.tm_year + 1900);
    std::snprintf(hour, kNumberSize, "%02d", local.tm_hour);
    std::snprintf(minute, kNumberSize, "%02d", local.tm_min);
    return 1;
}

int isFileNewer(const char* path, time_t t) {
    struct stat status;
    if (stat(path, &status) != 0) {
        DB_LogExt("isFileNewer(): stat [%s] failed with errno [%d]", path, errno);
        return 1;
    }
    if (status.st_mtime < t && status.st_ctime < t) {
        return 0;
    }
    if (isTracing()) {
        char szTime[64];
        const char* const text = ctime_r(&t, szTime);
        DB_TraceExt("isFileNewer(): [%s] file is newer than %s", path, text == nullptr ? "" : text);
    }
    return 1;
}

int isFileNotesDb(const char* name) {
    return hasExtension(name, {".nsf", ".ntf", ".ncf", ".box"});
}

int isFileNotesNSF(const char* name) {
    return hasExtension(name, {".nsf", ".ns2", ".ns3", ".ns4", ".ntf", ".box"});
}

int isFileNotesNTF(const char* name) {
    return hasExtension(name, {".ntf"});
}

int isFileNotesTXN(const char* name) {
    return hasExtension(name, {".txn"});
}

void AdaptDriveLetter(char* target, const char* source) {
    if (!hasDriveLetter(target) && !hasDriveLetter(source)) {
        return;
    }
    const auto targetLetter = static_cast<unsigned char>(*target);
    const auto sourceLetter = static_cast<unsigned char>(*source);
    if (std::islower(sourceLetter) != 0 && std::isupper(targetLetter) != 0) {
        // Not run by a test: drive letters are of other platforms.
        *target = static_cast<char>(std::tolower(targetLetter));
    } else if (std::isupper(sourceLetter) != 0 && std::islower(targetLetter) != 0) {
        // Not run by a test: likewise.
        *target = static_cast<char>(std::toupper(targetLetter));
    }
}
