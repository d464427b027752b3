// Files of a test, read, written and compared whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace qrtln::test {

// "" when there is none.
inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// In the middle of a file; a second time flips it back.
inline void flip_a_bit(const std::string& file, std::size_t offset) {
    std::string bytes = read_file(file);
    bytes.at(offset) ^= 4;
    write_file(file, bytes);
}
inline void flip_a_bit(const std::string& file) {
    flip_a_bit(file, read_file(file).size() / 2);
}

// Every file, folder and content below a folder, to compare states.
inline std::map<std::string, std::string> snapshot(const std::string& folder) {
    std::map<std::string, std::string> state;
    if (!std::filesystem::exists(folder))
        return state;
    state["."] = "folder";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        std::string name = entry.path().string().substr(folder.size());
        // The lock file names the process that had it last.
        if (name != "/lock")
            state[name] = entry.is_regular_file() ? read_file(entry.path()) : "folder";
    }
    return state;
}

} // namespace qrtln::test
