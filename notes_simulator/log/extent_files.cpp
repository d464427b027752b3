#include "notes_simulator/log/extent_files.h"

#include <algorithm>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

std::size_t recordsIn(const fs::path& file) {
    std::size_t records = 0;
    readExtent(file, [&records](const LogRecord&) {
        ++records;
        return true;
    });
    return records;
}

/// By its number; under another letter where a file of that name holds another extent.
fs::path unusedPath(const Server& server, std::uint32_t extent) {
    std::string name = extentFileName(server.logNumber(extent));
    std::error_code error;
    while (fs::exists(server.logs / name, error) && name.front() < 'Z') {
        ++name.front();
    }
    return server.logs / name;
}

} // namespace

std::vector<ExtentFile> extentFiles(const Server& server) {
    std::vector<fs::path> paths;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(server.logs, error)) {
        if (entry.path().extension() == ".TXN" && entry.is_regular_file(error)) {
            paths.push_back(entry.path());
        }
    }
    std::sort(paths.begin(), paths.end());
    std::vector<ExtentFile> files;
    for (const fs::path& path : paths) {
        if (const auto header = extentHeaderOf(path)) {
            files.push_back({path, *header});
        }
    }
    return files;
}

fs::path extentFile(const Server& server, const Id16& logId, std::uint32_t extent) {
    if (!server.moods.has(Mood::kLogs)) {
        return server.logs / extentFileName(extent);
    }
    std::optional<fs::path> found;
    for (const ExtentFile& file : extentFiles(server)) {
        if (file.header.free || file.header.logId != logId || file.header.number != extent) {
            continue;
        }
        // Of the extent and a copy of it that was put back, the one that goes further.
        if (!found || recordsIn(file.path) > recordsIn(*found)) {
            found = file.path;
        }
    }
    return found ? *found : unusedPath(server, extent);
}

std::optional<fs::path> freeExtentFile(const Server& server) {
    if (!server.moods.has(Mood::kLogs)) {
        return std::nullopt;
    }
    for (const ExtentFile& file : extentFiles(server)) {
        if (file.header.free) {
            return file.path;
        }
    }
    return std::nullopt;
}

} // namespace notes_sim
