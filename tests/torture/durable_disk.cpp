#include "tests/torture/durable_disk.h"

#include "tests/torture/bytes_of.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

namespace qrtln::torture {

namespace {

// What of a content that was not flushed is there.
std::string survivor(const std::string& flushed, const std::string& now, PowerCut kind,
                     std::mt19937_64& random) {
    if (kind != PowerCut::at_random || random() % 3 == 0)
        return flushed;
    if (!now.starts_with(flushed) || random() % 2 == 0)
        return now;
    return now.substr(0, flushed.size() + random() % (now.size() - flushed.size() + 1));
}

} // namespace

DurableDisk::DurableDisk(const std::string& folder) : m_folder(fs::canonical(folder)) {
    flush_all(m_folder);
}

void DurableDisk::flush_all(const std::string& path) {
    Node& node = m_nodes.at(find(path));
    if (!node.folder) {
        node.content = bytes_of(path);
        return;
    }
    node.names = names_now(node);
    for (const auto& [name, key] : node.names)
        flush_all(path + "/" + name);
}

DurableDisk::Key DurableDisk::find(const std::string& path) {
    FileDescriptor held(::open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!held || ::fstat(held.get(), &status) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    Key key{status.st_dev, status.st_ino};
    auto [node, added] = m_nodes.try_emplace(key);
    if (added) {
        node->second.held = std::move(held);
        node->second.folder = S_ISDIR(status.st_mode);
    }
    return key;
}

DurableDisk::Names DurableDisk::names_now(const Node& folder) {
    Names names;
    for (const auto& entry : fs::directory_iterator(folder.path()))
        names[entry.path().filename()] = find(entry.path());
    return names;
}

void DurableDisk::flushed(const std::string& descriptor) {
    if (!is_below(fs::read_symlink(descriptor).string(), m_folder))
        return;
    Node& node = m_nodes.at(find(descriptor));
    if (node.folder)
        node.names = names_now(node);
    else
        node.content = bytes_of(descriptor);
}

void DurableDisk::leave(const Key& key, const std::string& place, PowerCut kind,
                        std::mt19937_64& random) {
    const Node& node = m_nodes.at(key);
    if (!node.folder) {
        std::ofstream(place, std::ios::binary)
            << survivor(node.content, bytes_of(node.path()), kind, random);
        fs::permissions(place, fs::perms::owner_read | fs::perms::owner_write);
        return;
    }
    fs::create_directory(place);
    fs::permissions(place, fs::perms::owner_all);
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

void DurableDisk::cut(PowerCut kind, std::mt19937_64& random) {
    std::string left = m_folder + ".left";
    leave(find(m_folder), left, kind, random);
    m_nodes.clear();
    fs::remove_all(m_folder);
    fs::rename(left, m_folder);
}

} // namespace qrtln::torture
