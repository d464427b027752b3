// Folders that hold nothing for the moment: what was in them is not known to be gone.
#pragma once

#include <optional>
#include <string>

namespace qrtln {

struct AwayFolder {
    std::string path;
    std::string reason;
    bool readable = true;
};

// The topmost folder above `path`, below `root`, that is missing, cannot be read, or holds nothing,
// as a place where a disk is not mounted; nothing when there is none. REQUIRES: `path` is below
// `root`.
std::optional<AwayFolder> away_folder(const std::string& path, const std::string& root);

} // namespace qrtln
