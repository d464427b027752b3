#include "qrt_lotus_notes/qrtln_f/recovery.h"

#include <algorithm>
#include <fnmatch.h>
#include <string>
#include <vector>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_f/file_discovery.h"
#include "qrt_lotus_notes/qrtln_f/path_text.h"
#include "qrt_lotus_notes/qrtln_n/database_recovery.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

namespace {

constexpr char kPendingPattern[] = "*.nsf";

// The arguments of a selective recovery that cover more than what the search found for them: those
// with wildcards, and those for which nothing exists. What was found is in lhNotesFileList by its
// name, and covers that name alone, whatever characters it has.
std::vector<std::string> s_patterns;

bool isRelocated() {
    return *g_sQRTLN_Global.szRelocationDir != '\0';
}

std::vector<std::string> selectedDatabases() {
    std::vector<std::string> names;
    char szName[kPathSize];
    unsigned int uiSize = 0;
    while (ListFIFOItem(g_sQRTLN_Global.lhNotesFileList, szName, &uiSize)) {
        names.emplace_back(szName);
    }
    return names;
}

// Whether an argument is a pattern of several names: a wildcard that no backslash escapes.
bool hasWildcard(const char* cpArgument) {
    for (; *cpArgument != '\0'; ++cpArgument) {
        if (*cpArgument == '\\' && cpArgument[1] != '\0') {
            ++cpArgument;
        } else if (std::strchr("*?[", *cpArgument) != nullptr) {
            return true;
        }
    }
    return false;
}

// Notes one argument of a selective recovery.
void takeSelected(const char* cpArgument, FifoList& lhListIncludePatterns) {
    DB_TraceExt("QRTLN_InitRecovery(): Selective Lotus Notes recovery operation.");
    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_PARTICULAR;
    if (!lhListIncludePatterns) {
        lhListIncludePatterns.reset(CreateFIFOList());
    }
    const bool bExists = IsValidPattern(cpArgument) != FALSE;
    if (recoveryChoices().bSelectsWhatIsMissing && (!bExists || hasWildcard(cpArgument))) {
        s_patterns.push_back(relocatedName(cpArgument));
    }
    if (bExists) {
        pushPath(lhListIncludePatterns.get(), cpArgument, DB_BACKUP_FILE_TYPE_DB);
        return;
    }
    DB_TraceExt("QRTLN_InitRecovery(): Pattern does not assign any existing file: [%s]",
                cpArgument);
    if (recoveryChoices().bSelectsWhatIsMissing) {
        // It may be just what was lost.
        pushPath(g_sQRTLN_Global.lhNotesFileList, relocatedName(cpArgument).c_str(),
                 DB_BACKUP_FILE_TYPE_DB);
    }
}

// --- The search for restored copies ---

// Turns the path of a directory into a pattern of the files in it; a pattern stays as it is. False
// when it does not fit.
bool completePattern(char (&szFullPattern)[kPathSize]) {
    removeTrailingDelimiter(szFullPattern);
    return !isDirectory(szFullPattern) ||
           (appendText(szFullPattern, "/") && appendText(szFullPattern, kPendingPattern));
}

// Looks at one directory, given as a pattern, and queues the directories in it.
void searchDirectory(const char* szFullPattern, LIST_INFO* lhSubDirList,
                     LIST_INFO* lhRecoveryPendingList) {
    char szITEM_PATH[kPathSize];
    copyText(szITEM_PATH, szFullPattern);
    *std::strrchr(szITEM_PATH, kDelimiter) = '\0';
    if (!(isRelocated() && g_sQRTLN_Global.bPlainRestore)) {
        getSubDirectories(szFullPattern, szITEM_PATH, lhSubDirList);
    }
    if (IsValidPattern(szFullPattern)) {
        DB_TraceExt("QRTLN_GetRecoveryPendingFiles(): findFirst [%s]", szFullPattern);
    }
    // By itself the search ends here, with nothing listed.
    if (recoveryChoices().bFindsPending) {
        getDatabasesIn(szITEM_PATH, lhRecoveryPendingList);
    }
}

// --- The list of what to recover ---

// Builds the path of the original in whose place a restored copy is to go: the data directory
// joined with the copy's path below TMP_DIR. False when it does not fit.
bool buildOriginal(const char* szRecoveryPendingFile, char (&szOriginalDatabaseFile)[kPathSize]) {
    const char* cpRelative = szRecoveryPendingFile + std::strlen(g_sQRTLN_Global.szTmpDir);
    cpRelative += std::strspn(cpRelative, "/");
    return formatText(szOriginalDatabaseFile, kPathSize, "%s%s",
                      g_sQRTLN_Global.szNotesDataDirectory, cpRelative);
}

// Whether a pattern covers a database. As in every search only its last component is one: what else
// has wildcards in it is the name of a directory.
bool matches(const std::string& pattern, const std::string& database) {
    const std::size_t name = pattern.rfind(kDelimiter) + 1; // 0 without one
    std::string text;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (i < name && std::strchr("*?[\\", pattern[i]) != nullptr) {
            text.push_back('\\');
        }
        text.push_back(pattern[i]);
    }
    return fnmatch(text.c_str(), database.c_str(), 0) == 0;
}

// Whether a database is selected: by its name, which is used up then, or by a pattern.
bool isCovered(const char* cpDatabase) {
    return isDatabaseForRecovery(cpDatabase) ||
           std::any_of(s_patterns.begin(), s_patterns.end(),
                       [&](const std::string& pattern) { return matches(pattern, cpDatabase); });
}

// Adds a pair to the recovery list. One that it cannot hold is left out.
void addPair(LIST_INFO* lhRecoveryList, const char* szRestored, const char* szOriginal) {
    char szEntry[kPathSize];
    if (std::strstr(szRestored, kRecoverySeparator) != nullptr ||
        std::strstr(szOriginal, kRecoverySeparator) != nullptr) {
        DB_LogExt("QRTLN_Recovery(): the path of [%s] contains %s and is skipped", szOriginal,
                  kRecoverySeparator);
    } else if (!formatText(szEntry, sizeof szEntry, "%s%s%s", szRestored, kRecoverySeparator,
                           szOriginal)) {
        DB_LogExt("QRTLN_Recovery(): the paths of [%s] and [%s] are too long together, skipped",
                  szRestored, szOriginal);
    } else {
        pushPath(lhRecoveryList, szEntry, DB_BACKUP_FILE_TYPE_DB);
        return;
    }
    tellNotRecovered(szOriginal, "its path cannot be recovered");
}

// Adds a restored copy, if its database is selected.
void addPending(LIST_INFO* lhRecoveryList, const char* szRecoveryPendingFile,
                std::vector<std::string>& covered) {
    char szOriginalDatabaseFile[kPathSize];
    copyText(szOriginalDatabaseFile, szRecoveryPendingFile);
    if (!isRelocated() && !buildOriginal(szRecoveryPendingFile, szOriginalDatabaseFile)) {
        // Not run by a test: open; a path that is too long, or cannot be translated.
        DB_LogExt("QRTLN_Recovery(): the original's path of [%s] is too long, skipped",
                  szRecoveryPendingFile);
        return;
    }
    if (!isCovered(szOriginalDatabaseFile)) {
        DB_TraceExt("QRTLN_Recovery(): Skipping ... Recovery pending file is NOT COMPRISED within "
                    "this operation: [%s].",
                    getUTF8FileName(szRecoveryPendingFile));
        return;
    }
    if (isRelocated()) {
        DB_TraceExt("QRTLN_Recovery(): Relocation encountered. The recovery file will not be "
                    "copied over original file.");
    }
    covered.emplace_back(szOriginalDatabaseFile);
    addPair(lhRecoveryList, szRecoveryPendingFile, szOriginalDatabaseFile);
}

// Tells of each selected database, or pattern, for which there was nothing to recover.
void tellLeftOver(const std::vector<std::string>& covered) {
    for (const std::string& selected : selectedDatabases()) {
        const bool bPattern =
            std::find(s_patterns.begin(), s_patterns.end(), selected) != s_patterns.end();
        const bool bUsed =
            std::any_of(covered.begin(), covered.end(), [&](const std::string& name) {
                return name == selected || (bPattern && matches(selected, name));
            });
        if (!bUsed) {
            tellNotRecovered(selected.c_str(), "no restored copy of it waits for recovery");
        }
    }
}

// Lists the restored copies of the selected databases. False when none waits at all.
bool listPending(LIST_INFO* lhRecoveryList) {
    const char* szRoot = isRelocated() ? g_sQRTLN_Global.szRelocationDir : g_sQRTLN_Global.szTmpDir;
    if (isRelocated()) {
        DB_TraceExt("QRTLN_Recovery(): Searching for recovery pending files in relocated directory "
                    "[%s].",
                    getUTF8FileName(szRoot));
    }
    const FifoList lhRecoveryPendingList(CreateFIFOList());
    QRTLN_GetRecoveryPendingFiles(lhRecoveryPendingList.get(), szRoot);

    DB_TraceExt("QRTLN_Recovery(): CREATING RECOVERY LIST ....");
    const bool bWaiting = getFIFOItemNumber(lhRecoveryPendingList.get()) > 0;
    std::vector<std::string> covered;
    char szRecoveryPendingFile[kPathSize];
    while (pullPath(lhRecoveryPendingList.get(), szRecoveryPendingFile)) {
        addPending(lhRecoveryList, szRecoveryPendingFile, covered);
    }
    tellLeftOver(covered);
    if (!bWaiting) {
        DB_TraceExt("QRTLN_Recovery(): There is no files waiting to be recovered !");
        DB_TraceExt("QRTLN_Recovery(): The Database restore files COULD NOT be found.");
        if (recoveryChoices().bTellsOutcome) {
            DB_ErrHandler(0, kErrorKindNone,
                          "QRTLN_Recovery(): no restored database waits for recovery in [%s]",
                          getUTF8FileName(szRoot));
        }
    }
    return bWaiting;
}

// Lists the databases of the whole system, each to be recovered where it lies.
void listInPlace(LIST_INFO* lhRecoveryList) {
    DB_TraceExt("QRTLN_Recovery(): CREATING RECOVERY LIST ....");
    DB_TraceExt("QRTLN_Recovery(): Whole NOTES SYSTEM recovery.");
    for (const std::string& database : selectedDatabases()) {
        const char* szInputFile = database.c_str();
        if (SysFileExists(szInputFile)) {
            addPair(lhRecoveryList, szInputFile, szInputFile);
        } else {
            DB_TraceExt("QRTLN_Recovery(): Restore File [%s] does NOT EXISTS on file system.",
                        getUTF8FileName(szInputFile));
            tellNotRecovered(szInputFile, "it does not exist");
        }
    }
}

} // namespace

int QRTLN_InitRecovery() {
    const ArgumentListRelease release;
    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_PARTICULAR;
    s_patterns.clear();
    FifoList lhListIncludePatterns;
    int result = DB_NUM_I_OK;
    char szArgumentFile[kPathSize];
    while (pullPath(g_sQRTLN_Global.lhArgumentFileList, szArgumentFile)) {
        DB_TraceExt("QRTLN_InitRecovery: Got argument [%s]", szArgumentFile);
        const char* cpArgument = withoutArgumentPrefix(szArgumentFile);
        if (!isWholeSystemArgument(cpArgument)) {
            takeSelected(cpArgument, lhListIncludePatterns);
            continue;
        }
        DB_TraceExt("QRTLN_InitRecovery(): Whole Lotus Notes System RECOVERY.");
        g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_NOTES;
        result = getNotesFileList(g_sQRTLN_Global.szNotesDataDirectory,
                                  g_sQRTLN_Global.eI_OperationLevel);
        if (result != DB_NUM_I_OK) {
            return DB_NUM_E_FAILED;
        }
        break; // the arguments behind it are not looked at
    }

    if (g_sQRTLN_Global.eI_BackupType == QRTLN_OPERATION_TYPE_PARTICULAR) {
        result = getParticularFileList(lhListIncludePatterns.get());
    }
    if (getFIFOItemNumber(g_sQRTLN_Global.lhNotesFileList) == 0) {
        DB_ErrHandler(0, kErrorKindNone, "No files found");
        return DB_NUM_E_FAILED;
    }
    return result == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}

int QRTLN_GetRecoveryPendingFiles(LIST_INFO* lhRecoveryPendingList, const char* cpRootDirectory) {
    char szFullPattern[kPathSize];
    // Without a directory there is nothing to search: joined all the same, it would be the root.
    if (*cpRootDirectory == '\0' ||
        !formatText(szFullPattern, sizeof szFullPattern, "%s%s%s", cpRootDirectory,
                    endsWithDelimiter(cpRootDirectory) ? "" : "/", kPendingPattern)) {
        return DB_NUM_I_OK;
    }
    const FifoList lhSubDirList(CreateFIFOList());
    do {
        if (completePattern(szFullPattern)) {
            searchDirectory(szFullPattern, lhSubDirList.get(), lhRecoveryPendingList);
        } else {
            // Not run by a test: open; a path that is too long, or cannot be translated.
            DB_LogExt("QRTLN_GetRecoveryPendingFiles(): the path of [%s] is too long for its "
                      "files, skipped",
                      szFullPattern);
        }
    } while (pullPath(lhSubDirList.get(), szFullPattern));
    return DB_NUM_I_OK;
}

int QRTLN_Recovery() {
    const FifoList lhRecoveryList(CreateFIFOList());
    if (g_sQRTLN_Global.eI_BackupType == QRTLN_OPERATION_TYPE_NOTES) {
        listInPlace(lhRecoveryList.get());
    } else if (!listPending(lhRecoveryList.get())) {
        return DB_NUM_E_FAILED;
    }
    if (getFIFOItemNumber(lhRecoveryList.get()) == 0) {
        DB_ErrHandler(0, kErrorKindNone,
                      "Could not find any recovery pending file for recovery operation.");
        return DB_NUM_E_FAILED;
    }
    if (RecoverDb(lhRecoveryList.get()) != DB_NUM_I_OK) {
        DB_TraceExt("QRTLN_Recovery(): RECOVERY operation FAILED !");
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("QRTLN_Recovery(): RECOVERY operation SUCCEEDED !");
    return DB_NUM_I_COMPLETE;
}
