// The store of a command that gets data out of it and keeps notes about that.
#pragma once

#include "client/store/state_folder.h"
#include "client/store/store.h"

#include <memory>
#include <string>

namespace qrtln {

// Opens a store for reading. All its sets are held: what is planned from any of them is there until
// it is done. Throws as the store does.
std::unique_ptr<Store> open_store_for_reading(const std::string& directory);

// Opens the store to write notes about the live databases in it. Getting data out must not need the
// right to write: a store that can only be read is opened so, and `problem` says why. Throws
// ClientError: no_store, locked, failed. The run-time data are those of `server`.
std::unique_ptr<Store> open_store_for_notes(const std::string& directory, const std::string& server,
                                            std::string& problem);

// Opens the store for what keeps notes and run-time data and touches no set: for changes, or with a
// folder for state for reading, and only so when the request does not write. Where the store can
// only be read, `way_out` becomes a part of the hint. Throws as the openings do.
std::unique_ptr<Store> open_store_or_state(const StateRequest& request, const std::string& way_out);

} // namespace qrtln
