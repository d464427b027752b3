#include "common/strlib.h"

#include <cctype>
#include <cstring>

#include "common/bounded_text.h"

namespace {
bool isWhiteSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}
} // namespace

char* strskp(char* s) {
    if (s == nullptr) {
        // Not run by a test: the module passes no nullptr here.
        return nullptr;
    }
    while (isWhiteSpace(*s)) {
        ++s;
    }
    return s;
}

char* strcrop(const char* s) {
    static char szCropped[1025];
    if (s == nullptr) {
        // Not run by a test: the module passes no nullptr here.
        return nullptr;
    }
    copyText(szCropped, s);
    std::size_t length = std::strlen(szCropped);
    while (length > 0 && isWhiteSpace(szCropped[length - 1])) {
        szCropped[--length] = '\0';
    }
    return szCropped;
}
