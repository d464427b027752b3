// Conversion between native text, LMBCS and UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace notes_sim {

enum class Translation { kNativeToLmbcs = 0, kLmbcsToNative = 1, kLmbcsToUtf8 = 22 };

/// Whether the locale that LC_ALL, LC_CTYPE or LANG names, in this order, has UTF-8.
bool nativeIsUtf8();

/// Converts text and cuts it so that at most limit bytes remain, never inside a character.
/// Native text is in the character set that LC_ALL, LC_CTYPE or LANG names, UTF-8 when none does.
/// What does not convert becomes a question mark (U+FFFD in UTF-8).
std::string translateText(Translation translation, std::string_view text, std::size_t limit);

} // namespace notes_sim
