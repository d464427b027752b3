// The whole logical content of a database, as digests that can be compared.
#pragma once

#include "notes_simulator/engine/database.h"

#include <map>
#include <string>

namespace domino_sim {

/// Digests of every note and stub, by note id, and of everything together.
struct DatabaseState {
    notes_sim::DatabaseHeader header;
    std::map<notes_sim::NoteId, std::string> notes;
    std::map<notes_sim::NoteId, std::string> stubs;
    std::string integrity; ///< "ok", or what the integrity check says
    std::string digest;    ///< over notes, stubs, unread marks; empty when they cannot be read
};

/// SHA-256 in hexadecimal digits.
std::string sha256(std::span<const std::uint8_t> bytes);

/// The digest of a note or stub as the change leaves it: 32 hexadecimal digits.
std::string digestOf(const notes_sim::NoteChange& change);

/// Reads a database in one transaction. With check its integrity is checked, too; damage is then
/// told in integrity and does not throw.
DatabaseState readState(notes_sim::Database& database, bool check);

} // namespace domino_sim
