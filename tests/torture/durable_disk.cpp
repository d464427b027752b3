#include "tests/torture/durable_disk.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

namespace qrtln::torture {

namespace {

std::string content_of(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

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

DurableDisk::DurableDisk(const std::string& folder, bool ignores_files)
    : m_folder(fs::canonical(folder)), m_ignores_files(ignores_files) {
    flush_all(m_folder);
}

void DurableDisk::flush_all(const std::string& path) {
    Node& node = m_nodes.at(find(path));
    if (!node.folder) {
        node.content = content_of(path);
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

bool DurableDisk::is_inside(const std::string& descriptor) const {
    return is_below(fs::read_symlink(descriptor).string(), m_folder);
}

DurableDisk::Names DurableDisk::names_now(const Node& folder) {
    Names names;
    for (const auto& entry : fs::directory_iterator(folder.path()))
        names[entry.path().filename()] = find(entry.path());
    return names;
}

bool DurableDisk::ignores_flush(const std::string& descriptor) {
    return m_ignores_files && is_inside(descriptor) && !fs::is_directory(descriptor);
}

void DurableDisk::flushed(const std::string& descriptor) {
    if (!is_inside(descriptor))
        return;
    Node& node = m_nodes.at(find(descriptor));
    if (node.folder)
        node.names = names_now(node);
    else
        node.content = content_of(descriptor);
}

DurableDisk::Image DurableDisk::image(const Key& key, PowerCut kind, std::mt19937_64& random) {
    const Node& node = m_nodes.at(key);
    Image image{node.folder, {}, {}};
    if (!node.folder) {
        image.content = survivor(node.content, content_of(node.path()), kind, random);
        return image;
    }
    const Names now = names_now(node);
    std::set<std::string> all;
    for (const Names* names : {&now, &node.names})
        for (const auto& [name, child] : *names)
            all.insert(name);
    for (const std::string& name : all) {
        bool kept =
            kind == PowerCut::names_kept || (kind == PowerCut::at_random && random() % 2 == 0);
        const Names& names = kept ? now : node.names;
        if (auto entry = names.find(name); entry != names.end())
            image.entries[name] = this->image(entry->second, kind, random);
    }
    return image;
}

void DurableDisk::write(const Image& image, const std::string& folder) {
    for (const auto& [name, entry] : image.entries) {
        std::string path = folder + "/" + name;
        if (entry.folder) {
            fs::create_directory(path);
            write(entry, path);
        } else {
            std::ofstream(path, std::ios::binary) << entry.content;
        }
        fs::permissions(path, entry.folder ? fs::perms::owner_all
                                           : fs::perms::owner_read | fs::perms::owner_write);
    }
}

void DurableDisk::cut(PowerCut kind, std::mt19937_64& random) {
    Image left = image(find(m_folder), kind, random);
    m_nodes.clear();
    for (const auto& entry : fs::directory_iterator(m_folder))
        fs::remove_all(entry.path());
    write(left, m_folder);
}

} // namespace qrtln::torture
