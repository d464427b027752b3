// The room that a restore needs.
#pragma once

#include "client/base/room.h"
#include "client/restore/planned_item.h"

#include <string>
#include <vector>

namespace qrtln {

// What the items need on each file system; `tmp_dir` is that of the private folder.
std::vector<RoomNeeded> restore_room(const std::vector<PlannedItem>& items,
                                     const std::string& tmp_dir);

} // namespace qrtln
