#include "qrt_lotus_notes/qrtln_n/file_name_text.h"

#include <algorithm>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"

namespace {

constexpr WORD kMaxNameText = 256;
// The most bytes that one character takes in LMBCS.
constexpr std::size_t kLongestLmbcsCharacter = 3;

// The names converted last: an item is named in many messages, and every conversion is two calls of
// the server's. Each has its own result.
struct ConvertedName {
    char szFile[kPathSize]; // the native name; empty: the slot stands for none
    char szFileUTF8[1024];
};
constexpr std::size_t kRememberedNames = 8;
ConvertedName s_names[kRememberedNames];
std::size_t s_oldest = 0;

// Converts a name the server's way. False when the server did not translate it.
bool convertToUtf8(const char* cpFile, char (&szFileUTF8)[1024]) {
    // One byte more than a conversion may fill stays NUL.
    char szLmbcs[1024] = "";
    std::memset(szFileUTF8, 0, sizeof szFileUTF8);
    notes_api.OSTranslate(kTranslateNativeToLmbcs, cpFile, kTranslateWholeString, szLmbcs,
                          kMaxNameText);
    notes_api.OSTranslate(kTranslateLmbcsToUtf8, szLmbcs, kTranslateWholeString, szFileUTF8,
                          kMaxNameText);
    return szFileUTF8[0] != '\0';
}

bool isAscii(const char* text) {
    return std::all_of(text, text + std::strlen(text),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

} // namespace

char* getUTF8FileName(const char* cpFile) {
    const bool bServer = g_sQRTLN_Global.bNotesInitialized != FALSE;
    if (bServer && *cpFile != '\0') {
        for (ConvertedName& known : s_names) {
            if (std::strcmp(known.szFile, cpFile) == 0) {
                return known.szFileUTF8;
            }
        }
    }
    ConvertedName& name = s_names[s_oldest++ % kRememberedNames];
    name.szFile[0] = '\0';
    if (!bServer || !convertToUtf8(cpFile, name.szFileUTF8)) {
        // Shown as it is: messages and the index of instances must not name nothing.
        copyText(name.szFileUTF8, kMaxNameText + 1, cpFile);
    } else if (!copyText(name.szFile, cpFile)) {
        name.szFile[0] = '\0'; // cut, it would be another's
    }
    return name.szFileUTF8;
}

void forgetFileNames() {
    for (ConvertedName& name : s_names) {
        name.szFile[0] = '\0';
    }
}

bool translateToLmbcs(const char* path, char* target, std::size_t size) {
    std::memset(target, 0, size);
    notes_api.OSTranslate(kTranslateNativeToLmbcs, path, kTranslateWholeString, target,
                          static_cast<WORD>(size));
    target[size - 1] = '\0';
    // A path that was not translated is none: in a list of paths it would even hide those after it.
    if (target[0] == '\0' && path[0] != '\0') {
        return false;
    }

    // A conversion that was cut ends within one character of the buffer's end. There, only a path
    // whose length the conversion does not change is known to be whole.
    const std::size_t length = std::strlen(target);
    return length + kLongestLmbcsCharacter < size || (isAscii(path) && length == std::strlen(path));
}
