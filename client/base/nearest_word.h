// The word that was probably meant.
#pragma once

#include <string>
#include <vector>

namespace qrtln {

// The one of `words` that a slip or two of the fingers makes of `typed` (a letter too many, too
// few, another one, or two that changed places); empty when there is none that near. Of several the
// nearest, and of those the first.
std::string nearest_word(const std::string& typed, const std::vector<std::string>& words);

} // namespace qrtln
