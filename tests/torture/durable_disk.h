// What a folder still holds after a power cut: a file system promises only what was flushed. The
// content of a file counts from its own flush on, a name in a folder (made, renamed or removed)
// from the flush of that folder on.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/base/paths.h"
#include "tests/support/files.h"

#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace qrtln::torture {

using test::read_file;

// What a power cut may do with what was not flushed: whatever a file system happened to write.
enum class PowerCut {
    nothing_kept, // all of it is lost
    names_kept,   // the names are there, the content is not
    at_random     // each name and each content by itself is there, or not, or the content in part
};

class DurableDisk {
  public:
    // All that is below the folder now counts as flushed.
    explicit DurableDisk(const std::string& folder) : m_folder(std::filesystem::canonical(folder)) {
        flush(m_folder);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder))
            flush(entry.path());
    }

    // The file, or folder, that this path below /proc opens was flushed.
    void flushed(const std::string& descriptor) {
        if (is_below(std::filesystem::read_symlink(descriptor).string(), m_folder))
            flush(descriptor);
    }

    // Leaves in the folder what a power cut now would, and ends the use of this object.
    // REQUIRES: nobody uses the folder.
    void cut(PowerCut kind, std::mt19937_64& random) {
        std::string left = m_folder + ".left";
        leave(find(m_folder), left, kind, random);
        m_nodes.clear();
        std::filesystem::remove_all(m_folder);
        std::filesystem::rename(left, m_folder);
    }

  private:
    using Names = std::map<std::string, ino_t>;
    struct Node {
        FileDescriptor held; // so that no other file gets its number
        bool folder = false;
        std::string content; // flushed
        Names names;         // flushed
        std::string path() const { return "/proc/self/fd/" + std::to_string(held.get()); }
    };

    void flush(const std::string& path) {
        Node& node = m_nodes.at(find(path));
        if (node.folder)
            node.names = names_now(node);
        else
            node.content = read_file(path);
    }

    // Or adds, with nothing flushed.
    ino_t find(const std::string& path) {
        FileDescriptor held(::open(path.c_str(), O_PATH | O_CLOEXEC));
        struct stat status {};
        if (!held || ::fstat(held.get(), &status) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        auto [node, added] = m_nodes.try_emplace(status.st_ino);
        if (added) {
            node->second.held = std::move(held);
            node->second.folder = S_ISDIR(status.st_mode);
        }
        return status.st_ino;
    }

    Names names_now(const Node& folder) {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
            names[entry.path().filename()] = find(entry.path());
        return names;
    }

    // Writes to a new place what a power cut leaves of a file or folder.
    void leave(ino_t file, const std::string& place, PowerCut kind, std::mt19937_64& random) {
        const Node& node = m_nodes.at(file);
        if (!node.folder) {
            std::ofstream(place, std::ios::binary)
                << survivor(node.content, read_file(node.path()), kind, random);
            std::filesystem::permissions(place, std::filesystem::perms(0600));
            return;
        }
        std::filesystem::create_directory(place);
        std::filesystem::permissions(place, std::filesystem::perms::owner_all);
        const Names now = names_now(node);
        Names all = now;
        all.insert(node.names.begin(), node.names.end());
        for (const auto& [name, any] : all) {
            bool kept =
                kind == PowerCut::names_kept || (kind == PowerCut::at_random && random() % 2 == 0);
            const Names& names = kept ? now : node.names;
            if (auto entry = names.find(name); entry != names.end())
                leave(entry->second, place + "/" + name, kind, random);
        }
    }

    // What of a content that was not flushed is there.
    static std::string survivor(const std::string& flushed, const std::string& now, PowerCut kind,
                                std::mt19937_64& random) {
        if (kind != PowerCut::at_random || random() % 3 == 0)
            return flushed;
        if (!now.starts_with(flushed) || random() % 2 == 0)
            return now;
        return now.substr(0, flushed.size() + random() % (now.size() - flushed.size() + 1));
    }

    std::string m_folder;
    std::map<ino_t, Node> m_nodes; // all on one disk
};

} // namespace qrtln::torture
