#include "qrt_lotus_notes/qrtln_n/durable_copy.h"

#include <cerrno>
#include <sys/stat.h>

#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/disk_flush.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

bool copyToDisk(const char* function, const char* cpSource, const char* cpTarget) {
    if (!SysFileCopy(cpSource, cpTarget, FALSE)) {
        return false;
    }
    int error = flushFile(cpTarget);
    if (error == 0) {
        error = flushDirectoryOf(cpTarget);
    }
    if (error != 0) {
        DB_TraceExt("%s(): flushing file [%s] to disk failed with errno (%d): %s", function,
                    getUTF8FileName(cpTarget), error, getSysMsg(static_cast<unsigned int>(error)));
    }
    return error == 0;
}

bool isVacant(const char* cpTarget) {
    struct stat status;
    return lstat(cpTarget, &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}
