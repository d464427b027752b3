#include "qrt_lotus_notes/qrtln_f/restore_placement.h"

#include <algorithm>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_f/file_discovery.h"
#include "qrt_lotus_notes/qrtln_f/path_text.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// Clients with paths of another platform put this before an absolute path.
constexpr char kLongPathPrefix[] = "\\\\?\\";

// The part after the last delimiter, or all of it.
const char* lastComponent(const char* path) {
    const char* delimiter = std::strrchr(path, kDelimiter);
    return delimiter != nullptr ? delimiter + 1 : path;
}

bool isWholeSystem() {
    return g_sQRTLN_Global.eI_BackupType == QRTLN_OPERATION_TYPE_NOTES;
}

// Decides what a whole-system argument means at this level.
int startWholeSystem() {
    switch (g_sQRTLN_Global.eI_OperationLevel) {
    case DB_LEVEL_COPY:
    case DB_LEVEL_FULL:
        DB_TraceExt("QRTLN_InitRestore(): Full Lotus Notes System restore.");
        break;
    case DB_LEVEL_INCR:
        DB_TraceExt("QRTLN_InitRestore(): Last backed up transaction logs restore.");
        break;
    default:
        DB_ErrHandler(0, kErrorKindNone, "QRTLN_InitRestore(): Unknown Full restore level.");
        return DB_NUM_E_FAILED;
    }
    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_NOTES;
    DB_TraceExt("QRTLN_InitRestore(): Got QRTLN:NOTES so every item will be restored!");
    return DB_NUM_I_OK;
}

// Notes one argument of a restore of particular items.
void takeParticular(const char* cpArgument, FifoList& lhListIncludePatterns) {
    if (isIncrementalRestore()) {
        pushPath(g_sQRTLN_Global.lhNotesFileList, cpArgument, DB_BACKUP_FILE_TYPE_LOG);
        return;
    }
    if (!lhListIncludePatterns) {
        lhListIncludePatterns.reset(CreateFIFOList());
    }
    if (!IsValidPattern(cpArgument)) {
        DB_TraceExt("QRTLN_InitRestore(): Pattern does not assign any existing file: [%s]",
                    cpArgument);
        return;
    }
    pushPath(lhListIncludePatterns.get(), cpArgument, DB_BACKUP_FILE_TYPE_DB);
}

// --- Directories ---

// What follows the data directory and one character in a directory that begins with it, else
// nullptr. The data directory is compared as a string: "/data2/m" counts as below "/data", by
// contract, and so clients refuse such targets themselves. `skipped` characters at the start belong
// to no path.
const char* partBelowDataDirectory(const char* cpDirectory, std::size_t skipped) {
    std::size_t length = std::strlen(g_sQRTLN_Global.szNotesDataDirectory);
    if (endsWithDelimiter(g_sQRTLN_Global.szNotesDataDirectory)) {
        --length;
    }
    const char* cpPath = cpDirectory + skipped;
    if (OSStrnCmpDir(g_sQRTLN_Global.szNotesDataDirectory, cpPath, static_cast<int>(length)) != 0) {
        return nullptr;
    }
    const char* cpBehind = cpPath + length;
    return *cpBehind == '\0' ? cpBehind : cpBehind + 1;
}

int refuseDirectory(const char* cpDirectory, const char* why) {
    DB_ErrHandler(0, kErrorKindNone, "QRTLN_SetDirectory(): %s: [%s]", why,
                  getUTF8FileName(cpDirectory));
    return DB_NUM_E_FAILED;
}

// Keeps the structure below the data directory inside the temporary directory.
int placeInternalDirectory(char* cpDirectory, std::size_t skipped, const char* cpRelative) {
    if (leadsUpwards(cpRelative)) {
        return refuseDirectory(cpDirectory, "directory path is not valid");
    }
    const char* szTmpDir = g_sQRTLN_Global.szTmpDir;
    char szTarget[kPathSize];
    if (!formatText(szTarget, sizeof szTarget, "%s%s%s%s", skipped > 0 ? kLongPathPrefix : "",
                    szTmpDir, endsWithDelimiter(szTmpDir) ? "" : "/", cpRelative)) {
        return refuseDirectory(cpDirectory, "directory path is too long below TMP_DIR");
    }
    removeTrailingDelimiter(szTarget);
    copyText(cpDirectory, kPathSize, szTarget);
    DB_TraceExt("QRTLN_SetDirectory(): Using TEMPORARY directory [%s] as TARGET directory. "
                "Waiting for ACTIVATION or RECOVERY",
                getUTF8FileName(cpDirectory));
    return DB_NUM_I_OK;
}

// --- Files: where a database is placed ---

int refuseInvalid(const char* cpFile) {
    DB_ErrHandler(0, kErrorKindNone, "QRTLN_SetFile(): File full path [%s] is not valid.",
                  getUTF8FileName(cpFile));
    return DB_NUM_E_FAILED;
}

int refuseTooLong(const char* cpFile, std::size_t size) {
    DB_ErrHandler(0, kErrorKindNone, "QRTLN_SetFile(): File full path [%s] is too long: %d > %d",
                  getUTF8FileName(cpFile), static_cast<int>(size), static_cast<int>(kPathSize));
    return DB_NUM_E_FAILED;
}

// Creates the directory branch of a file.
int createBranchOf(const char* cpFile) {
    char szBranch[kPathSize];
    copyText(szBranch, cpFile);
    char* delimiter = std::strrchr(szBranch, kDelimiter);
    if (delimiter == nullptr || delimiter == szBranch) {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        return DB_NUM_I_OK; // the root is there
    }
    *delimiter = '\0';
    const int error = SysFileCreateDirectory(szBranch);
    if (error == 0) {
        return DB_NUM_I_OK;
    }
    DB_ErrHandler(0, kErrorKindNone, "%s", getSysMsg(static_cast<unsigned int>(error)));
    return DB_NUM_E_FAILED;
}

// Rewrites the path of a database to TMP_DIR joined with its relative name, the path less `cut`
// characters: those of the data directory, or of TMP_DIR, which the prefix is not compared with.
int relocate(char* cpFile, std::size_t cut) {
    const char* szTmpDir = g_sQRTLN_Global.szTmpDir;
    const char* delimiter = std::strrchr(cpFile, kDelimiter);
    if (delimiter == nullptr || *szTmpDir == '\0') {
        return refuseInvalid(cpFile);
    }
    // Only the last component is weighed, and its delimiter always counted: clients meet this
    // limit, and its number in the text, at TMP_DIRs of the same length as ever.
    const std::size_t weighed = std::strlen(szTmpDir) + std::strlen(delimiter) + 1;
    if (weighed > kPathSize) {
        return refuseTooLong(cpFile, weighed);
    }
    if (std::strlen(cpFile) < cut || leadsUpwards(cpFile + cut)) {
        return refuseInvalid(cpFile);
    }
    char szTarget[kPathSize];
    const char* joint = endsWithDelimiter(szTmpDir) ? "" : "/";
    if (!formatText(szTarget, sizeof szTarget, "%s%s%s", szTmpDir, joint, cpFile + cut)) {
        return refuseTooLong(cpFile, std::strlen(szTmpDir) + std::strlen(joint) +
                                         std::strlen(cpFile + cut) + 1);
    }
    // Rewritten first: whatever fails from here on is told of the place under TMP_DIR.
    copyText(cpFile, kPathSize, szTarget);
    return createBranchOf(szTarget);
}

int placeDatabase(char* cpFile) {
    const char* szDataDirectory = g_sQRTLN_Global.szNotesDataDirectory;
    const std::size_t dataLength = std::strlen(szDataDirectory);
    if (OSStrnCmpDir(szDataDirectory, cpFile, static_cast<int>(dataLength)) == 0) {
        DB_LogExt("Avoid writing NSF file [%s] under notes data directory",
                  getUTF8FileName(cpFile));
        return relocate(cpFile, dataLength);
    }
    DB_LogExt("Target path of NSF file [%s] is not under Notes Data directory [%s]",
              getUTF8FileName(cpFile), getUTF8FileName(szDataDirectory));
    if (g_sQRTLN_Global.bRecovery) {
        DB_LogExt("Recovery is requested so first restore file under temp diretory [%s]",
                  getUTF8FileName(g_sQRTLN_Global.szTmpDir));
    } else if (g_sQRTLN_Global.bActivate) {
        DB_LogExt("Activation is requested so first restore file under temp diretory [%s]",
                  getUTF8FileName(g_sQRTLN_Global.szTmpDir));
    } else {
        DB_TraceExt("QRTLN_SetFile(): Do not change NSF file path.");
        return DB_NUM_I_OK;
    }
    return relocate(cpFile, std::strlen(g_sQRTLN_Global.szTmpDir));
}

// --- Files: whether one is restored ---

// Which of the six ways selected the file, by the number that its trace line has; none skips it.
enum class Selected {
    none = 0,
    transactionLog = 1,
    sameName = 2,
    wholeSystem = 3,
    listed = 4,
    listedBelowRoot = 5,
    inOriginalDirectory = 6,
};

// Looks for an entry with the file's name, from where the last search found its own. The cursor is
// left there on purpose: files come in the order of the list, so a restore finds each of several
// entries of one name in its turn. A search that reaches the end skips its file and starts afresh.
bool findSameName(const char* szFile) {
    char szName[kPathSize];
    copyText(szName, lastComponent(szFile));
    str_upper(szName);
    char szEntry[kPathSize];
    unsigned int uiSize = 0;
    while (ListFIFOItem(g_sQRTLN_Global.lhNotesFileList, szEntry, &uiSize)) {
        char szEntryName[kPathSize];
        copyText(szEntryName, lastComponent(szEntry));
        if (std::strcmp(str_upper(szEntryName), szName) == 0) {
            return true;
        }
    }
    return false;
}

// The end of the file's path that an entry is compared with when the file is announced where it is
// written to: what follows as many characters as the root has. nullptr when the root, the
// relocation or the temporary directory, is not in the path.
const char* partBehindRoot(const char* szFile) {
    const char* root = *g_sQRTLN_Global.szRelocationDir != '\0' ? g_sQRTLN_Global.szRelocationDir
                                                                : g_sQRTLN_Global.szTmpDir;
    return std::strstr(szFile, root) != nullptr ? szFile + std::strlen(root) : nullptr;
}

bool endsWith(const char* text, const char* end) {
    const std::size_t length = std::strlen(text);
    const std::size_t endLength = std::strlen(end);
    return length >= endLength && std::strcmp(text + length - endLength, end) == 0;
}

// Looks for the file itself, or for its part behind the root at an entry's end. The walk goes to
// the end also after a match: only that sets the shared cursor back.
Selected findListed(const char* szFile) {
    Selected selected = Selected::none;
    const char* cpBehindRoot = partBehindRoot(szFile);
    char szEntry[kPathSize];
    unsigned int uiSize = 0;
    while (ListFIFOItem(g_sQRTLN_Global.lhNotesFileList, szEntry, &uiSize)) {
        if (selected != Selected::none) {
            continue;
        }
        if (std::strcmp(szEntry, szFile) == 0) {
            selected = Selected::listed;
        } else if (cpBehindRoot != nullptr && endsWith(szEntry, cpBehindRoot)) {
            selected = Selected::listedBelowRoot;
        }
    }
    return selected;
}

// Whether the file's name in the directory announced last matches the list.
bool matchesInOriginalDirectory(const char* szFile, const char* cpOriginalDir) {
    char szOriginal[kPathSize];
    if (!joinPath(szOriginal, sizeof szOriginal, cpOriginalDir, lastComponent(szFile))) {
        DB_LogExt("QRTLN_SetFile(): the path of [%s] in [%s] is too long, it is not restored",
                  lastComponent(szFile), cpOriginalDir);
        return false;
    }
    return ifMatchPattern(szOriginal, g_sQRTLN_Global.lhNotesFileList) != 0;
}

Selected select(const char* szFile, const char* cpOriginalDir) {
    if (isFullIncrementalRestore()) {
        if (isFileNotesTXN(szFile)) {
            return Selected::transactionLog;
        }
        DB_TraceExt("QRTLN_SetFile(): Restore file is not transaction log file: [%s]",
                    getUTF8FileName(szFile));
        return Selected::none;
    }
    Selected selected = Selected::none;
    if (isIncrementalRestore()) {
        selected = findSameName(szFile) ? Selected::sameName : Selected::none;
    } else if (isWholeSystem()) {
        // The list is empty then, and an empty list matches everything.
        selected = ifMatchPattern(szFile, g_sQRTLN_Global.lhNotesFileList) != 0
                       ? Selected::wholeSystem
                       : Selected::none;
    } else {
        selected = findListed(szFile);
        if (selected == Selected::none && matchesInOriginalDirectory(szFile, cpOriginalDir)) {
            selected = Selected::inOriginalDirectory;
        }
    }
    if (selected == Selected::none) {
        DB_TraceExt("QRTLN_SetFile(): [%s] NOT MATCHES input arguments. Skipping restore ...",
                    getUTF8FileName(szFile));
    }
    return selected;
}

} // namespace

int QRTLN_InitRestore() {
    const ArgumentListRelease release;
    // An incremental restore that an earlier operation left in the middle of its list must not make
    // the first search of this one start there: the queue is empty yet, so this sets the cursor
    // back.
    FIFOItemExists(g_sQRTLN_Global.lhNotesFileList, "");

    // Only an argument that says so makes it the whole system.
    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_PARTICULAR;
    FifoList lhListIncludePatterns;
    char szArgument[kPathSize];
    unsigned int uiSize = 0;
    DB_BACKUP_FILE_TYPE eKind = DB_BACKUP_FILE_TYPE_DB;
    while (PullFIFOItemLN(g_sQRTLN_Global.lhArgumentFileList, szArgument, &uiSize, &eKind)) {
        const char* cpArgument = withoutArgumentPrefix(szArgument);
        if (isWholeSystemArgument(cpArgument)) {
            return startWholeSystem(); // the arguments behind it are not looked at
        }
        takeParticular(cpArgument, lhListIncludePatterns);
    }

    const int result = getParticularFileList(lhListIncludePatterns.get());
    if (getFIFOItemNumber(g_sQRTLN_Global.lhNotesFileList) == 0 && !isFullIncrementalRestore()) {
        DB_ErrHandler(0, kErrorKindNone,
                      "QRTLN_InitRestore: ERROR: No files found which match input QRT arguments");
        return DB_NUM_E_FAILED;
    }
    return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}

int QRTLN_SetDirectory(char* cpDirectory) {
    if (isIncrementalRestore()) {
        DB_TraceExt("QRTLN_SetDirectory(): For full incremental restore, keep original directory "
                    "as target: [%s]",
                    getUTF8FileName(cpDirectory));
        return DB_NUM_I_OK;
    }
    const bool bRelocated = *g_sQRTLN_Global.szRelocationDir != '\0';
    if (isWholeSystem() && !bRelocated) {
        DB_TraceExt("QRTLN_SetDirectory(): For Whole Lotus Notes System Restore, keep original "
                    "directory as target: [%s]",
                    getUTF8FileName(cpDirectory));
        return DB_NUM_I_OK;
    }

    const std::size_t skipped =
        startsWith(cpDirectory, kLongPathPrefix) ? sizeof kLongPathPrefix - 1 : 0;
    const char* cpRelative = partBelowDataDirectory(cpDirectory, skipped);
    if (cpRelative == nullptr && bRelocated) {
        DB_TraceExt("QRTLN_SetDirectory(): Keeping relocated directory as target: [%s]",
                    getUTF8FileName(cpDirectory));
        return DB_NUM_I_OK;
    }
    if (*g_sQRTLN_Global.szTmpDir == '\0') {
        return refuseDirectory(cpDirectory, "there is no TMP_DIR to place the directory in");
    }
    if (cpRelative != nullptr) {
        return placeInternalDirectory(cpDirectory, skipped, cpRelative);
    }
    copyText(cpDirectory, kPathSize, g_sQRTLN_Global.szTmpDir);
    DB_TraceExt("QRTLN_SetDirectory():  Assigning temporary directory as target: [%s]",
                getUTF8FileName(cpDirectory));
    return DB_NUM_I_OK;
}

int QRTLN_SetFile(char* cpFile, const char* cpOriginalDir) {
    // The selection goes by the name that was announced, not by where it is placed.
    char szFile[kPathSize];
    if (!copyText(szFile, cpFile)) {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        return refuseTooLong(cpFile, std::strlen(cpFile) + 1);
    }
    // Placed before it is known whether it is selected: a skipped database leaves its directory
    // under TMP_DIR, as clients have always found it.
    if (isFileNotesNSF(cpFile) && placeDatabase(cpFile) != DB_NUM_I_OK) {
        return DB_NUM_E_FAILED;
    }
    const Selected selected = select(szFile, cpOriginalDir);
    if (selected == Selected::none) {
        return DB_NUM_I_NOT_SELECTED;
    }
    DB_TraceExt("QRTLN_SetFile(): Go for RESTORE(%d) [%s]...", static_cast<int>(selected),
                getUTF8FileName(szFile));
    return DB_NUM_I_OK;
}
