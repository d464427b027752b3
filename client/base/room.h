// Room on file systems: what is free, and what a command needs.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace qrtln {

// The bytes free to this process on the file system of `path`, or nothing with errno set.
std::optional<std::uint64_t> free_bytes(const std::string& path);

struct RoomNeeded {
    std::string place; // an existing folder
    dev_t device = 0;
    std::uint64_t needed = 0;
    std::uint64_t available = 0;
};

// Adds up what is needed on each file system.
class RoomCount {
  public:
    // The folder need not exist: the nearest one above it that does tells the file system.
    RoomNeeded& at(const std::string& folder);
    std::vector<RoomNeeded> list() const;

  private:
    std::map<dev_t, RoomNeeded> m_rooms;
};

// The bytes that give way when this file is written anew: what its blocks hold, of a sparse or
// compressed file less than its size. 0 for none.
std::uint64_t occupied_bytes(const std::optional<struct stat>& file);

// Throws ClientError(failed) when a file system has less room than is needed; `options` are those
// that name another folder.
void require_room(const std::vector<RoomNeeded>& room,
                  const std::string& options = "--tmp-dir or --to");

// A line for each file system, and its JSON.
std::string room_text(const std::vector<RoomNeeded>& room);

nlohmann::json room_json(const std::vector<RoomNeeded>& room);

} // namespace qrtln
