// Bounded writes into the fixed buffers of the module's records. Every function terminates the
// destination and says whether the whole text fitted.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

// Copies src into dst[size], cut at size - 1 bytes. Returns false when it was cut. src may be part
// of dst. REQUIRES: size > 0.
inline bool copyText(char* dst, std::size_t size, const char* src) {
    const std::size_t length = strnlen(src, size);
    const bool fits = length < size;
    const std::size_t kept = fits ? length : size - 1;
    std::memmove(dst, src, kept);
    dst[kept] = '\0';
    return fits;
}

template <std::size_t size>
bool copyText(char (&dst)[size], const char* src) {
    return copyText(dst, size, src);
}

// Appends src to the text in dst[size], cut likewise. Returns false when it was cut.
inline bool appendText(char* dst, std::size_t size, const char* src) {
    const std::size_t used = strnlen(dst, size);
    return used < size && copyText(dst + used, size - used, src);
}

template <std::size_t size>
bool appendText(char (&dst)[size], const char* src) {
    return appendText(dst, size, src);
}

// snprintf that says whether everything fitted. The arguments must not lie in dst.
[[gnu::format(printf, 3, 4)]] inline bool formatText(char* dst, std::size_t size,
                                                     const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(dst, size, format, arguments);
    va_end(arguments);
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

// Writes a directory's path and a name below it, with "/" between them unless the directory ends in
// one. Returns false when it was cut. Neither may lie in dst.
inline bool joinPath(char* dst, std::size_t size, const char* directory, const char* name) {
    const std::size_t length = std::strlen(directory);
    const bool delimited = length > 0 && directory[length - 1] == '/';
    return formatText(dst, size, "%s%s%s", directory, delimited ? "" : "/", name);
}
