#include "qrt_lotus_notes/qrtln_f/recovery.h"

#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {
int notSupported() {
    DB_ErrHandler(0, kErrorKindNone, "Recovery is not supported by this release yet");
    return DB_NUM_E_FAILED;
}
} // namespace

int QRTLN_InitRecovery() {
    const ArgumentListRelease release;
    return notSupported();
}

int QRTLN_Recovery() {
    return notSupported();
}
