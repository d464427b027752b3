#include "qrt_lotus_notes/qrtln_f/activation.h"

#include "qrt_lotus_notes/qrtln_u/messages.h"

int QRTLN_Activate(const char*, const char*) {
    DB_ErrHandler(0, kErrorKindNone, "Activation is not supported by this release yet");
    return DB_NUM_E_FAILED;
}
