// The files of the log's extents: which file holds which extent. Their names tell it, but for a
// server in the mood "logs": there only their headers do.
#pragma once

#include "notes_simulator/log/extent.h"
#include "notes_simulator/server/server.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace notes_sim {

struct ExtentFile {
    std::filesystem::path path;
    ExtentHeader header;
};

/// The extents in the log folder, in the order of their names; files that are none are passed over.
std::vector<ExtentFile> extentFiles(const Server& server);

/// The file of an extent of this log; where there is none, the path at which it would be made, and
/// is asked for in a recovery: no other file lies there.
std::filesystem::path extentFile(const Server& server, const Id16& logId, std::uint32_t extent);

/// A file whose extent was archived and that is to be used again; none in most servers.
std::optional<std::filesystem::path> freeExtentFile(const Server& server);

} // namespace notes_sim
