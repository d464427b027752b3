#include "notes_simulator/api/memory_objects.h"

namespace notes_sim {

// Filled with a pattern: nobody may rely on zeros in fresh memory.
MemoryObject::MemoryObject(std::uint32_t size) : bytes(size, 0xA5) {}

} // namespace notes_sim
