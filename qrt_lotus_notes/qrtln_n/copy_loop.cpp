#include "qrt_lotus_notes/qrtln_n/copy_loop.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// The server hears how far the copy has got once in so many chunks.
constexpr DWORD kChunksPerHighWaterMark = 100;

// Below this size the copy is made before a reservation pays.
constexpr std::uint64_t kSmallestReservation = std::uint64_t{16} << 20;

// Reserves room for the whole copy, so that a disk that has none says so at once, and what else
// fills it meanwhile does not take it. Returns 0 or an error number: a file system that knows no
// reservations just does without, and one in memory, which would touch everything twice.
int reserveRoom(FILE* copy, DWORD dwFileSizeLow, DWORD dwFileSizeHigh) {
    const std::uint64_t size = std::uint64_t{dwFileSizeHigh} << 32 | dwFileSizeLow;
    struct statfs place;
    if (size < kSmallestReservation || size > std::uint64_t{INT64_MAX} ||
        fstatfs(fileno(copy), &place) != 0 || place.f_type == TMPFS_MAGIC) {
        return 0;
    }
    // Not run by a test: a copy of this size on a disk.
    const int error =
        fallocate(fileno(copy), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) != 0 ? errno : 0;
    return error == ENOSPC || error == EDQUOT ? error : 0;
}

// Reads one chunk. What the server cuts off the file during the copy is recorded like every other
// change: zeros stand for it, never what was in the buffer before.
int readChunk(FILE* source, char* buffer, DWORD count) {
    std::memset(buffer, 0, count);
    errno = 0; // the end of the file sets none, and that is what a short read returns
    const int error = SysFileRead(source, buffer, count);
    return error == 0 && std::ferror(source) ? EIO : error;
}

// Without the mark the server only records more changes than it needs to: its result does not
// count.
void setHighWaterMark(const DatabaseCopy& copy) {
    const CopyPosition& position = copy.position;
    DB_TraceExt("PrepareOpenDbForBackup(): Call NSFBackupSetHighWaterMark [%ld]",
                static_cast<long>(std::uint64_t{position.high()} << 32 | position.low()));
    notes_api.NSFBackupSetHighWaterMark(copy.hDB, copy.hBackupContext, position.low(),
                                        position.high());
}

// Copies one pass. Returns 0 or an error number; also 0 when it was stopped.
int copyPass(DatabaseCopy& copy, DWORD dwBytesLeft) {
    DWORD dwReadCount = 0;
    while (dwBytesLeft != 0 && !stopRequested()) {
        const DWORD chunk = std::min(dwBytesLeft, QRTLN_BUFFER_SIZE);
        if (const int error = readChunk(copy.srcfd, copy.buffer, chunk); error != 0) {
            // Not run by a test: a read that fails, in the long form of tests/torture alone.
            return error;
        }
        copy.position.advance(chunk);
        if (++dwReadCount % kChunksPerHighWaterMark == 0) {
            setHighWaterMark(copy);
        }
        if (const int error = SysFileWrite(copy.dstfd, copy.buffer, chunk); error != 0) {
            return error;
        }
        dwBytesLeft -= chunk;
    }
    return 0;
}

// Copies every pass. Returns 0, an error number, or 1009 when stopped.
int copyDatabase(DatabaseCopy& copy, DWORD dwFileSizeLow, DWORD dwFileSizeHigh) {
    CopyPasses passes(dwFileSizeLow, dwFileSizeHigh);
    DWORD pass = passes.first();
    DB_TraceExt("PrepareOpenDbForBackup(): File size == %ld", static_cast<long>(pass));
    int status = 0;
    while (pass != 0 && status == 0 && !stopRequested()) {
        status = copyPass(copy, pass);
        pass = passes.next();
    }
    if (stopRequested()) {
        DB_TraceExt(
            "PrepareOpenDbForBackup(): copy in a loop terminated due to global termination flag");
        return DB_NUM_E_TERMINATED;
    }
    DB_TraceExt("PrepareOpenDbForBackup(): copy in a loop done");
    return status;
}

} // namespace

int copyAndClose(DatabaseCopy& course, TemporaryCopyGuard& copy, DWORD dwFileSizeLow,
                 DWORD dwFileSizeHigh) {
    int status = reserveRoom(course.dstfd, dwFileSizeLow, dwFileSizeHigh);
    if (status == 0) {
        status = copyDatabase(course, dwFileSizeLow, dwFileSizeHigh);
    }
    const int closeError = copy.closeStream();
    return status != 0 ? status : closeError;
}
