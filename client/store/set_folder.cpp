#include "client/store/set_folder.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/permission.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::string_view manifest_suffix = ".json";
constexpr std::array<std::string_view, 2> note_suffixes = {".proof", ".index"}; // by SetNote
constexpr std::array<std::string_view, 4> levels = {"full", "diff", "incr", "copy"};

// Renames within a folder, but never over something that is there. Returns 0 or the errno.
int rename_to_new(int folder, const std::string& from, const std::string& to) {
    if (::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    // A file system that cannot do both at once: the lock keeps other writers out.
    struct stat status {};
    if (::fstatat(folder, to.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return EEXIST;
    if (errno != ENOENT)
        return errno;
    return ::renameat(folder, from.c_str(), folder, to.c_str()) == 0 ? 0 : errno;
}

std::string manifest_name(const std::string& set) {
    return set + std::string(manifest_suffix);
}

std::string note_name(const std::string& set, SetNote note) {
    return set + std::string(note_suffixes[static_cast<std::size_t>(note)]);
}

// Whether a file in sets/ belongs to a set, or is being written.
bool is_of_a_set(const std::string& name) {
    if (name.ends_with(temporary_suffix))
        return true;
    for (std::string_view suffix : {manifest_suffix, note_suffixes[0], note_suffixes[1]})
        if (name.ends_with(suffix) && is_set_name(name.substr(0, name.size() - suffix.size())))
            return true;
    return false;
}

} // namespace

bool is_set_name(const std::string& name) {
    constexpr std::size_t time_size = std::string_view("YYYYMMDDThhmmssZ").size();
    std::tm time{};
    if (name.size() <= time_size || name[time_size] != '-' ||
        ::strptime(name.c_str(), "%Y%m%dT%H%M%SZ", &time) != name.c_str() + time_size)
        return false;
    std::string level = name.substr(time_size + 1);
    return std::find(levels.begin(), levels.end(), level) != levels.end() &&
           utc_time_compact(::timegm(&time)) == name.substr(0, time_size);
}

void SetFolder::open(FileDescriptor folder, int store) {
    m_folder = std::move(folder);
    m_store = store;
}

std::vector<std::string> SetFolder::names(std::vector<std::string>* foreign) const {
    std::vector<std::string> names;
    for (const std::string& name : m_place.list_part(m_folder.get(), "sets")) {
        if (!is_of_a_set(name)) {
            if (foreign != nullptr)
                foreign->push_back("sets/" + name);
        } else if (name.ends_with(manifest_suffix)) {
            names.push_back(name.substr(0, name.size() - manifest_suffix.size()));
        }
    }
    // By the set's name, not the file's: "-" sorts before ".".
    std::sort(names.begin(), names.end());
    return names;
}

bool SetFolder::has(const std::string& set) const {
    return m_place.has(m_folder.get(), "sets/" + manifest_name(set));
}

std::vector<std::string> SetFolder::noted() const {
    std::vector<std::string> names;
    for (const std::string& name : m_place.list_part(m_folder.get(), "sets"))
        for (std::string_view suffix : note_suffixes)
            if (name.ends_with(suffix) && is_of_a_set(name))
                names.push_back(name.substr(0, name.size() - suffix.size()));
    return names;
}

std::optional<std::string> SetFolder::read_manifest(const std::string& set,
                                                    std::string& problem) const {
    std::string name = manifest_name(set);
    std::optional<std::string> bytes = read_document(name, Mirror::Cache::used);
    int error = bytes ? 0 : errno;
    throw_if_no_permission("read the manifest", m_place.path("sets/" + name), error);
    if (!bytes)
        problem = error == ENOENT ? "is missing" : "cannot be read: " + system_error_text(error);
    if (!bytes)
        m_place.require_there();
    return bytes ? m_place.read_document(*bytes, "sets/" + name, problem) : std::nullopt;
}

void SetFolder::write_manifest(const std::string& set, const std::string& bytes,
                               bool may_replace) const {
    write_document(manifest_name(set), "the manifest " + set, bytes, may_replace);
}

// Sets errno, as read_small_file does.
std::optional<std::string> SetFolder::read_document(const std::string& name,
                                                    Mirror::Cache cache) const {
    if (Mirror* mirror = m_place.mirror();
        mirror != nullptr && !mirror->fetch("sets/" + name, cache)) {
        errno = ENOENT;
        return std::nullopt;
    }
    return read_small_file(m_folder.get(), name, maximal_manifest);
}

std::optional<std::string> SetFolder::read_note(const std::string& set, SetNote note,
                                                const std::optional<StateFolder>& state,
                                                std::string& problem) const {
    std::string name = note_name(set, note);
    std::optional<std::string> bytes;
    if (state)
        bytes = read_small_file(AT_FDCWD, state->file(name), maximal_manifest);
    if (bytes)
        return bytes;
    bytes = read_document(name, Mirror::Cache::fetched_anew);
    int error = bytes ? 0 : errno;
    throw_if_no_permission("read a note", m_place.path("sets/" + name), error);
    problem = bytes || error == ENOENT ? "" : "cannot be read: " + system_error_text(error);
    if (!bytes)
        m_place.require_there(); // else a store that is gone looks like a set without notes
    return bytes ? m_place.read_document(*bytes, "sets/" + name, problem) : std::nullopt;
}

std::string SetFolder::write_note(const std::string& set, SetNote note, const std::string& bytes,
                                  const std::optional<StateFolder>& state) const {
    std::string name = note_name(set, note);
    if (!state) {
        write_document(name, name, bytes, true);
        return m_place.path("sets/" + name);
    }
    if (int error = replace_file(state->file(name), bytes); error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write {}: {}", for_terminal(state->file(name)),
                                      system_error_text(error)));
    return state->file(name);
}

// A document about a set, so that a crash leaves the old state or the new one.
void SetFolder::write_document(const std::string& name, const std::string& what,
                               const std::string& bytes, bool may_replace) const {
    std::string temporary = name + std::string(temporary_suffix);
    int sets = m_folder.get();
    Mirror* mirror = m_place.mirror();
    const std::string path = "sets/" + name;
    bool replaces = may_replace && m_place.has(sets, path);
    if (mirror != nullptr && !may_replace && mirror->size_of(path))
        m_place.fail(fmt::format("put {} in place", what), EEXIST, "sets");
    if (int error = write_flushed(sets, temporary, m_place.stored_document(bytes, path), m_store);
        error != 0)
        m_place.fail("write " + what, error, "sets");
    // What lies elsewhere has the same name there, and what it refers to: it exists from then on.
    if (mirror != nullptr) {
        try {
            mirror->put_document(path, m_place.path("sets/" + temporary));
        } catch (...) {
            ::unlinkat(sets, temporary.c_str(), 0);
            if (!replaces)
                mirror->take_back_document(path);
            throw;
        }
    }
    int error = 0;
    if (!may_replace && mirror == nullptr)
        error = rename_to_new(sets, temporary, name);
    else if (::renameat(sets, temporary.c_str(), sets, name.c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlinkat(sets, temporary.c_str(), 0);
        m_place.fail(fmt::format("put {} in place", what), error, "sets");
    }
    error = flush_folder(sets);
    if (error != 0) {
        if (!replaces) {
            ::unlinkat(sets, name.c_str(), 0);
            (void)flush_folder(sets); // what was not there must not come back with a power cut
        }
        m_place.fail("flush the folder sets", error);
    }
}

void SetFolder::remove(const std::string& set) const {
    for (std::string_view suffix : {manifest_suffix, note_suffixes[0], note_suffixes[1]}) {
        const std::string name = set + std::string(suffix);
        if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
            mirror->remove("sets/" + name);
        if (::unlinkat(m_folder.get(), name.c_str(), 0) != 0 && errno != ENOENT)
            m_place.fail("remove " + name, errno);
    }
    flush();
}

void SetFolder::flush() const {
    if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
        mirror->confirm();
    if (int error = flush_folder(m_folder.get()); error != 0)
        m_place.fail("flush the folder sets", error);
}

} // namespace qrtln
