#include "client/base/room.h"

#include "client/base/error.h"
#include "client/base/paths.h"
#include "client/base/text.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/statvfs.h>

namespace qrtln {

std::optional<std::uint64_t> free_bytes(const std::string& path) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0)
        return std::nullopt;
    return static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
}

RoomNeeded& RoomCount::at(const std::string& folder) {
    std::string place = nearest_existing(folder);
    struct stat status {};
    if (::stat(place.c_str(), &status) != 0)
        status.st_dev = 0;
    auto [entry, added] = m_rooms.try_emplace(status.st_dev);
    if (added)
        entry->second = {place, status.st_dev, 0, free_bytes(place).value_or(UINT64_MAX)};
    return entry->second;
}

std::vector<RoomNeeded> RoomCount::list() const {
    std::vector<RoomNeeded> rooms;
    for (const auto& [device, room] : m_rooms)
        rooms.push_back(room);
    return rooms;
}

std::uint64_t occupied_bytes(const std::optional<struct stat>& file) {
    if (!file)
        return 0;
    constexpr blkcnt_t block = 512; // the unit of st_blocks, whatever the file system's blocks are
    return static_cast<std::uint64_t>(std::min<off_t>(file->st_blocks * block, file->st_size));
}

void require_room(const std::vector<RoomNeeded>& rooms, const std::string& options) {
    for (const RoomNeeded& room : rooms)
        if (room.available < room.needed)
            throw ClientError(ExitCode::failed,
                              fmt::format("the file system of {} has {} ({} bytes) free, and this "
                                          "needs {} ({} bytes): nothing was written",
                                          for_terminal(room.place), human_bytes(room.available),
                                          room.available, human_bytes(room.needed), room.needed),
                              "make room there, or name another folder with " + options);
}

std::string room_text(const std::vector<RoomNeeded>& rooms) {
    std::string text;
    for (const RoomNeeded& room : rooms)
        text += fmt::format("room on the file system of {}: {} needed, {} free{}\n",
                            for_terminal(room.place), human_bytes(room.needed),
                            human_bytes(room.available),
                            room.available < room.needed ? ": NOT ENOUGH" : "");
    return text;
}

nlohmann::json room_json(const std::vector<RoomNeeded>& rooms) {
    nlohmann::json array = nlohmann::json::array();
    for (const RoomNeeded& room : rooms)
        array.push_back({{"place", printable_utf8(room.place)},
                         {"needed", room.needed},
                         {"free", room.available}});
    return array;
}

} // namespace qrtln
