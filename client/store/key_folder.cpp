#include "client/store/key_folder.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/mirror.h"
#include "client/store/state_folder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::string_view key_suffix = ".json";
constexpr std::size_t maximal_key = 65536;
constexpr const char* options = "--passphrase-file, --passphrase-command or --key-file";

} // namespace

// Below the folder of the store.
std::string KeyFolder::path_of(const std::string& id) const {
    return fmt::format("{}/{}{}", key_folder, id, key_suffix);
}

std::vector<std::string> KeyFolder::names() const {
    if (const Mirror* mirror = m_place.mirror(); mirror != nullptr)
        return mirror->names_in(key_folder);
    if (!m_place.exists(m_store, key_folder))
        return {};
    std::vector<std::string> names = m_place.list_folder(m_store, key_folder);
    std::erase_if(names, [](const std::string& name) { return name.ends_with(temporary_suffix); });
    return names;
}

bool KeyFolder::has_any() const {
    return !names().empty();
}

std::optional<std::string> KeyFolder::read(const std::string& name) const {
    const std::string path = fmt::format("{}/{}", key_folder, name);
    if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
        (void)mirror->fetch(path, Mirror::Cache::fetched_anew);
    std::optional<std::string> bytes = read_small_file(m_store, path, maximal_key);
    throw_if_no_permission("read a key", m_place.path(path), bytes ? 0 : errno);
    return bytes;
}

std::vector<WrappedKey> KeyFolder::list(std::vector<std::string>* problems) const {
    std::vector<WrappedKey> keys;
    for (const std::string& name : names()) {
        std::string problem = "cannot be read";
        std::optional<WrappedKey> key;
        if (const std::optional<std::string> bytes = read(name))
            key = read_wrapped_key(*bytes, problem);
        if (key && name == key->id + std::string(key_suffix))
            keys.push_back(std::move(*key));
        else if (problems != nullptr)
            problems->push_back(fmt::format("{}/{} {}", key_folder, for_terminal(name),
                                            key ? "has another name than its own" : problem));
    }
    std::sort(keys.begin(), keys.end(), [](const WrappedKey& one, const WrappedKey& other) {
        return std::pair(one.created, one.id) < std::pair(other.created, other.id);
    });
    return keys;
}

SecretKey KeyFolder::unlock() const {
    if (key_settings().empty())
        throw ClientError(
            ExitCode::no_permission,
            fmt::format("{} is encrypted, and no key for it was given", m_place.description()),
            fmt::format("give one with {}", options));
    std::vector<std::string> problems;
    const std::vector<WrappedKey> keys = list(&problems);
    if (keys.empty())
        throw ClientError(
            ExitCode::damage_found,
            fmt::format("{} is encrypted, and has no key any more{}{}", m_place.description(),
                        problems.empty() ? "" : ": ", problems.empty() ? "" : problems.front()),
            fmt::format("bring its folder {} back from a copy: nothing else opens it", key_folder));
    for (const Secret& secret : key_settings().secrets())
        for (const WrappedKey& key : keys)
            if (const std::optional<SecretKey> opened = unwrap_key(key, secret))
                return *opened;
    throw ClientError(
        ExitCode::no_permission,
        fmt::format("none of the keys that were given opens {}{}{}", m_place.description(),
                    problems.empty() ? "" : ", of which one key is damaged: ",
                    problems.empty() ? "" : problems.front()),
        fmt::format("give another one with {}; `qrtln key list` shows which there are to who has "
                    "one of them",
                    options));
}

void KeyFolder::add(const WrappedKey& key) const {
    if (int error = make_folder(m_store, key_folder, m_store); error != 0)
        m_place.fail("create the folder keys", error);
    if (int error = flush_folder(m_store); error != 0)
        m_place.fail("flush the folder", error);
    const std::string path = path_of(key.id);
    if (int error = replace_file(m_place.path(path), key.document); error != 0)
        m_place.fail("write a key", error, key_folder);
    Mirror* mirror = m_place.mirror();
    if (mirror == nullptr)
        return;
    try {
        mirror->put_document(path, m_place.path(path));
    } catch (...) {
        mirror->take_back_document(path);
        ::unlinkat(m_store, path.c_str(), 0);
        throw;
    }
}

void KeyFolder::remove(const std::string& id) const {
    const std::string path = path_of(id);
    if (Mirror* mirror = m_place.mirror(); mirror != nullptr) {
        mirror->remove(path);
        mirror->confirm();
    }
    if (::unlinkat(m_store, path.c_str(), 0) != 0 && errno != ENOENT)
        m_place.fail("remove a key", errno, key_folder);
    if (int error = flush_directory(m_store, key_folder); error != 0)
        m_place.fail("flush the folder keys", error);
}

bool KeyFolder::is_path_of_key(std::string_view path) {
    const std::string before = fmt::format("{}/", key_folder);
    if (path.ends_with(temporary_suffix))
        path.remove_suffix(temporary_suffix.size());
    if (!path.starts_with(before) || !path.ends_with(key_suffix))
        return false;
    path.remove_prefix(before.size());
    path.remove_suffix(key_suffix.size());
    return path.size() == WrappedKey::id_digits && from_hex(std::string(path)).has_value();
}

void KeyFolder::remove_all() const noexcept {
    try {
        for (const std::string& name : names()) {
            const std::string path = fmt::format("{}/{}", key_folder, name);
            if (!is_path_of_key(path))
                continue;
            if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
                (void)mirror->take_back(path);
            ::unlinkat(m_store, path.c_str(), 0);
        }
        ::unlinkat(m_store, key_folder, AT_REMOVEDIR); // when it is empty
    } catch (...) {
        // Out of memory: they stay, and open nothing.
    }
}

} // namespace qrtln
