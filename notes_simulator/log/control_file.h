// The log control file: which extents the log has, and where it ends.
#pragma once

#include "notes_simulator/base/byte_codec.h"
#include "notes_simulator/server/server.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace notes_sim {

/// What the control file says.
struct ControlFile {
    Id16 logId{};
    std::uint32_t firstExtent = 1;
    std::uint32_t activeExtent = 1;
    std::uint64_t position = 0; ///< end of the last confirmed record in the active extent
    std::uint64_t nextRecord = 1;
    std::uint64_t totalBytes = 0;
    std::vector<std::uint32_t> archived; ///< extents after firstExtent archived out of order

    /// None where there is none. Throws StatusError(kLogDamaged).
    static std::optional<ControlFile> read(const Server& server);
    /// Throws StatusError.
    void write(const Server& server) const;
};

} // namespace notes_sim
