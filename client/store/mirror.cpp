#include "client/store/mirror.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/remote/remote_settings.h"
#include "client/store/state_folder.h"
#include "client/store/store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::array parts = {"objects", "sets", "runtime", "packs", "maps", "keys"};
constexpr std::size_t maximal_store_document = 65536;
// A file of maps that is fetched whole: what many small databases share.
constexpr std::uint64_t small_file = std::uint64_t{4} << 20;
constexpr std::uint64_t copied_at_once = std::uint64_t{1} << 20;

std::string state_root() {
    if (!remote_settings().state.empty())
        return absolute_path(remote_settings().state);
    if (::geteuid() == 0)
        return "/var/lib/qrtln";
    const char* state = std::getenv("XDG_STATE_HOME");
    const char* home = std::getenv("HOME");
    if (state != nullptr && *state == '/')
        return std::string(state) + "/qrtln";
    return std::string(home != nullptr ? home : "") + "/.local/state/qrtln";
}

void make_path(const std::string& path) {
    for (const std::string& step : steps_to(path))
        if (::mkdir(step.c_str(), 0700) != 0 && errno != EEXIST)
            throw ClientError(
                ExitCode::failed,
                fmt::format("cannot create the folder {} for what a store elsewhere needs here: {}",
                            for_terminal(step), system_error_text(errno)),
                "name another one with --state");
}

RemoteOptions remote_options(const std::string& place) {
    // Without a remote rclone takes it for a folder of this machine.
    if (place.find(':', remote_prefix.size()) == std::string::npos)
        throw ClientError(ExitCode::usage,
                          fmt::format("the store {} names no remote", for_terminal(place)),
                          "say rclone:REMOTE:PATH; `rclone listremotes` tells which remotes there "
                          "are");
    return {place.substr(remote_prefix.size()), remote_settings().bandwidth,
            remote_settings().patience};
}

} // namespace

bool is_elsewhere(const std::string& store) {
    return store.starts_with(remote_prefix);
}

Mirror::Mirror(const std::string& place)
    : m_place(place), m_files_there(remote_options(place)), m_claim(m_files_there, m_place) {
    std::optional<std::string> format =
        m_files_there.read_small(format_file, maximal_store_document);
    m_is_new = !format;
    m_id = m_is_new ? new_store_id() : store_id_in(*format);
    if (m_id.empty())
        throw ClientError(ExitCode::no_store,
                          fmt::format("store.json of the store {} has no name of the store, or is "
                                      "damaged",
                                      for_terminal(m_place)),
                          "a store that is made elsewhere always has one: bring it back from a "
                          "copy");
    m_directory = fmt::format("{}/{}", state_root(), m_id);
    if (m_is_new)
        return;
    make_folders();
    if (int error = replace_file(local(format_file), *format); error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write {}: {}", for_terminal(local(format_file)),
                                      system_error_text(error)));
}

void Mirror::make_folders() {
    for (const char* part : parts)
        make_path(local(part));
}

void Mirror::make_folder() {
    make_path(m_directory);
}

void Mirror::claim() {
    m_claim.take();
}

void Mirror::look(bool trusted) {
    m_trusted = trusted;
    m_files.clear();
    for (const RemoteFile& file : m_files_there.list(""))
        if (file.name != claim_file)
            m_files.emplace(file.name, file.size);
    if (m_is_new && m_files.contains(format_file))
        throw ClientError(
            ExitCode::locked,
            fmt::format("somebody else is making the store {}", for_terminal(m_place)),
            "run the same command again");
}

void Mirror::drop_unsent() noexcept {
    try {
        for (const std::string& name :
             names_in_folder(local("packs")).value_or(std::vector<std::string>()))
            if (name.ends_with(".pack"))
                ::unlink(local("packs/" + name).c_str());
        for (const std::string& folder :
             names_in_folder(local("objects")).value_or(std::vector<std::string>()))
            for (const std::string& name :
                 names_in_folder(local("objects/" + folder)).value_or(std::vector<std::string>()))
                if (name.ends_with(".zst"))
                    ::unlink(local(fmt::format("objects/{}/{}", folder, name)).c_str());
    } catch (...) {
        // Out of memory: they stay until the next run.
    }
}

std::optional<std::uint64_t> Mirror::size_of(const std::string& name) const {
    const auto found = m_files.find(name);
    return found == m_files.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::string> Mirror::names_in(const std::string& folder) const {
    std::vector<std::string> names;
    const std::string before = folder + "/";
    for (auto file = m_files.lower_bound(before);
         file != m_files.end() && file->first.starts_with(before); ++file) {
        std::string name = file->first.substr(before.size());
        name.resize(std::min(name.find('/'), name.size()));
        if (names.empty() || names.back() != name)
            names.push_back(std::move(name));
    }
    return names;
}

bool Mirror::fetch(const std::string& name, Cache cache) {
    const std::optional<std::uint64_t> size = size_of(name);
    if (!size)
        return false;
    const std::lock_guard lock(m_mutex);
    if (m_fetched.contains(name))
        return true;
    struct stat status {};
    const bool has_copy = cache == Cache::used && m_trusted &&
                          ::stat(local(name).c_str(), &status) == 0 &&
                          static_cast<std::uint64_t>(status.st_size) == *size;
    if (!has_copy)
        copy(name);
    m_fetched.insert(name);
    return true;
}

void Mirror::fetch_small(const std::string& name) {
    if (size_of(name).value_or(small_file) < small_file)
        (void)fetch(name, Cache::used);
}

// What cannot be read there has no copy here that could stand for it.
void Mirror::copy(const std::string& name) {
    constexpr int most_tries = 5;
    int error = copy_once(name);
    // Who begins to write removes what a killed run left, and this with it.
    for (int tries = 1; error == ENOENT && tries < most_tries; ++tries)
        error = copy_once(name);
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write {}: {}", for_terminal(local(name)),
                                      system_error_text(error)));
}

int Mirror::copy_once(const std::string& name) {
    const std::string temporary =
        fmt::format("{}.{}{}", local(name), ::getpid(), temporary_suffix); // others read it as well
    FileDescriptor file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    int error = file ? 0 : errno;
    m_ahead.forget(name);
    std::vector<std::byte> bytes;
    const std::uint64_t size = m_files.at(name);
    for (std::uint64_t at = 0; at < size && error == 0; at += bytes.size()) {
        bytes.resize(std::min(copied_at_once, size - at));
        if (!m_ahead.read(name, size, at, bytes)) {
            ::unlink(temporary.c_str());
            ::unlink(local(name).c_str());
            return 0;
        }
        error = write_all(file.get(), bytes);
    }
    if (error == 0)
        error = file.close_checked();
    if (error == 0 && ::rename(temporary.c_str(), local(name).c_str()) != 0)
        error = errno;
    if (error != 0)
        ::unlink(temporary.c_str());
    return error;
}

StoredFile Mirror::open(const std::string& name) {
    const std::uint64_t size = size_of(name).value_or(0);
    return {size, [this, name, size](std::uint64_t offset, std::span<std::byte> buffer) {
                if (!m_ahead.read(name, size, offset, buffer))
                    throw PackDamage{"cannot be read, or ends too early"};
            }};
}

void Mirror::put(const std::string& name, Local stays) {
    m_claim.renew();
    m_ahead.forget(name);
    struct stat status {};
    if (::stat(local(name).c_str(), &status) != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot look at {}: {}", for_terminal(local(name)),
                                      system_error_text(errno)));
    m_files[name] = static_cast<std::uint64_t>(status.st_size);
    m_files_there.put(local(name), name, [this, name, stays] {
        if (stays == Local::goes)
            ::unlink(local(name).c_str());
    });
}

void Mirror::put_document(const std::string& name, const std::string& file) {
    confirm();
    m_claim.renew();
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0)
        throw ClientError(ExitCode::failed, fmt::format("cannot look at {}: {}", for_terminal(file),
                                                        system_error_text(errno)));
    m_files_there.put(file, name);
    m_files_there.finish();
    m_files[name] = static_cast<std::uint64_t>(status.st_size);
    const std::lock_guard lock(m_mutex);
    m_fetched.insert(name); // its copy here is about to be the same
}

void Mirror::remove(const std::string& name) {
    if (!size_of(name))
        return;
    m_claim.renew();
    m_files_there.remove(name);
    m_files.erase(name);
}

void Mirror::confirm() {
    m_files_there.finish();
}

void Mirror::take_back_document(const std::string& name) noexcept {
    m_files.emplace(name, 0);
    (void)take_back(name);
}

bool Mirror::take_back(const std::string& name) noexcept {
    try {
        if (m_takes_nothing_back)
            return false;
        if (!size_of(name))
            return true;
        m_files_there.take_back(name);
        m_files.erase(name);
        return true;
    } catch (...) {
        m_takes_nothing_back = true; // it is of no set: `qrtln forget` removes it
        return false;
    }
}

} // namespace qrtln
