// Texts: of statuses, and between character sets.
#include "notes_simulator/api/call.h"
#include "notes_simulator/base/text_translation.h"
#include "notes_simulator/notes_simulator.h"

#include <algorithm>
#include <cstring>

using namespace notes_sim;

namespace {

constexpr WORD kUpToNul = 0xFFFF;

} // namespace

WORD OSLoadString(HMODULE hModule, STATUS StringCode, char* retBuffer, WORD BufferLength) {
    return valueCall("OSLoadString", std::to_string(hModule) + ", " + std::to_string(StringCode),
                     WORD{0}, [&](ApiCall&) -> WORD {
                         require(retBuffer);
                         const Status status = StringCode & 0x3FFF;
                         return copyText(statusText(status), retBuffer, BufferLength);
                     });
}

WORD OSTranslate(WORD TranslateMode, const char* In, WORD InLength, char* Out, WORD OutLength) {
    const std::string arguments =
        std::to_string(TranslateMode) + ", " +
        quoted(In == nullptr || InLength == kUpToNul ? In : std::string(In, InLength).c_str()) +
        ", " + std::to_string(InLength) + ", " + std::to_string(OutLength);
    return valueCall("OSTranslate", arguments, WORD{0}, [&](ApiCall& call) -> WORD {
        require(In);
        require(Out);
        const bool terminated = InLength == kUpToNul;
        if ((TranslateMode != 0 && TranslateMode != 1 && TranslateMode != 22) || OutLength == 0) {
            return 0;
        }
        const std::size_t limit = terminated ? OutLength - 1U : OutLength;
        const std::string_view in(In, terminated ? std::strlen(In) : InLength);
        const auto& server = process().server;
        const bool ascii =
            std::all_of(in.begin(), in.end(), [](char c) { return static_cast<BYTE>(c) < 0x80; });
        const bool native = static_cast<Translation>(TranslateMode) != Translation::kLmbcsToUtf8;
        if (server && server->moods.has(Mood::kLocale) && native && !ascii && !nativeIsUtf8()) {
            *Out = '\0';
            return 0;
        }
        const std::string out = translateText(static_cast<Translation>(TranslateMode), in, limit);
        std::memmove(Out, out.data(), out.size()); // callers may convert in place
        if (terminated) {
            Out[out.size()] = '\0';
        }
        call.output("out", out.c_str());
        return static_cast<WORD>(out.size());
    });
}
