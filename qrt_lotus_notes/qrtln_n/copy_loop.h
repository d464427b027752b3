// The copy of a database file in chunks, while the server goes on writing to it.
#pragma once

#include <cstdio>

#include "notes_api/types.h"
#include "qrt_lotus_notes/qrtln_n/copy_passes.h"
#include "qrt_lotus_notes/qrtln_n/guards.h"

// One copy in its course: where it reads and writes, and how far it has got. Nothing is its own:
// the database, its backup, both streams and the buffer of QRTLN_BUFFER_SIZE bytes outlive it.
struct DatabaseCopy {
    DBHANDLE hDB;
    DHANDLE hBackupContext;
    FILE* srcfd;
    FILE* dstfd;
    char* buffer;
    CopyPosition position;
};

// Copies dwFileSizeHigh * 2^32 + dwFileSizeLow bytes, zeros where the source has fewer, and closes
// the copy: a full disk may show only then. Returns 0, an error number, or 1009 when stopped; the
// copy's file stays in each case.
int copyAndClose(DatabaseCopy& course, TemporaryCopyGuard& copy, DWORD dwFileSizeLow,
                 DWORD dwFileSizeHigh);
