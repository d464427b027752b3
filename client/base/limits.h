// What the module has room for: paths are looked at before they are passed to it.
#pragma once

#include <cstddef>
#include <string>

namespace qrtln {

// The size of the module's path buffers, the NUL included.
inline constexpr std::size_t module_path_size = 1028;

// What is wrong with the full path of an item by its text alone: not absolute, "..", a NUL, longer
// than the module takes, or than `limit` bytes with a NUL behind them. Empty when nothing is.
std::string path_problem(const std::string& path, std::size_t limit = module_path_size);

} // namespace qrtln
