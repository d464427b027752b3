#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace qrtln::torture {

// The bytes of a file; empty when there is none.
inline std::string bytes_of(const std::filesystem::path& file) {
    std::ostringstream bytes;
    bytes << std::ifstream(file, std::ios::binary).rdbuf();
    return bytes.str();
}

} // namespace qrtln::torture
