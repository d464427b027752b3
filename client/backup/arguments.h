// The databases that a command names: from what a person types to what the module takes.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

struct DatabaseArgument {
    std::string given;      // as typed
    std::string path;       // absolute, below the data directory, without a trailing "/"
    bool directory = false; // it names a folder: all databases in it
    std::string value;      // of the control variable DATABASE
};

// Resolves each argument: relative ones are below the data directory. Throws ClientError(failed)
// that names the first one that does not exist, lies elsewhere, or cannot be passed to the module.
// Arguments that lie in the folder of another, and repeated ones, are dropped.
std::vector<DatabaseArgument> resolve_database_arguments(const std::vector<std::string>& given,
                                                         const std::string& data_directory);

// What a look over the selected files tells before the run starts.
struct SelectionScan {
    // Regular files that the module takes for databases, but for links to others.
    std::vector<std::string> databases;
    std::uint64_t largest = 0; // bytes of the largest database
    std::string largest_path;
    // Files and folders that the module passes over silently, with the reason.
    std::vector<std::pair<std::string, std::string>> unreachable;
};

// Walks the data directory, or the arguments if there are any, as the module does: linked folders
// are entered, unless they hold the link. Stops when interrupted.
SelectionScan scan_selection(const std::string& data_directory,
                             const std::vector<DatabaseArgument>& arguments);

} // namespace qrtln
