// The items of one set by the names that a person types.
#pragma once

#include "client/sets/manifest.h"

#include <string>
#include <vector>

namespace qrtln {

// The items with the path `given`, or below it, in the order of the set: a full path, or one
// relative to the data directory that the set recorded. Throws ClientError(no_such) when there is
// none; the hint of an incremental set has `command` for the set that it builds on.
std::vector<const ManifestItem*> items_named(const Manifest& manifest, const std::string& given,
                                             const std::string& command);

// What the set lacks as it builds on another one, and how to get it: a sentence with the name of
// that set for a diff or incr set, else empty. `command` is the one to repeat.
std::string base_hint(const Manifest& manifest, const std::string& command);

} // namespace qrtln
