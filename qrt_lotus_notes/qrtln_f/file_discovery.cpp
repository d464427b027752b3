#include "qrt_lotus_notes/qrtln_f/file_discovery.h"

#include <algorithm>
#include <cerrno>
#include <fnmatch.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/directory_reader.h"
#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_f/path_text.h"
#include "qrt_lotus_notes/qrtln_f/sub_directories.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

struct Pattern {
    const char* szPattern;
    DB_BACKUP_FILE_TYPE eKind;
};

constexpr Pattern kDominoPatterns[] = {
    {"*.nsf", DB_BACKUP_FILE_TYPE_DB},  {"*.ns2", DB_BACKUP_FILE_TYPE_DB},
    {"*.ns3", DB_BACKUP_FILE_TYPE_DB},  {"*.ns4", DB_BACKUP_FILE_TYPE_DB},
    {"*.ns5", DB_BACKUP_FILE_TYPE_DB},  {"*.ntf", DB_BACKUP_FILE_TYPE_DB},
    {"*.ncf", DB_BACKUP_FILE_TYPE_DB},  {"*.box", DB_BACKUP_FILE_TYPE_DB},
    {"*.njf", DB_BACKUP_FILE_TYPE_SYS}, {"*.id", DB_BACKUP_FILE_TYPE_SYS},
    {"*.dsk", DB_BACKUP_FILE_TYPE_SYS}, {"*.dic", DB_BACKUP_FILE_TYPE_SYS},
    {"*.cfg", DB_BACKUP_FILE_TYPE_SYS},
};

// The databases among them, which come first.
constexpr std::size_t kDatabasePatterns =
    std::count_if(std::begin(kDominoPatterns), std::end(kDominoPatterns),
                  [](const Pattern& pattern) { return pattern.eKind == DB_BACKUP_FILE_TYPE_DB; });

// Attachment store files: scanned for in a pass of their own, so that they come last.
constexpr Pattern kAttachmentPatterns[] = {{"*.nlo", DB_BACKUP_FILE_TYPE_SYS}};

FifoList makeList(const Pattern* patterns, std::size_t count) {
    FifoList list(CreateFIFOList());
    for (std::size_t i = 0; i < count; ++i) {
        pushPath(list.get(), patterns[i].szPattern, patterns[i].eKind);
    }
    return list;
}

BOOL isBackupLevel(DB_OPERATION_LEVEL level) {
    return level == DB_LEVEL_COPY || level == DB_LEVEL_FULL || level == DB_LEVEL_DIFF ||
           level == DB_LEVEL_INCR;
}

// One call of fillFileList.
struct FileScan {
    FifoList hSubDirList;                // sub-directories still to be scanned, breadth first
    std::vector<std::string> aMatch;     // the match patterns
    bool bMatchAll;                      // every file is taken
    bool bReadsDirectories;              // a backup or recovery; a restore takes names as they are
    bool bReport;                        // log what is left out: not again in a second pass
    char szPatternItem[kPathSize] = "";  // the pattern that sub-directories inherit
    char szFullPattern[kPathSize] = "";  // directory and pattern being scanned
    char szITEM_PATH[kPathSize] = "";    // its directory part
    char szPattern[kPathSize] = "";      // its last component
    char szLastDirPath[kPathSize] = "?"; // the directory last queued
};

enum class Walk { nextDirectory, nextPattern, end };

// Queues the data directory and notes.ini, once for the process.
void queueNotesIni(FileScan& scan) {
    // Kept for the life of the module, not of the operation: a client that runs several backups in
    // one process receives notes.ini with the first of them only.
    static bool bNotesIniAlreadyPushed = false;
    if (bNotesIniAlreadyPushed || g_sQRTLN_Global.eI_OperationType != DB_TYPE_BCK ||
        !isBackupLevel(g_sQRTLN_Global.eI_OperationLevel)) {
        return;
    }
    copyText(scan.szLastDirPath, g_sQRTLN_Global.szNotesDataDirectory);
    char szNotesIni[kPathSize + sizeof "notes.ini"];
    formatText(szNotesIni, sizeof szNotesIni, "%s%s", scan.szLastDirPath, "notes.ini");
    removeTrailingDelimiter(scan.szLastDirPath);
    pushPath(g_sQRTLN_Global.lhNotesFileList, scan.szLastDirPath, DB_BACKUP_FILE_TYPE_SYS);
    if (!IsValidPattern(szNotesIni)) {
        DB_LogExt("Could not find file %s", szNotesIni);
    }
    pushPath(g_sQRTLN_Global.lhNotesFileList, szNotesIni, DB_BACKUP_FILE_TYPE_SYS);
    bNotesIniAlreadyPushed = true;
}

// Gives a directory its pattern: the one it inherits or, without one, "*.*" (which matches only
// names with a dot). False when the result does not fit.
bool addPatternToDirectory(FileScan& scan) {
    removeTrailingDelimiter(scan.szFullPattern);
    struct stat status;
    if (stat(scan.szFullPattern, &status) != 0) {
        // A pattern, in most cases; a directory that cannot be examined would be taken for one.
        if (scan.bReadsDirectories && (errno == EACCES || errno == EIO || errno == ENOMEM)) {
            // Not run by a test: the long form of the failing calls does.
            tellLeftOut("fillFileList", scan.szFullPattern, errno);
        }
        return true;
    }
    if (!S_ISDIR(status.st_mode)) {
        return true;
    }
    const bool bInherits = std::strchr(scan.szPatternItem, '*') != nullptr;
    const char* cpLast = "*.*";
    if (bInherits) {
        const char* delimiter = std::strrchr(scan.szPatternItem, kDelimiter);
        cpLast = delimiter ? delimiter + 1 : scan.szPatternItem;
    }
    char szJoined[kPathSize];
    if (!formatText(szJoined, sizeof szJoined, "%s%c%s", scan.szFullPattern, kDelimiter, cpLast)) {
        if (scan.bReport) {
            DB_LogExt("fillFileList(): the path of [%s] is too long for its files, skipped",
                      scan.szFullPattern);
        }
        return false;
    }
    copyText(scan.szFullPattern, szJoined);
    if (!bInherits) {
        copyText(scan.szPatternItem, szJoined);
    }
    return true;
}

// Splits the pattern at its last delimiter; without one the current directory is meant.
bool splitPattern(FileScan& scan) {
    const char* delimiter = std::strrchr(scan.szFullPattern, kDelimiter);
    copyText(scan.szPattern, delimiter ? delimiter + 1 : scan.szFullPattern);
    if (delimiter == nullptr) {
        return getcwd(scan.szITEM_PATH, sizeof scan.szITEM_PATH) != nullptr;
    }
    copyText(scan.szITEM_PATH, scan.szFullPattern);
    scan.szITEM_PATH[delimiter - scan.szFullPattern] = '\0';
    return true;
}

// What a directory that cannot be opened means for the scan.
Walk classifyOpenError(const FileScan& scan, int error) {
    tellLeftOut("fillFileList", scan.szITEM_PATH, error);
    switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        DB_TraceExt("fillFileList(): opendir failed with fatal errno (%d): %s", error,
                    std::strerror(error));
        return Walk::nextPattern;
    case EACCES:
    case ENOENT:
    case ENOTDIR:
        DB_TraceExt("fillFileList(): opendir failed with errno (%d): %s > go on with next item",
                    error, std::strerror(error));
        return Walk::nextDirectory;
    default:
        DB_TraceExt("fillFileList(): opendir failed with errno (%d): %s > exit", error,
                    std::strerror(error));
        return Walk::end;
    }
}

// Reads on to the next entry that matches; false at the end.
bool readMatchingName(const FileScan& scan, DirectoryReader& directory, int iFlags,
                      char (&szName)[kPathSize]) {
    while (const dirent* entry = directory.read()) {
        if (!isDotEntry(entry->d_name) && fnmatch(scan.szPattern, entry->d_name, iFlags) == 0) {
            return copyText(szName, entry->d_name);
        }
    }
    tellNotReadToEnd("fillFileList", scan.szITEM_PATH, errno);
    return false;
}

// Where a relocated restore puts an item: straight into the directory (plain) or below it with its
// whole path.
void relocate(char (&szItem)[kUnmeasuredPathSize]) {
    if (g_sQRTLN_Global.eI_OperationType != DB_TYPE_RST || !*g_sQRTLN_Global.szRelocationDir) {
        return;
    }
    const char* tail = g_sQRTLN_Global.bPlainRestore ? std::strrchr(szItem, kDelimiter)
                                                     : std::strchr(szItem, kDelimiter);
    removeTrailingDelimiter(g_sQRTLN_Global.szRelocationDir);
    char szRelocated[kUnmeasuredPathSize];
    formatText(szRelocated, sizeof szRelocated, "%s%s", g_sQRTLN_Global.szRelocationDir,
               tail ? tail : "");
    copyText(szItem, szRelocated);
}

bool isSelected(const FileScan& scan, const char* item) {
    if (scan.bMatchAll) {
        return true;
    }
    for (const std::string& pattern : scan.aMatch) {
        if (fnmatch(pattern.c_str(), item, FNM_PERIOD | FNM_CASEFOLD) == 0) {
            return true;
        }
    }
    return false;
}

void queueItem(FileScan& scan, const char* item) {
    LIST_INFO* queue = g_sQRTLN_Global.lhNotesFileList;
    if (g_sQRTLN_Global.bRecovery) {
        if (isFileNotesNSF(item)) {
            pushPath(queue, item, DB_BACKUP_FILE_TYPE_DB);
        }
        return;
    }
    if (std::strlen(item) < kPathSize && std::strcmp(scan.szITEM_PATH, scan.szLastDirPath) != 0) {
        copyText(scan.szLastDirPath, scan.szITEM_PATH);
        pushPath(queue, *scan.szITEM_PATH ? scan.szITEM_PATH : "/", DB_BACKUP_FILE_TYPE_SYS);
    }
    // The kind goes by isFileNotesDb, the preparation by isFileNotesNSF: a .ns2 to .ns4 file is
    // prepared like a database but finished like a system file, so that its copy stays in TMP_DIR.
    pushPath(queue, item, isFileNotesDb(item) ? DB_BACKUP_FILE_TYPE_DB : DB_BACKUP_FILE_TYPE_SYS);
}

void takeName(FileScan& scan, const char* name) {
    char szITEM_FULL[kUnmeasuredPathSize];
    formatText(szITEM_FULL, sizeof szITEM_FULL, "%s%c%s", scan.szITEM_PATH, kDelimiter, name);
    relocate(szITEM_FULL);
    // The names are compared first: they decide most entries without asking the file system.
    if (isSelected(scan, szITEM_FULL) && !isDirectory(szITEM_FULL)) {
        queueItem(scan, szITEM_FULL);
    }
}

// Scans the one directory that szFullPattern names.
Walk scanDirectory(FileScan& scan) {
    if (!addPatternToDirectory(scan) || !splitPattern(scan)) {
        return Walk::nextDirectory;
    }
    if (std::strchr(scan.szFullPattern, '*') != nullptr) {
        collectSubDirectories(scan.szFullPattern, scan.szITEM_PATH, scan.hSubDirList.get(),
                              scan.bReport);
    }
    DirectoryReader directory(scan.szITEM_PATH);
    const int iOpenError = errno;
    const bool bOpen = static_cast<bool>(directory);
    char szITEM_NAME[kPathSize] = "";
    if (!scan.bReadsDirectories) {
        copyText(szITEM_NAME, scan.szPattern);
        takeName(scan, szITEM_NAME);
    } else {
        if (!directory) {
            return classifyOpenError(scan, iOpenError);
        }
        // The first match of a directory ignores case, the later ones do not: clients' selections
        // by pattern have always come out so.
        if (!readMatchingName(scan, directory, FNM_PERIOD | FNM_CASEFOLD, szITEM_NAME)) {
            return Walk::nextDirectory;
        }
        do {
            takeName(scan, szITEM_NAME);
        } while (readMatchingName(scan, directory, FNM_PERIOD, szITEM_NAME));
    }
    // In a restore the directory may not exist: that, too, ends the scan.
    if (directory && !directory.close()) {
        DB_LogExt("fillFileList(): closing directory [%s] failed, what follows it cannot be read "
                  "(%d): %s",
                  scan.szITEM_PATH, errno, std::strerror(errno));
        return Walk::end;
    }
    return bOpen ? Walk::nextDirectory : Walk::end;
}

int scanPatterns(LIST_INFO* hFilePatterns, LIST_INFO* hMatchPatterns, bool bReport) {
    FileScan scan{};
    scan.hSubDirList.reset(CreateFIFOList());
    scan.bMatchAll = hMatchPatterns == nullptr;
    scan.bReadsDirectories =
        g_sQRTLN_Global.eI_OperationType == DB_TYPE_BCK || g_sQRTLN_Global.bRecovery;
    scan.bReport = bReport;
    char szMatch[kPathSize];
    unsigned int uiSize = 0;
    for (int i = 1; PullFIFOItemAt(hMatchPatterns, i, szMatch, &uiSize); ++i) {
        scan.aMatch.emplace_back(szMatch);
    }

    queueNotesIni(scan);
    while (pullPath(hFilePatterns, scan.szPatternItem)) {
        copyText(scan.szFullPattern, scan.szPatternItem);
        Walk walk = Walk::nextDirectory;
        do {
            walk = scanDirectory(scan);
        } while (walk == Walk::nextDirectory &&
                 pullPath(scan.hSubDirList.get(), scan.szFullPattern));
        if (walk == Walk::end) {
            break;
        }
    }
    return DB_NUM_I_OK;
}

} // namespace

int getNotesFileList(const char* cpDirectoryPattern, DB_OPERATION_LEVEL e_OperationLevel) {
    const bool bBackup = isBackupLevel(e_OperationLevel) && !g_sQRTLN_Global.bRecovery;
    FifoList directories(CreateFIFOList());
    pushPath(directories.get(), cpDirectoryPattern, DB_BACKUP_FILE_TYPE_DB);
    // Without patterns the match list is empty, not absent, and matches nothing: so it is in every
    // recovery that does not choose otherwise.
    std::size_t count = bBackup ? std::size(kDominoPatterns) : 0;
    if (g_sQRTLN_Global.sRecoveryChoices.bSearchesForDatabases) {
        count = kDatabasePatterns;
    }
    FifoList patterns = makeList(kDominoPatterns, count);
    scanPatterns(directories.get(), patterns.get(), true);

    // Attachment store files come after every other file, and never with an incremental backup.
    if (bBackup && e_OperationLevel != DB_LEVEL_INCR) {
        pushPath(directories.get(), cpDirectoryPattern, DB_BACKUP_FILE_TYPE_DB);
        patterns = makeList(kAttachmentPatterns, std::size(kAttachmentPatterns));
        scanPatterns(directories.get(), patterns.get(), false);
    }

    // Asked of the whole queue: what earlier calls found counts too.
    LIST_INFO* queue = g_sQRTLN_Global.lhNotesFileList;
    if (queue != nullptr && queue->iItemCount > 0) {
        return DB_NUM_I_OK;
    }
    DB_TraceExt("getNotesFileList(): the file list is empty");
    DB_ErrHandler(0, kErrorKindNone,
                  "getNotesFileList(): There are no files matching requested patterns");
    return DB_NUM_E_FAILED;
}

int getParticularFileList(LIST_INFO* _lhListIncludePatterns) {
    return fillFileList(_lhListIncludePatterns, nullptr) == DB_NUM_E_FAILED ? DB_NUM_E_FAILED
                                                                            : DB_NUM_I_OK;
}

int fillFileList(LIST_INFO* hFilePatterns, LIST_INFO* hMatchPatterns) {
    return scanPatterns(hFilePatterns, hMatchPatterns, true);
}

BOOL IsValidPattern(const char* cpPattern) {
    char szDirectory[kPathSize];
    const char* cpName = cpPattern;
    if (const char* delimiter = std::strrchr(cpPattern, kDelimiter)) {
        const std::size_t length = static_cast<std::size_t>(delimiter - cpPattern);
        if (length >= sizeof szDirectory) {
            return FALSE;
        }
        copyText(szDirectory, length + 1, cpPattern);
        cpName = delimiter + 1;
    } else {
        DB_TraceExt("IsValidPattern(): Pattern [%s] does not contain a valid path", cpPattern);
        copyText(szDirectory, g_sQRTLN_Global.szNotesDataDirectory);
        removeTrailingDelimiter(szDirectory);
    }
    DirectoryReader directory(szDirectory);
    if (!directory) {
        return FALSE;
    }
    while (const dirent* entry = directory.read()) {
        if (fnmatch(cpName, entry->d_name, FNM_PERIOD) == 0) {
            return TRUE;
        }
    }
    if (g_sQRTLN_Global.eI_OperationType == DB_TYPE_RST && !g_sQRTLN_Global.bRecovery) {
        DB_TraceExt("IsValidPattern(): Restore target: [%s] does not exist on file system",
                    cpPattern);
        return TRUE;
    }
    return FALSE;
}

std::string relocatedName(const char* cpItem) {
    char szItem[kUnmeasuredPathSize];
    copyText(szItem, cpItem);
    relocate(szItem);
    return szItem;
}
