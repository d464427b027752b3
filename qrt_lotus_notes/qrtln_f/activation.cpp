#include "qrt_lotus_notes/qrtln_f/activation.h"

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/database_recovery.h"
#include "qrt_lotus_notes/qrtln_n/durable_copy.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// Builds the live database's path. False (reported) when there is none to build.
bool buildTarget(const char* cpFile, const char* cpOriginalDirectory, char (&szTarget)[kPathSize]) {
    const char* delimiter = std::strrchr(cpFile, kDelimiter);
    const char* cpFileName = delimiter != nullptr ? delimiter + 1 : cpFile;
    if (*cpOriginalDirectory == '\0') {
        // Joined with "/" all the same, it would be a file in the root.
        DB_ErrHandler(0, kErrorKindNone,
                      "QRTLN_Activate(): no directory was announced for file [%s]",
                      getUTF8FileName(cpFileName));
        return false;
    }
    if (!joinPath(szTarget, sizeof szTarget, cpOriginalDirectory, cpFileName)) {
        DB_ErrHandler(0, kErrorKindNone,
                      "QRTLN_Activate(): the path of the live database is too long: [%s]",
                      getUTF8FileName(cpFileName));
        return false;
    }
    return true;
}

// Takes the live database from its users, if there is one. One that cannot be examined must not be
// written over while they have it.
bool takeOffline(const char* cpFile, const char* szTargetFile, bool bInPlace) {
    if (!SysFileExists(szTargetFile) && isMissing(szTargetFile)) {
        return true;
    }
    DB_TraceExt("QRTLN_Activate(): Taking Database OFFLINE (delete): [%s] ...",
                getUTF8FileName(szTargetFile));
    if (TakeDbsOffline(szTargetFile) == DB_NUM_I_OK) {
        return true;
    }
    if (!bInPlace) {
        // A command to be typed: the paths as they are. The copy stays for it.
        char szMsg[kMessageSize];
        formatText(szMsg, sizeof szMsg,
                   "QRTLN_Activate(): WARNING: Please shutdown notes server and do manually:  "
                   "dbrecover RESTORE %s %s",
                   cpFile, szTargetFile);
        DB_LogExt("%s", szMsg);
    }
    return false;
}

bool replace(const char* cpFile, const char* szTargetFile) {
    DB_TraceExt("QRTLN_Activate(): Copying file [%s] to [%s] ...", getUTF8FileName(cpFile),
                getUTF8FileName(szTargetFile));
    if (!SysFileExists(cpFile)) {
        DB_TraceExt("QRTLN_Activate(): Error: File [%s] does not exist", getUTF8FileName(cpFile));
    }
    if (copyToDisk("QRTLN_Activate", cpFile, szTargetFile)) {
        return true;
    }
    DB_TraceExt("QRTLN_Activate(): Copy of file [%s] to [%s] FAILED", getUTF8FileName(cpFile),
                getUTF8FileName(szTargetFile));
    return false;
}

} // namespace

int QRTLN_Activate(const char* cpFile, const char* cpOriginalDirectory) {
    DB_TraceExt("QRTLN_Activate(): Beginning ACTIVATION of file [%s]", getUTF8FileName(cpFile));
    DB_TraceExt("QRTLN_Activate(): Original directory [%s]", getUTF8FileName(cpOriginalDirectory));
    char szTargetFile[kPathSize];
    if (!buildTarget(cpFile, cpOriginalDirectory, szTargetFile)) {
        return DB_NUM_E_FAILED;
    }

    // What cannot be created shows when the file is copied there.
    char szDirectory[kPathSize];
    copyText(szDirectory, cpOriginalDirectory);
    SysFileCreateDirectory(szDirectory);

    // A file that was restored to its very place, by whatever spelling of the path, is neither
    // copied onto itself nor deleted.
    const bool bInPlace =
        std::strcmp(cpFile, szTargetFile) == 0 || isSameFile(cpFile, szTargetFile);
    const bool bWasVacant = isVacant(szTargetFile);
    if (!takeOffline(cpFile, szTargetFile, bInPlace)) {
        return DB_NUM_E_FAILED;
    }
    if (!bInPlace) {
        // From here to the end of the copy the live database is offline, and stays so when the copy
        // fails: half a database must not be opened.
        if (!replace(cpFile, szTargetFile)) {
            if (bWasVacant) {
                // None that could be offline: half of it would be opened, and keep the next
                // activation from taking its place.
                SysFileDelete(szTargetFile);
            }
            return DB_NUM_E_FAILED;
        }
        DB_TraceExt("QRTLN_Activate(): Deleting backup copy [%s] ...", getUTF8FileName(cpFile));
        SysFileDelete(cpFile);
    }
    DB_TraceExt("QRTLN_Activate(): Bringing Database ONLINE: [%s]", getUTF8FileName(szTargetFile));
    return ActivateDb(szTargetFile) == DB_NUM_I_OK ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}
