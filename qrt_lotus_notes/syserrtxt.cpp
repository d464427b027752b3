#include "qrt_lotus_notes/syserrtxt.h"

#include <cstddef>
#include <cstring>

#include "common/bounded_text.h"

namespace {

constexpr std::size_t kDescriptionSize = 256;
constexpr int kErrorKindErrnoToo = 4;

struct tagCustomMessageItem {
    int iCustomErrCode;
    const char* cpCustomErrText;
};

// Ends with code 0, whose text is never used: a code that is not here has no text.
constexpr tagCustomMessageItem kResolverTexts[] = {
    {1, "Host is unknown."},
    {2, "Local server did not receive a response from an authoritative server."},
    {3, "An unexpected server failure occurred."},
    {4, "No address is available for the name specified in the server request."},
    {0, "Unknown error code"},
};

const char* resolverText(unsigned long code) {
    for (const tagCustomMessageItem* item = kResolverTexts; item->iCustomErrCode != 0; ++item) {
        if (static_cast<unsigned long>(item->iCustomErrCode) == code) {
            return item->cpCustomErrText;
        }
    }
    return "";
}

// Messages were always formatted twice on their way here, so their authors write "%%" for a "%".
void formatDescription(char (&szAddFull)[kDescriptionSize], const char* cpAddDesc) {
    std::size_t length = 0;
    for (; *cpAddDesc != '\0' && length + 1 < sizeof szAddFull; ++cpAddDesc) {
        if (cpAddDesc[0] == '%' && cpAddDesc[1] == '%') {
            ++cpAddDesc;
        }
        szAddFull[length++] = *cpAddDesc;
    }
    szAddFull[length] = '\0';
}

} // namespace

char* syserrtxt(unsigned long ulSysErrCode, int iErrFlag, const char* cpAddDesc) {
    static char szStaticErrorTxt[512];
    std::memset(szStaticErrorTxt, 0, sizeof szStaticErrorTxt);
    char szAddFull[kDescriptionSize] = "";
    if (cpAddDesc != nullptr) {
        formatDescription(szAddFull, cpAddDesc);
    }
    if (ulSysErrCode != 0 && iErrFlag != kErrorKindNone) {
        const char* systemText = "";
        switch (iErrFlag) {
        case kErrorKindErrno:
        case kErrorKindErrnoToo:
            systemText = std::strerror(static_cast<int>(ulSysErrCode));
            break;
        case kErrorKindResolver:
            systemText = resolverText(ulSysErrCode);
            break;
        default:
            break;
        }
        // A kind that has texts, but none for this code, drops the description too.
        const bool kindHasTexts = iErrFlag == kErrorKindErrno || iErrFlag == kErrorKindErrnoToo ||
                                  iErrFlag == kErrorKindApi || iErrFlag == kErrorKindResolver;
        if (kindHasTexts && *systemText == '\0') {
            return szStaticErrorTxt;
        }
        copyText(szStaticErrorTxt, systemText);
        std::size_t length = std::strlen(szStaticErrorTxt);
        while (length > 0 && std::strchr(" \n\r", szStaticErrorTxt[length - 1]) != nullptr) {
            // Not run by a test: libc and the kernel do not fail so with these arguments.
            szStaticErrorTxt[--length] = '\0';
        }
        if (length == 0 || szStaticErrorTxt[length - 1] != '.') {
            appendText(szStaticErrorTxt, ".");
        }
    }
    if (cpAddDesc != nullptr) {
        if (ulSysErrCode != 0) {
            appendText(szStaticErrorTxt, " ");
        }
        appendText(szStaticErrorTxt, szAddFull);
    }
    return szStaticErrorTxt;
}
