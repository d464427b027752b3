// Database links: small text files with the name of a database, whose first line is the path of a
// database elsewhere. The server opens that one instead.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qrtln {

// A larger file is no link.
inline constexpr std::uint64_t maximal_link_file = 65536; // bytes

// The first line of a file that leads to another one; nothing where that is no full path.
std::optional<std::string> link_target(const std::string& content);

// The path that a database link names; nothing for any other file, and for one that cannot be read.
std::optional<std::string> database_link_target(const std::string& path);

} // namespace qrtln
