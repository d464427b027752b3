#include "qrt_lotus_notes/qrtln_f/restore_placement.h"

#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {
int notSupported() {
    DB_ErrHandler(0, kErrorKindNone, "Restore is not supported by this release yet");
    return DB_NUM_E_FAILED;
}
} // namespace

int QRTLN_InitRestore() {
    const ArgumentListRelease release;
    return notSupported();
}

int QRTLN_SetDirectory(char*) {
    return notSupported();
}

int QRTLN_SetFile(char*, const char*) {
    return notSupported();
}
