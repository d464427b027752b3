#include "qrt_lotus_notes/qrtln_o/file_primitives.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <sys/stat.h>

#include "common/file_stream.h"
#include "common/xutil.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// The stream buffers of the one source and the one target that a database copy uses at a time.
char szInBuffer[kStreamBufferSize];
char szOutBuffer[kStreamBufferSize];

constexpr char kChunkSizeText[] = ", QRTLN_BUFFER_SIZE 32768";
static_assert(QRTLN_BUFFER_SIZE == 32768);
// Of a copy, so that a host which waits gets a sign of life.
constexpr unsigned long kBytesBetweenTraces = 100 * 8192;

// Opens a stream for the function of that name. Returns 0 or an error number.
int openStream(const char* function, const char* name, const char* mode, FILE** stream) {
    *stream = std::fopen(name, mode);
    if (*stream != nullptr) {
        return 0;
    }
    const int error = errno;
    DB_TraceExt("%s [%s] error [%ld]", function, getUTF8FileName(name), static_cast<long>(error));
    return error;
}

// Gives a stream its large buffer (NULL: one of its own). Without it the stream is slower and
// nothing else, so the open has succeeded. `tail` is what the message says beside.
void setBuffer(const char* function, const char* name, FILE* stream, char* buffer,
               const char* tail) {
    const int result = std::setvbuf(stream, buffer, _IOFBF, kStreamBufferSize);
    if (result != 0) {
        // Not run by a test: libc and the kernel do not fail so with these arguments.
        DB_LogExt("%s [%s] setvbuf [%ld] returned %d%s", function, getUTF8FileName(name),
                  static_cast<long>(kStreamBufferSize), result, tail);
    }
}

bool isSameFile(FILE* source, const char* target) {
    struct stat sourceStatus, targetStatus;
    return fstat(fileno(source), &sourceStatus) == 0 && stat(target, &targetStatus) == 0 &&
           sourceStatus.st_dev == targetStatus.st_dev && sourceStatus.st_ino == targetStatus.st_ino;
}

void traceOpen(const char* name) {
    DB_TraceExt("Open [%s]", getUTF8FileName(name));
}

// The message about a file operation that failed; `error` is its errno.
void traceOpenError(const char* name, int error) {
    DB_TraceExt("Error opening [%s]: error (%d): %s", getUTF8FileName(name), error,
                std::strerror(error));
}

// Copies from the source's position to its end. Returns whether every byte was read and handed to
// the target's stream.
bool copyBytes(FILE* source, FILE* target, const char* cpSource, const char* cpTarget) {
    bool bSuccess = true;
    unsigned long ulTotal = 0;
    while (bSuccess && std::feof(source) == 0) {
        char szBuffer[8192];
        const std::size_t count = std::fread(szBuffer, 1, sizeof szBuffer, source);
        const int readError = errno;
        const bool readFailed = std::ferror(source) != 0;
        ulTotal += count;
        if (count > 0 && ulTotal % kBytesBetweenTraces == 0) {
            DB_TraceExt("SysFileCopy: %lu bytes so far", ulTotal);
        }
        if (std::fwrite(szBuffer, 1, count, target) < count) {
            const int error = errno;
            DB_TraceExt("Write %s with error %d", getUTF8FileName(cpTarget), error);
            bSuccess = false;
        } else if (readFailed) {
            // The end of file may never come then.
            DB_TraceExt("Read %s with error %d", getUTF8FileName(cpSource), readError);
            bSuccess = false;
        }
    }
    DB_TraceExt("Number of bytes read = %ld", static_cast<long>(ulTotal));
    return bSuccess;
}

bool copyFile(const char* cpSource, const char* cpTarget) {
    traceOpen(cpSource);
    FileStream source(std::fopen(cpSource, "rb"));
    if (source == nullptr) {
        traceOpenError(cpSource, errno);
        return false;
    }
    bool bSuccess = true;
    if (std::fseek(source.get(), 0, SEEK_SET) != 0) {
        // The copy goes on all the same: what can be had of a source that cannot be sought is
        // wanted, and the answer says that it failed.
        DB_TraceExt("Seek error: %d", errno);
        bSuccess = false;
    }
    // Truncating the target would destroy the source.
    if (isSameFile(source.get(), cpTarget)) {
        DB_TraceExt("SysFileCopy(): [%s] is the source itself, nothing copied",
                    getUTF8FileName(cpTarget));
        return false;
    }
    traceOpen(cpTarget);
    FILE* const target = std::fopen(cpTarget, "wb");
    if (target == nullptr) {
        traceOpenError(cpTarget, errno);
        // The source stays open when the target cannot be opened: hosts have always seen it so.
        static_cast<void>(source.release());
        return false;
    }
    bSuccess = copyBytes(source.get(), target, cpSource, cpTarget) && bSuccess;
    // The last bytes may reach the disk, or fail to, only now.
    if (std::fclose(target) != 0) {
        const int error = errno;
        DB_TraceExt("Close %s with error %d", getUTF8FileName(cpTarget), error);
        bSuccess = false;
    }
    return bSuccess;
}

} // namespace

int SysFileCreateDirectory(char* cpDirectory) {
    if (SysFileExists(cpDirectory)) {
        return 0;
    }
    if (x_MakeDirBranch(cpDirectory) != 0) {
        const int error = errno;
        DB_TraceExt("SysFileCreateDirectory(): Got error [%ld]", static_cast<long>(error));
        return error;
    }
    DB_TraceExt("SysFileCreateDirectory(): Directory: [%s] created", getUTF8FileName(cpDirectory));
    return 0;
}

int SysFileCreate(const char* cpFileName, FILE** fhRetFile) {
    // An existing file is overwritten from its start and never truncated: a target that is being
    // replaced keeps its identity and its blocks, and whoever needs it shorter deletes it first.
    const char* mode = SysFileExists(cpFileName) ? "rb+" : "wb";
    const int error = openStream("SysFileCreate", cpFileName, mode, fhRetFile);
    if (error == 0) {
        setBuffer("SysFileCreate", cpFileName, *fhRetFile, szOutBuffer, "");
    }
    return error;
}

int SysFileClose(FILE* hFile) {
    return std::fclose(hFile) == 0 ? 0 : errno;
}

int SysFileOpen(const char* cpFileName, FILE** fhRetFile) {
    DB_TraceExt("SysFileOpen [%s]", getUTF8FileName(cpFileName));
    const int error = openStream("SysFileOpen", cpFileName, "rb+", fhRetFile);
    if (error == 0) {
        setBuffer("SysFileOpen", cpFileName, *fhRetFile, nullptr, kChunkSizeText);
    }
    return error;
}

int SysFileOpenRead(const char* cpFileName, FILE** fhRetFile) {
    DB_TraceExt("SysFileOpenRead [%s]", getUTF8FileName(cpFileName));
    const int error = openStream("SysFileOpenRead", cpFileName, "rb", fhRetFile);
    if (error == 0) {
        setBuffer("SysFileOpenRead", cpFileName, *fhRetFile, szInBuffer, kChunkSizeText);
    }
    return error;
}

int SysFileSeek(FILE* hFile, DWORD dwPos, DWORD dwLoc) {
    return std::fseek(hFile, static_cast<long>(dwPos), dwLoc != 0 ? SEEK_END : SEEK_SET) == 0
               ? 0
               : errno;
}

int SysFileWrite(FILE* hFile, const char* pData, DWORD dwCount) {
    if (std::fwrite(pData, 1, dwCount, hFile) == dwCount) {
        return 0;
    }
    const int error = errno;
    DB_TraceExt("SysFileWrite error [%ld]", static_cast<long>(error));
    return error;
}

int SysFileRead(FILE* hFile, char* pData, DWORD dwCount) {
    if (std::fread(pData, 1, dwCount, hFile) == dwCount) {
        return 0;
    }
    // At end of file nobody sets errno: what is returned is what an earlier failure left, or 0.
    const int error = errno;
    DB_TraceExt("SysFileRead error [%ld]", static_cast<long>(error));
    return error;
}

int SysFileDelete(const char* cpFileName) {
    if (!SysFileExists(cpFileName) && isMissing(cpFileName)) {
        return 0;
    }
    if (std::remove(cpFileName) == 0 || errno == ENOENT) {
        return 0;
    }
    const int error = errno;
    DB_TraceExt("SysFileDelete [%s] got error [%ld]", getUTF8FileName(cpFileName),
                static_cast<long>(error));
    return error;
}

BOOL SysFileExists(const char* cpFile) {
    if (cpFile == nullptr) {
        DB_TraceExt("SysFileExists return FALSE");
        return FALSE;
    }
    struct stat status;
    if (stat(cpFile, &status) == 0) {
        DB_TraceExt("SysFileExists return TRUE");
        return TRUE;
    }
    DB_TraceExt("SysFileExists [%s] return FALSE", getUTF8FileName(cpFile));
    return FALSE;
}

bool isMissing(const char* cpFile) {
    struct stat status;
    return cpFile == nullptr ||
           (stat(cpFile, &status) != 0 && (errno == ENOENT || errno == ENOTDIR));
}

BOOL SysFileCopy(const char* cpSource, const char* cpTarget, BOOL bFailIfExists) {
    if (bFailIfExists && SysFileExists(cpTarget)) {
        DB_TraceExt("SysFileCopy(): Failed bcs. [%s] exists", getUTF8FileName(cpTarget));
        return FALSE;
    }
    const BOOL bSuccess = copyFile(cpSource, cpTarget) ? TRUE : FALSE;
    DB_TraceExt("SysFileCopy: return %s", bSuccess ? "TRUE" : "FALSE");
    return bSuccess;
}

BOOL OSIsArchiveAttributeSet(const char*) {
    return TRUE;
}

int OSResetArchiveAttribute(const char*) {
    return 0;
}

BOOL OSIsDevice(const char*) {
    return FALSE;
}

int OSStrnCmpDir(const char* cpDir1, const char* cpDir2, int iLen) {
    return iLen <= 0 ? 0 : std::strncmp(cpDir1, cpDir2, static_cast<std::size_t>(iLen));
}
