#include "notes_simulator/base/text_translation.h"

#include "notes_simulator/base/status.h"

#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace notes_sim {

namespace {

struct CloseConverter {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

Converter openConverter(const char* name) {
    UErrorCode error = U_ZERO_ERROR;
    Converter converter(ucnv_open(name, &error));
    if (U_FAILURE(error)) {
        throw StatusError(kInvalidArgument, std::string("character set ") + name);
    }
    return converter;
}

/// The character set after the dot of the locale's name; empty when it names none.
std::string localeCharset() {
    const char* locale = nullptr;
    for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        locale = std::getenv(variable);
        if (locale != nullptr && *locale != '\0') {
            break;
        }
    }
    const std::string_view name = locale == nullptr ? "" : locale;
    const auto dot = name.find('.');
    return dot == std::string_view::npos
               ? std::string()
               : std::string(name.substr(dot + 1, name.find('@', dot) - dot - 1));
}

/// The character set of the locale; UTF-8 when it names none that is known. Read anew at each call:
/// it is the host that sets its locale, at a time of its own.
Converter openNative() {
    if (const std::string charset = localeCharset(); !charset.empty()) {
        UErrorCode error = U_ZERO_ERROR;
        Converter converter(ucnv_open(charset.c_str(), &error));
        if (U_SUCCESS(error) && converter) {
            return converter;
        }
    }
    return openConverter("UTF-8");
}

/// LMBCS optimised for the Latin-1 group; every other character carries its group byte.
Converter openLmbcs() {
    return openConverter("LMBCS-1");
}

/// All text as code points; bytes that do not convert become U+FFFD.
icu::UnicodeString decoded(UConverter& from, std::string_view text) {
    UErrorCode error = U_ZERO_ERROR;
    const icu::UnicodeString result(text.data(), static_cast<int32_t>(text.size()), &from, error);
    return U_SUCCESS(error) ? result : icu::UnicodeString();
}

} // namespace

bool nativeIsUtf8() {
    const std::string charset = localeCharset();
    return ucnv_compareNames(charset.c_str(), "UTF-8") == 0; // without regard to case and "-"
}

std::string translateText(Translation translation, std::string_view text, std::size_t limit) {
    const bool toLmbcs = translation == Translation::kNativeToLmbcs;
    const Converter from = toLmbcs ? openNative() : openLmbcs();
    Converter to;
    if (toLmbcs) {
        to = openLmbcs();
    } else if (translation == Translation::kLmbcsToNative) {
        to = openNative();
    } else {
        to = openConverter("UTF-8");
    }
    const icu::UnicodeString points = decoded(*from, text);
    std::string out;
    for (int32_t at = 0; at < points.length();) {
        const UChar32 point = points.char32At(at);
        at += U16_LENGTH(point);
        char bytes[16] = {};
        std::size_t length = 1;
        if (point >= 0x20 && point < 0x80) {
            bytes[0] = static_cast<char>(point); // the same in each of these character sets
        } else if (point == 0xFFFD && translation != Translation::kLmbcsToUtf8) {
            bytes[0] = '?';
        } else {
            UErrorCode error = U_ZERO_ERROR;
            const icu::UnicodeString one(point);
            const int32_t got = ucnv_fromUChars(to.get(), bytes, sizeof bytes, one.getBuffer(),
                                                one.length(), &error);
            const bool fits =
                U_SUCCESS(error) && got > 0 && got <= static_cast<int32_t>(sizeof bytes);
            // ICU substitutes the control character 0x1A in sets that lack the character.
            if (!fits || bytes[0] == 0x1A) {
                bytes[0] = '?';
            } else {
                length = static_cast<std::size_t>(got);
            }
        }
        if (out.size() + length > limit) {
            break;
        }
        out.append(bytes, length);
    }
    return out;
}

} // namespace notes_sim
