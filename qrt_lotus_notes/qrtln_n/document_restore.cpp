#include "qrt_lotus_notes/qrtln_n/document_restore.h"

#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {
int notSupported() {
    DB_ErrHandler(0, kErrorKindNone, "Document restore is not supported by this release yet");
    return DB_NUM_E_FAILED;
}
} // namespace

int DeletedDocumentsRecovery(const char*, const char*) {
    return notSupported();
}

int ChangedDocumentsRecovery(const char*, const char*) {
    return notSupported();
}
