// Small questions about paths and database arguments that several units of this floor ask.
#pragma once

#include <cstring>
#include <sys/stat.h>

#include "qrt_lotus_notes/operation_state.h"

inline bool startsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

inline bool endsWithDelimiter(const char* text) {
    const std::size_t length = std::strlen(text);
    return length > 0 && text[length - 1] == kDelimiter;
}

inline void removeTrailingDelimiter(char* path) {
    if (endsWithDelimiter(path)) {
        path[std::strlen(path) - 1] = '\0';
    }
}

inline bool isDirectory(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// A database argument without the "QRTLN:" by which a client says whose it is.
inline const char* withoutArgumentPrefix(const char* cpArgument) {
    constexpr char kArgumentPrefix[] = "QRTLN:";
    return cpArgument + (startsWith(cpArgument, kArgumentPrefix) ? sizeof kArgumentPrefix - 1 : 0);
}

// Whether an argument without its prefix means the whole system: whatever follows "NOTES" in it.
inline bool isWholeSystemArgument(const char* cpArgument) {
    return startsWith(cpArgument, "NOTES");
}
