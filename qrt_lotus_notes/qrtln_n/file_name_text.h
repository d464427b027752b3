// File names between the platform's bytes, LMBCS (what the Notes C API takes) and UTF-8 (messages).
#pragma once

#include <cstddef>

#include "qrt_lotus_notes/operation_state.h"

// Returns the name converted to UTF-8, for messages and index keys, in a static buffer: valid until
// seven other names were asked for, so that one message can show several. A name that was asked for
// lately is not converted again. Each conversion yields at most 256 bytes: longer names are cut,
// readers of traces know that limit. While the Notes runtime is not up, and when the server does
// not translate the name: the native bytes, cut at the same limit.
char* getUTF8FileName(const char* cpFile);

// Forgets the names converted so far: the next runtime may have another character set.
void forgetFileNames();

// Writes the LMBCS form of a native path into target[size], as every path for the Notes C API
// needs. Returns false when it did not fit or was not translated: the text in target then names
// some other file, or none, and must not be used. REQUIRES: the Notes runtime is up.
bool translateToLmbcs(const char* path, char* target, std::size_t size);

template <std::size_t size>
bool translateToLmbcs(const char* path, char (&target)[size]) {
    return translateToLmbcs(path, target, size);
}
