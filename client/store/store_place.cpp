#include "client/store/store_place.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/digest.h"
#include "client/store/mirror.h"
#include "client/store/sealing.h"
#include "client/store/store.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

std::string last_opened; // a store that is there, or was

struct KindOfFile {
    const char* folder;
    std::string_view suffix;
};
constexpr std::array<KindOfFile, 3> kinds = {
    {{object_folder, ".zst"}, {pack_folder, ".pack"}, {map_folder, ".map"}}}; // by FileKind
constexpr std::string_view damage_suffix = ".damaged";

const KindOfFile& of(FileKind kind) {
    return kinds[static_cast<std::size_t>(kind)];
}

std::string path_with(FileKind kind, const std::string& stem, std::string_view suffix) {
    // Objects are many: they lie in folders by the beginnings of their names.
    return kind == FileKind::object
               ? fmt::format("{}/{}/{}{}", of(kind).folder, stem.substr(0, 2), stem, suffix)
               : fmt::format("{}/{}{}", of(kind).folder, stem, suffix);
}

// The full path of something in an open folder, for messages.
std::string path_in(int folder, const std::string& name) {
    std::error_code error;
    std::string path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(folder), error).string();
    return name == "." ? path : fmt::format("{}/{}", path, name);
}

} // namespace

std::string stored_path(FileKind kind, const std::string& stem) {
    return path_with(kind, stem, of(kind).suffix);
}

std::string name_in_folder(const std::string& path) {
    return path.substr(path.find('/') + 1);
}

std::string StorePlace::stem_of(FileKind kind, const std::string& id) const {
    return m_sealing ? m_sealing->stem_of(of(kind).folder, id) : id;
}

std::string StorePlace::path_of(FileKind kind, const std::string& id) const {
    return stored_path(kind, stem_of(kind, id));
}

std::string StorePlace::damage_note_of(FileKind kind, const std::string& id) const {
    return path_with(kind, stem_of(kind, id), damage_suffix);
}

std::optional<std::string> StorePlace::id_of(FileKind kind, const std::string& file_name) const {
    if (!file_name.ends_with(of(kind).suffix))
        return std::nullopt;
    std::string stem = file_name.substr(0, file_name.size() - of(kind).suffix.size());
    if (m_sealing)
        return m_sealing->id_of(of(kind).folder, stem);
    return is_sha256_hex(stem) ? std::optional(std::move(stem)) : std::nullopt;
}

std::string StorePlace::stored_document(const std::string& bytes, const std::string& name) const {
    return m_sealing ? m_sealing->sealed_document(bytes, name) : bytes;
}

std::optional<std::string> StorePlace::read_document(const std::string& stored,
                                                     const std::string& name,
                                                     std::string& problem) const {
    if (!m_sealing)
        return stored;
    try {
        return m_sealing->unsealed_document(stored, name);
    } catch (const PackDamage& damage) {
        problem = damage.problem;
        return std::nullopt;
    }
}

bool StorePlace::is_damage_note(std::string_view file_name) {
    return file_name.ends_with(damage_suffix);
}

int write_flushed(int folder, const std::string& name, const std::string& bytes, int owner) {
    ::unlinkat(folder, name.c_str(), 0);
    FileDescriptor file(
        ::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        return errno;
    (void)give_to_owner_of(owner, file.get());
    int error = write_all(file.get(), as_bytes(bytes));
    if (error == 0 && ::fsync(file.get()) != 0)
        error = errno;
    if (int close_error = file.close_checked(); error == 0)
        error = close_error;
    if (error != 0)
        ::unlinkat(folder, name.c_str(), 0);
    return error;
}

std::string vanished_store_hint() {
    struct stat status {};
    if (last_opened.empty() ||
        ::stat((fmt::format("{}/{}", last_opened, format_file)).c_str(), &status) == 0)
        return {};
    return fmt::format("the store {} cannot be reached any more ({}): its folder is gone, or its "
                       "disk not mounted. The sets in it stay as they were, and the server keeps "
                       "every log that is in no complete set. Bring it back first, as a backup "
                       "would begin a new store in an empty folder; then run the same command "
                       "again (`qrtln recover` without databases for a recovery that had begun)",
                       for_terminal(last_opened), system_error_text(errno));
}

StorePlace::StorePlace(const std::string& directory, Mirror* mirror)
    : m_directory(absolute_path(directory)), m_mirror(mirror) {}

std::string StorePlace::description() const {
    return "the store " + for_terminal(m_mirror != nullptr ? m_mirror->place() : m_directory);
}

void StorePlace::watch() const {
    last_opened = m_directory;
}

void StorePlace::unwatch() const {
    last_opened.clear();
}

void StorePlace::require_there() const {
    if (std::string hint = vanished_store_hint(); !hint.empty())
        throw ClientError(ExitCode::failed, description() + " is not there any more", hint);
}

void StorePlace::fail(const std::string& doing, int error, const std::string& name) const {
    throw_if_no_permission(doing, m_directory + (name.empty() ? "" : "/") + name, error, true);
    std::string hint;
    if (error == ENOSPC || error == EDQUOT)
        hint = "make room on its file system; nothing of this run is kept there";
    else if (error == EIO)
        hint = "check the disk, then run `qrtln verify`";
    else if (error == EROFS)
        hint = "the file system of the store can only be read";
    else if (error == EFBIG)
        hint = "raise the file size limit of the process (ulimit -f)";
    throw ClientError(
        ExitCode::failed,
        fmt::format("cannot {} in {}: {}", doing, description(), system_error_text(error)), hint);
}

std::vector<std::string> StorePlace::list_folder(int folder, const std::string& name) const {
    FileDescriptor listed(
        ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::optional<std::vector<std::string>> names;
    if (listed)
        names = names_in_folder(listed.get());
    if (names)
        return std::move(*names);
    int error = errno;
    std::string path = path_in(folder, name);
    throw_if_no_permission("list the folder", path, error);
    fail("list the folder " + name_of(path), error);
}

bool StorePlace::has(int folder, const std::string& path) const {
    if (m_mirror != nullptr)
        return m_mirror->size_of(path).has_value();
    return exists(folder, name_in_folder(path));
}

std::vector<std::string> StorePlace::list_part(int folder, const std::string& part,
                                               const std::string& below) const {
    if (m_mirror != nullptr)
        return m_mirror->names_in(below == "." ? part : fmt::format("{}/{}", part, below));
    return list_folder(folder, below);
}

bool StorePlace::exists(int folder, const std::string& name) const {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return true;
    if (int error = errno; error != ENOENT) {
        throw_if_no_permission("look at a file", path_in(folder, name), error);
        fail("look at " + name, error);
    }
    return false;
}

} // namespace qrtln
