// Memory objects behind handles.
#pragma once

#include <cstdint>
#include <vector>

namespace notes_sim {

/// One memory object. Its address stays the same for its whole life.
struct MemoryObject {
    explicit MemoryObject(std::uint32_t size);

    std::vector<std::uint8_t> bytes;
    unsigned locks = 0;
};

} // namespace notes_sim
