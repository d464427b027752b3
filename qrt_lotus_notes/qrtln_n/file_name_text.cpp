#include "qrt_lotus_notes/qrtln_n/file_name_text.h"

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"

namespace {
constexpr WORD kMaxNameText = 256;
char szFileUTF8[1024];
} // namespace

char* getUTF8FileName(const char* cpFile) {
    if (!g_sQRTLN_Global.bNotesInitialized) {
        copyText(szFileUTF8, kMaxNameText + 1, cpFile);
        return szFileUTF8;
    }
    char szLmbcs[1024] = "";
    std::memset(szFileUTF8, 0, sizeof szFileUTF8);
    notes_api.OSTranslate(kTranslateNativeToLmbcs, cpFile, kTranslateWholeString, szLmbcs,
                          kMaxNameText);
    notes_api.OSTranslate(kTranslateLmbcsToUtf8, szLmbcs, kTranslateWholeString, szFileUTF8,
                          kMaxNameText);
    return szFileUTF8;
}

void translateToLmbcs(const char* path, char* target, std::size_t size) {
    std::memset(target, 0, size);
    notes_api.OSTranslate(kTranslateNativeToLmbcs, path, kTranslateWholeString, target,
                          static_cast<WORD>(size));
    target[size - 1] = '\0';
}
