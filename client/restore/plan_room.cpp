#include "client/restore/plan_room.h"

#include "client/base/paths.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <sys/stat.h>

namespace qrtln {

namespace {

std::uint64_t size_of(const std::optional<struct stat>& file) {
    return file ? static_cast<std::uint64_t>(file->st_size) : 0;
}

} // namespace

std::vector<RoomNeeded> restore_room(const std::vector<PlannedItem>& items,
                                     const std::string& tmp_dir) {
    RoomCount rooms;
    std::uint64_t largest_activated = 0;
    std::map<dev_t, std::uint64_t> largest_replaced;
    std::string tmp = absolute_path(tmp_dir);
    for (const PlannedItem& planned : items) {
        std::uint64_t size = planned.item.size;
        std::uint64_t old = occupied_bytes(planned.existing);
        if (planned.action == RestoreAction::write && old > 0 && planned.existing->st_nlink > 1)
            old = 0; // its other names keep it
        if (planned.keeps_replaced)
            rooms.at(folder_of(planned.target)).needed += size_of(planned.existing);
        std::uint64_t growth = size > old ? size - old : 0;
        switch (planned.action) {
        case RestoreAction::place:
            rooms.at(tmp).needed += size;
            break;
        case RestoreAction::activate:
            rooms.at(folder_of(planned.target)).needed += growth;
            if (planned.copy_waits)
                break;
            largest_activated = std::max(largest_activated, size);
            if (!planned.used_by.empty()) // its copy stays
                rooms.at(tmp).needed += size;
            break;
        case RestoreAction::write: {
            // The old file is there until the new one is whole.
            RoomNeeded& room = rooms.at(folder_of(planned.target));
            room.needed += growth;
            std::uint64_t& largest = largest_replaced[room.device];
            largest = std::max(largest, std::min(old, size));
            break;
        }
        case RestoreAction::create_folder:
        case RestoreAction::leave_out:
        case RestoreAction::refuse:
            break;
        }
    }
    if (largest_activated > 0)
        rooms.at(tmp).needed += largest_activated; // copies come and go one by one
    std::vector<RoomNeeded> needed = rooms.list();
    for (RoomNeeded& room : needed)
        room.needed += largest_replaced[room.device];
    return needed;
}

} // namespace qrtln
