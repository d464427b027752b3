#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "common/bounded_text.h"
#include "common/iniparser.h"
#include "common/non_copyable.h"
#include "common/strlib.h"
#include "qrt_lotus_notes/qrtln_o/disk_flush.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

// The client's: replaces "gv_rw_times:" with its directory of run-time data, in place, within 1028
// bytes. Weak, so that the module loads into a client without it.
extern "C" [[gnu::weak, gnu::visibility("default")]] void resolve_path(char* path);

dictionary* gdcDBIID = nullptr;

namespace {

constexpr char kIndexName[] = "gv_rw_times:qrtln_DBIID.ini";
constexpr char kSection[] = "DBIID";
// Section, ":" and path: the dictionary's own limit for a full key.
constexpr std::size_t kFullKeySize = 2049;

// "." and a process id.
constexpr std::size_t kMaxPidSuffix = 12;

char szDBIIDFile[kPathSize];
char szDBIIDTmpFile[kPathSize];

// Where the working copy has its entries, so that a change writes one entry and not all of them.
IniDumpLayout s_layout;

// What the run of this operation may do to the index when it ends.
enum class IndexRun {
    none,    // it has not opened the index: whatever has the name of a working copy is not its own
    open,    // the working copy may take the index's place
    blocked, // the index is there and cannot be read: it stays as it is
};
IndexRun s_run = IndexRun::none;

// A file descriptor that is closed at the end of its scope.
class FileDescriptor : NonCopyable {
  public:
    explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~FileDescriptor() {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }

    explicit operator bool() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }

  private:
    int m_descriptor;
};

void resolveIndexPaths() {
    copyText(szDBIIDFile, kIndexName);
    copyText(szDBIIDTmpFile, kIndexName);
    if (resolve_path != nullptr) {
        resolve_path(szDBIIDFile);
        resolve_path(szDBIIDTmpFile);
    }
    char szIndex[kPathSize];
    copyText(szIndex, szDBIIDTmpFile);
    AddPidToFilename(szDBIIDTmpFile, sizeof szDBIIDTmpFile);
    // A working copy whose name lost its process id could be the index itself: then none is used.
    if (std::strlen(szIndex) + kMaxPidSuffix >= sizeof szDBIIDTmpFile) {
        // Not run by a test: open; a path that is too long, or cannot be translated.
        *szDBIIDTmpFile = '\0';
    }
}

// Whether entries that are set come back in the next run. Not in an index that lost its section,
// nor behind a name that reads like the beginning of another section.
bool keepsEntries(const dictionary* index) {
    const std::string prefix = std::string(kSection) + ":";
    for (int slot = 0; slot < index->n; ++slot) {
        char* const key = index->key[slot];
        if (std::strncmp(key, prefix.c_str(), prefix.size()) == 0 &&
            *strskp(key + prefix.size()) ==
                '[') { // as a line is read: without the blanks before it
            return false;
        }
    }
    return dictionary_slot(index, kSection) >= 0;
}

void formFullKey(char (&szKey)[kFullKeySize], const char* cpUtf8Path) {
    formatText(szKey, sizeof szKey, "%s:%s", kSection, cpUtf8Path);
}

// Gives the new index the owner, group and mode of the one that it replaces, as far as each goes: a
// user who may write the index of another cannot give the file away, but must not shut him out.
void keepOwnership(const char* cpOld, const char* cpNew) {
    struct stat status;
    if (stat(cpOld, &status) != 0) {
        return;
    }
    const FileDescriptor file(open(cpNew, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    // The owner last: after it only root may change the rest.
    const bool bMode = file && fchmod(file.get(), status.st_mode & 07777) == 0;
    const bool bGroup = file && fchown(file.get(), static_cast<uid_t>(-1), status.st_gid) == 0;
    const bool bOwner = file && fchown(file.get(), status.st_uid, static_cast<gid_t>(-1)) == 0;
    if (!bOwner || !bGroup || !bMode) {
        DB_TraceExt("QRTLN_EndDBIIDIndexProcessing(): of [%s] not kept:%s%s%s", cpOld,
                    bOwner ? "" : " owner", bGroup ? "" : " group", bMode ? "" : " mode");
    }
}

// Puts a durable copy of the working copy in the index's place in one step.
bool replaceIndex() {
    // An index that is a symbolic link stays one.
    char szTarget[PATH_MAX];
    if (realpath(szDBIIDFile, szTarget) == nullptr && !copyText(szTarget, szDBIIDFile)) {
        // Not run by a test: open; a path that is too long, or cannot be translated.
        return false;
    }
    char szSibling[kPathSize];
    copyText(szSibling, szTarget);
    AddPidToFilename(szSibling, sizeof szSibling);
    if (!appendText(szSibling, ".new") ||
        std::strncmp(szSibling, szTarget, std::strlen(szTarget)) != 0) {
        // Not run by a test: open; a path that is too long, or cannot be translated.
        return false;
    }
    if (!SysFileCopy(szDBIIDTmpFile, szSibling, FALSE) || flushFile(szSibling) != 0) {
        SysFileDelete(szSibling);
        return false;
    }
    keepOwnership(szTarget, szSibling);
    if (std::rename(szSibling, szTarget) != 0) {
        SysFileDelete(szSibling);
        return false;
    }
    // The rename has happened; without this a power cut could bring the old index back, whole.
    if (const int error = flushDirectoryOf(szTarget); error != 0) {
        DB_TraceExt("QRTLN_EndDBIIDIndexProcessing(): folder of [%s] not flushed (%d): %s",
                    szTarget, error, std::strerror(error));
    }
    return true;
}

} // namespace

void openDBIIDIndex() {
    releaseDBIIDIndex();
    resolveIndexPaths();
    if (resolve_path == nullptr) {
        DB_LogExt("The backup client has no resolve_path: the index file stays [%s], in the "
                  "current directory",
                  szDBIIDFile);
    }
    // Whatever has this name is not from this run: a process id comes back.
    SysFileDelete(szDBIIDTmpFile);
    IndexRun run = IndexRun::open;
    // An index that cannot be examined is not none.
    if (SysFileExists(szDBIIDFile) || !isMissing(szDBIIDFile)) {
        gdcDBIID = iniparser_load(szDBIIDFile);
        const int error = errno;
        if (gdcDBIID == nullptr && error != 0) {
            // Its entries may be worth a lot to whoever can read it, or once the disk is well
            // again.
            run = IndexRun::blocked;
            DB_LogExt("QRTLN_InitBackup(): index file [%s] cannot be read (%d): %s; it stays as it "
                      "is, and this backup has no entries and sets none",
                      szDBIIDFile, error, std::strerror(error));
        } else if (gdcDBIID == nullptr) {
            DB_LogExt("QRTLN_InitBackup(): index file [%s] is empty, a new one is begun",
                      szDBIIDFile);
        } else if (!keepsEntries(gdcDBIID)) {
            DB_LogExt("QRTLN_InitBackup(): index file [%s] is damaged, a new one is begun",
                      szDBIIDFile);
            releaseDBIIDIndex();
        }
    }
    s_run = run;
    if (gdcDBIID == nullptr) {
        gdcDBIID = dictionary_new(0);
        iniparser_add_entry(gdcDBIID, kSection, nullptr, nullptr);
        return;
    }
    if (!SysFileCopy(szDBIIDFile, szDBIIDTmpFile, FALSE)) {
        DB_TraceExt("QRTLN_InitBackup(): Copy of file [%s] to [%s] FAILED", szDBIIDFile,
                    szDBIIDTmpFile);
        SysFileDelete(szDBIIDTmpFile); // a part of it must not replace the index
    }
}

const char* storedDbIId(const char* cpUtf8Path) {
    char szKey[kFullKeySize];
    formFullKey(szKey, cpUtf8Path);
    return iniparser_getstr(gdcDBIID, szKey);
}

void storeDbIId(const char* cpUtf8Path, const char* cpDbIId) {
    if (s_run == IndexRun::blocked) {
        return; // said at the start
    }
    // The file has a line an entry: the rest of such a path could begin another section, and hide
    // the entries behind it.
    if (std::strpbrk(cpUtf8Path, "\r\n") != nullptr) {
        DB_LogExt("QRTLN_IsBackupNeeded: [%s] has a line end in its path and gets no entry in the "
                  "index",
                  cpUtf8Path);
        return;
    }
    // Opened before the entry is set: without a working copy the entry is not set either.
    FILE* hFile = std::fopen(szDBIIDTmpFile, "ab");
    IniDumpResult result{hFile == nullptr ? errno : 0, "fopen"};
    if (hFile != nullptr) {
        std::fclose(hFile);
        char szKey[kFullKeySize];
        formFullKey(szKey, cpUtf8Path);
        iniparser_add_entry(gdcDBIID, kSection, cpUtf8Path, cpDbIId);
        result = iniparser_update_dump(gdcDBIID, szKey, szDBIIDTmpFile, s_layout);
    }
    if (result.error == 0) {
        return;
    }
    if (std::strcmp(result.call, "fopen") == 0) {
        DB_LogExt("QRTLN_IsBackupNeeded: fopen(%s) failed with errno (%d): %s", szDBIIDTmpFile,
                  result.error, std::strerror(result.error));
    } else {
        DB_LogExt("QRTLN_IsBackupNeeded: writing %s failed with errno (%d): %s", szDBIIDTmpFile,
                  result.error, std::strerror(result.error));
        SysFileDelete(szDBIIDTmpFile); // half an index must never take the place of a whole one
    }
    s_layout = IniDumpLayout{};
}

const char* workingCopyPath() {
    return szDBIIDTmpFile;
}

int QRTLN_EndDBIIDIndexProcessing(BOOL bOk) {
    int result = DB_NUM_I_OK;
    resolveIndexPaths();
    if (bOk && s_run != IndexRun::none && (s_run == IndexRun::blocked || !replaceIndex())) {
        DB_LogExt("QRTLN_EndDBIIDIndexProcessing(): Copy of file [%s] to [%s] FAILED",
                  szDBIIDTmpFile, szDBIIDFile);
        result = DB_NUM_E_FAILED;
    }
    SysFileDelete(szDBIIDTmpFile);
    forgetDBIIDIndexRun();
    return result;
}

void forgetDBIIDIndexRun() {
    s_run = IndexRun::none;
    s_layout = IniDumpLayout{};
}

void releaseDBIIDIndex() {
    dictionary_del(gdcDBIID);
    gdcDBIID = nullptr;
    forgetDBIIDIndexRun();
}

void AddPidToFilename(char* str, std::size_t size) {
    char szPid[16];
    formatText(szPid, sizeof szPid, ".%ld", static_cast<long>(getpid()));
    appendText(str, size, szPid);
}
