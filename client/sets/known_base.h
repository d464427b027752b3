// Whether what backups leave beside the sets is there: the index of databases and the list of owed
// ones. Those of a store elsewhere are on this machine, and go with it, or are older than the store
// where the machine was brought back from a copy; a store that was made by copying has none.
#pragma once

#include "client/store/store.h"

#include <string>

namespace qrtln {

// To be called when a store is made by copying sets. Returns 0 or the errno.
int note_copied(const Store& store);

// To be called when a complete full set of the whole server is there: from here on what is noted on
// this machine leads on from it. Returns 0 or the errno.
int note_base(const Store& store, const std::string& set);

// Whether nothing of that is there.
bool is_new_here(const Store& store);

// Why nothing may build on this base; empty: it may.
std::string unknown_base(const Store& store, const std::string& base);

} // namespace qrtln
