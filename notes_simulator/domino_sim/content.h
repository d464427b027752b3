// Made-up notes: the same seed gives the same notes.
#pragma once

#include "notes_simulator/engine/database.h"

#include <cstdint>
#include <random>
#include <string>

namespace domino_sim {

class ContentGenerator {
  public:
    explicit ContentGenerator(std::uint64_t seed) : m_random(seed) {}

    /// A note without ids, with a subject and a body of 0.2 to 20 KiB; most are short.
    notes_sim::NoteChange newNote();

    /// A whole number from 0 to below limit.
    std::uint64_t below(std::uint64_t limit) { return m_random() % limit; }

    /// Words of this length together.
    std::string words(std::size_t length);

  private:
    std::mt19937_64 m_random;
};

} // namespace domino_sim
