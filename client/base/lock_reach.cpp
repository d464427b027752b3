#include "client/base/lock_reach.h"

#include <array>
#include <fmt/format.h>
#include <fstream>
#include <sstream>
#include <string_view>

namespace qrtln {

namespace {

bool has_mount_option(const std::string& options, const std::string& option) {
    return fmt::format(",{},", options).find(fmt::format(",{},", option)) != std::string::npos;
}

// The number of the mount that an open file is on; empty when the system does not tell.
std::string mount_of(int file) {
    std::ifstream information("/proc/self/fdinfo/" + std::to_string(file));
    std::string mount;
    for (std::string word; information >> word;)
        if (word == "mnt_id:")
            information >> mount;
    return mount;
}

} // namespace

bool locks_reach_every_host(const std::string& type, const std::string& options) {
    if (type == "nfs" || type == "nfs4")
        return has_mount_option(options, "local_lock=none");
    if (type == "cifs" || type == "smb3")
        return !has_mount_option(options, "nobrl");
    if (type == "lustre")
        return has_mount_option(options, "flock");
    // Of these each server, daemon or version has its own way.
    static constexpr std::array<std::string_view, 8> not_known = {
        "fuse", "9p", "virtiofs", "afs", "coda", "vboxsf", "prl_fs", "beegfs"};
    for (std::string_view one : not_known)
        if (type == one)
            return false;
    return !type.starts_with("fuse.");
}

bool locks_reach_every_host(int folder) {
    const std::string mount = mount_of(folder);
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string number, word, type, source, options;
        words >> number;
        if (mount.empty() || number != mount)
            continue;
        while (words >> word && word != "-") {
        }
        words >> type >> source >> options;
        return !type.empty() && locks_reach_every_host(type, options);
    }
    return false;
}

} // namespace qrtln
