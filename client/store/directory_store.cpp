#include "client/store/directory_store.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/output.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"
#include "client/store/compression.h"
#include "client/store/digest.h"
#include "client/store/object_writer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr int store_format = 1;
constexpr const char* format_file = "store.json";
constexpr std::size_t maximal_format_file = 65536;
constexpr const char* format_temporary = "store.json.tmp";
constexpr int forgotten_format = 1;
constexpr const char* forgotten_file = "forgotten.json";
constexpr std::array skeleton_folders = {"objects", "sets", "runtime"};
constexpr std::string_view manifest_suffix = ".json";
constexpr std::array<std::string_view, 2> note_suffixes = {".proof", ".index"}; // by SetNote
constexpr std::array<std::string_view, 4> levels = {"full", "diff", "incr", "copy"};
constexpr std::string_view object_suffix = ".zst";
// A manifest of a million items stays below this.
constexpr std::size_t maximal_manifest = std::size_t{1} << 30;

// Writes, flushes and closes a new file. Returns 0 or the errno, and then leaves nothing.
// `owner` is the folder whose owner it belongs to when root writes it.
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

std::string new_store_id() {
    std::array<char, 16> random{};
    return ::getentropy(random.data(), random.size()) == 0
               ? to_hex(std::string_view(random.data(), random.size()))
               : "";
}

std::string id_of(const nlohmann::json& format_document) {
    auto id = format_document.find("id");
    return id != format_document.end() && id->is_string() ? id->get<std::string>() : "";
}

// The full path of something in an open folder, for messages.
std::string path_in(int folder, const std::string& name) {
    std::error_code error;
    std::string path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(folder), error).string();
    return name == "." ? path : path + "/" + name;
}

std::string note_name(const std::string& set, SetNote note) {
    return set + std::string(note_suffixes[static_cast<std::size_t>(note)]);
}

std::string last_opened; // a store that is there, or was

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

std::string store_id_at(const std::string& directory) {
    std::optional<std::string> bytes =
        read_small_file(AT_FDCWD, directory + "/" + format_file, maximal_format_file);
    std::string problem;
    std::optional<nlohmann::json> document;
    if (bytes)
        document = from_canonical(*bytes, problem);
    return document ? id_of(*document) : "";
}

std::unique_ptr<Store> open_directory_store(const std::string& directory, StoreAccess access,
                                            std::string* damage) {
    auto store = std::make_unique<DirectoryStore>(directory, access, damage);
    if (!store->warning().empty())
        print_warnings({store->warning()});
    return store;
}

std::unique_ptr<Store> open_store_with_state(const StateRequest& request) {
    auto store = std::make_unique<DirectoryStore>(request.store, StoreAccess::read, nullptr);
    store->keep_state_in(request);
    return store;
}

DirectoryStore::DirectoryStore(const std::string& directory, StoreAccess access,
                               std::string* damage)
    : m_directory(absolute_path(directory)), m_runtime(m_directory + "/runtime") {
    try {
        open_folder(access);
        bool locks = access == StoreAccess::write || access == StoreAccess::change;
        if (locks) {
            lock();
            if (!exists(m_folder.get(), format_file))
                create_skeleton();
        }
        check_format(access == StoreAccess::read_damaged ? damage : nullptr);
        auto open_part = [&](const char* name) {
            FileDescriptor part(
                ::openat(m_folder.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            int error = part ? 0 : errno;
            throw_if_no_permission("open the folder", m_directory + "/" + name, error);
            if (!part)
                throw ClientError(ExitCode::no_store,
                                  "cannot open the folder " + std::string(name) + " of " +
                                      description() + ": " + system_error_text(error));
            return part;
        };
        m_objects = open_part("objects");
        m_sets = open_part("sets");
        last_opened = m_directory;
        if (locks) {
            if (int error = make_folder(m_folder.get(), "runtime", m_folder.get()); error != 0)
                fail("create the folder runtime", error);
            require_writable_folders();
            flush_skeleton();
            remove_leftovers();
        }
    } catch (...) {
        discard_added();
        throw;
    }
}

DirectoryStore::~DirectoryStore() = default;

void DirectoryStore::keep_state_in(const StateRequest& request) {
    m_state.emplace(request);
}

// Before a backup has done its work, not when its first object is there.
void DirectoryStore::require_writable_folders() const {
    for (const char* name : skeleton_folders)
        if (::faccessat(m_folder.get(), name, R_OK | W_OK | X_OK, AT_EACCESS) != 0)
            fail("write to the folder", errno, name);
}

std::string vanished_store_hint() {
    struct stat status {};
    if (last_opened.empty() || ::stat((last_opened + "/" + format_file).c_str(), &status) == 0)
        return {};
    return "the store " + for_terminal(last_opened) + " cannot be reached any more (" +
           system_error_text(errno) +
           "): its folder is gone, or its disk not mounted. The sets in it stay as they were, and "
           "the server keeps every log that is in no complete set. Bring it back first, as a "
           "backup would begin a new store in an empty folder; then run the same command again "
           "(`qrtln recover` without databases for a recovery that had begun)";
}

// What is missing in a store that is gone is not damaged.
void DirectoryStore::require_there() const {
    if (std::string hint = vanished_store_hint(); !hint.empty())
        throw ClientError(ExitCode::failed, description() + " is not there any more", hint);
}

std::string DirectoryStore::description() const {
    return "the store " + for_terminal(m_directory);
}

std::string DirectoryStore::runtime_directory() const {
    return m_state ? m_state->runtime_directory() : m_runtime;
}

std::string DirectoryStore::stored_runtime_directory() const {
    return m_runtime;
}

void DirectoryStore::use_runtime_directory(const RuntimeChoice& choose) {
    std::string runtime = m_directory + "/runtime";
    m_runtime = choose(runtime, static_cast<bool>(m_lock));
    if (m_lock && m_runtime != runtime)
        remove_unfinished(AT_FDCWD, m_runtime);
}

// A folder that cannot be read is not one without files.
std::vector<std::string> DirectoryStore::list_folder(int folder, const std::string& name) const {
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

// Only ENOENT says that something is not there.
bool DirectoryStore::exists(int folder, const std::string& name) const {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return true;
    if (int error = errno; error != ENOENT) {
        throw_if_no_permission("look at a file", path_in(folder, name), error);
        fail("look at " + name, error);
    }
    return false;
}

// What a run that was killed while it created the store leaves: no file but known ones.
bool DirectoryStore::is_unfinished_skeleton() const {
    int folder = m_folder.get();
    for (const std::string& name : list_folder(folder, ".")) {
        bool known = name == lock_file || name == format_temporary ||
                     std::find(skeleton_folders.begin(), skeleton_folders.end(), name) !=
                         skeleton_folders.end();
        if (!known)
            return false;
    }
    for (const char* name : skeleton_folders)
        if (exists(folder, name) && !list_folder(folder, name).empty())
            return false;
    return true;
}

void DirectoryStore::fail(const std::string& doing, int error, const std::string& name) const {
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
    throw ClientError(ExitCode::failed,
                      "cannot " + doing + " in " + description() + ": " + system_error_text(error),
                      hint);
}

void DirectoryStore::open_folder(StoreAccess access) {
    auto open = [&] {
        m_folder = FileDescriptor(::open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return static_cast<bool>(m_folder);
    };
    if (!open() && errno == ENOENT && access == StoreAccess::write) {
        if (::mkdir(m_directory.c_str(), 0700) != 0 && errno != EEXIST) {
            int error = errno;
            throw ClientError(ExitCode::failed,
                              "cannot create " + description() + ": " + system_error_text(error),
                              error == ENOENT ? "create the folder above it first" : "");
        }
        m_folder_created = true;
        open();
    }
    if (!m_folder && (errno == ENOENT || errno == ENOTDIR))
        throw ClientError(ExitCode::no_store,
                          "there is no store at " + for_terminal(m_directory) + ": " +
                              system_error_text(errno),
                          "`qrtln backup` creates a store in a new or empty folder");
    if (!m_folder) {
        int error = errno;
        throw_if_no_permission("open the store", m_directory, error);
        throw ClientError(ExitCode::failed,
                          "cannot open " + description() + ": " + system_error_text(error));
    }
    if (exists(m_folder.get(), format_file))
        return;
    if (access != StoreAccess::write)
        throw ClientError(ExitCode::no_store,
                          "there is no store at " + for_terminal(m_directory) +
                              ": store.json is missing",
                          "`qrtln backup` creates a store in a new or empty folder");
    if (!is_unfinished_skeleton())
        throw ClientError(ExitCode::no_store,
                          "the folder " + for_terminal(m_directory) +
                              " is not empty and is no store: store.json is missing",
                          "name a store, or a new or empty folder, with --store");
}

void DirectoryStore::lock() {
    try {
        m_lock =
            lock_folder(m_folder.get(), description(), [this](const std::string& doing, int error) {
                fail(doing, error, lock_file);
            });
    } catch (const ClientError& failure) {
        if (failure.exit_code() == static_cast<int>(ExitCode::locked))
            m_folder_created = false;
        throw;
    }
    bool given = give_to_owner_of(m_folder.get(), m_lock.get()) == 0;
    struct stat status {};
    if (::fstat(m_folder.get(), &status) == 0)
        m_warning = other_owner_warning(m_directory, status.st_uid, given && ::geteuid() == 0);
}

void DirectoryStore::create_skeleton() {
    m_skeleton_created = true;
    for (const char* name : skeleton_folders)
        if (int error = make_folder(m_folder.get(), name, m_folder.get()); error != 0)
            fail("create the folder " + std::string(name), error);
    // The format file comes last, also on the disk: without it the folder is no store, and with it
    // the folders are there.
    if (int error = flush_folder(m_folder.get()); error != 0)
        fail("flush the folder", error);
    std::string content =
        to_canonical({{"format", store_format}, {"type", "qrtln store"}, {"id", new_store_id()}});
    if (int error = write_flushed(m_folder.get(), format_temporary, content, m_folder.get());
        error != 0)
        fail("write store.json", error);
    if (::renameat(m_folder.get(), format_temporary, m_folder.get(), format_file) != 0)
        fail("put store.json in place", errno);
}

// Also of a store that was there: the run that created it may have been killed before it did this.
void DirectoryStore::flush_skeleton() {
    if (int error = flush_folder(m_folder.get()); error != 0)
        fail("flush the folder", error);
    std::string parent = m_directory.substr(0, m_directory.rfind('/'));
    int error = flush_directory(AT_FDCWD, parent.empty() ? "/" : parent);
    if (error != 0 && m_folder_created) // one that may not be opened was flushed by who created it
        fail("flush the folder above", error);
}

void DirectoryStore::check_format(std::string* damage) {
    std::string problem;
    std::optional<std::string> bytes =
        read_small_file(m_folder.get(), format_file, maximal_format_file);
    if (int error = bytes ? 0 : errno; error != 0) {
        throw_if_no_permission("read store.json", m_directory + "/" + format_file, error);
        problem = "cannot be read: " + system_error_text(error);
    }
    std::optional<nlohmann::json> document;
    if (bytes)
        document = from_canonical(*bytes, problem);
    if (document) {
        auto format = document->find("format");
        if (document->value("type", nlohmann::json()) != "qrtln store" ||
            format == document->end() || !format->is_number_integer())
            problem = "is not the format file of a store";
        else if (*format != store_format)
            throw ClientError(ExitCode::no_store,
                              description() + " has the format " + format->dump() +
                                  ", which this version of qrtln does not know",
                              "use the version of qrtln that wrote it, or a newer one");
    }
    if (problem.empty()) {
        m_id = id_of(*document);
        return;
    }
    if (damage == nullptr)
        throw ClientError(ExitCode::no_store, "store.json of " + description() + " " + problem,
                          "`qrtln verify` tells what else is damaged");
    *damage = "store.json " + problem;
}

// Files of the run-time data that a run which was killed was making.
void DirectoryStore::remove_unfinished(int above, const std::string& folder) const {
    FileDescriptor runtime(
        ::openat(above, folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (runtime)
        for (const std::string& name : list_folder(runtime.get(), "."))
            if (is_unfinished(name))
                ::unlinkat(runtime.get(), name.c_str(), 0);
}

// Only this process uses the store: what has a temporary name was left by a run that was killed.
void DirectoryStore::remove_leftovers() noexcept {
    try {
        for (int folder : {m_objects.get(), m_sets.get()})
            for (const std::string& name : list_folder(folder, "."))
                if (name.ends_with(temporary_suffix))
                    ::unlinkat(folder, name.c_str(), 0);
        ::unlinkat(m_folder.get(), format_temporary, 0);
        remove_unfinished(m_folder.get(), "runtime");
    } catch (...) {
        // Out of memory: they stay until the next run.
    }
}

std::unique_ptr<ObjectWriter> DirectoryStore::create_object() {
    return std::make_unique<DirectoryObjectWriter>(*this);
}

ObjectCheck DirectoryStore::read_object(const std::string& hash,
                                        const std::function<void(Bytes)>& sink) {
    ObjectCheck check;
    FileDescriptor file(::openat(m_objects.get(), object_file_name(hash).c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        int error = errno;
        throw_if_no_permission("read an object", m_directory + "/objects/" + object_file_name(hash),
                               error);
        check.problem =
            error == ENOENT ? "is missing" : "cannot be opened: " + system_error_text(error);
        require_there();
        return check;
    }
    if (!S_ISREG(status.st_mode)) {
        check.problem = "is no file";
        return check;
    }
    Sha256 digest;
    check.problem = decompress(file.get(), [&](Bytes bytes) {
        digest.update(bytes);
        check.size += bytes.size();
        sink(bytes);
    });
    if (check.problem.empty() && digest.finish() != hash)
        check.problem = "does not have the content that its name tells";
    if (!check.problem.empty())
        require_there();
    return check;
}

std::vector<std::string> DirectoryStore::objects(std::vector<std::string>* foreign) {
    std::vector<std::string> hashes;
    for (const std::string& folder : list_folder(m_objects.get(), ".")) {
        bool object_folder = folder.size() == 2 && from_hex(folder).has_value();
        if (!object_folder) {
            if (foreign != nullptr)
                foreign->push_back("objects/" + folder);
            continue;
        }
        const std::string shown = "objects/" + folder + "/";
        for (const std::string& name : list_folder(m_objects.get(), folder)) {
            std::string hash = name.substr(0, name.rfind('.'));
            if (name == hash + std::string(object_suffix) && is_sha256_hex(hash) &&
                hash.starts_with(folder))
                hashes.push_back(hash);
            else if (foreign != nullptr)
                foreign->push_back(shown + name);
        }
    }
    return hashes;
}

std::vector<std::string> DirectoryStore::set_names(std::vector<std::string>* foreign) {
    std::vector<std::string> names;
    for (const std::string& name : list_folder(m_sets.get(), ".")) {
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

std::vector<std::string> DirectoryStore::noted_sets() {
    std::vector<std::string> names;
    for (const std::string& name : list_folder(m_sets.get(), "."))
        for (std::string_view suffix : note_suffixes)
            if (name.ends_with(suffix) && is_of_a_set(name))
                names.push_back(name.substr(0, name.size() - suffix.size()));
    return names;
}

std::map<std::string, std::string> DirectoryStore::forgotten_sets() {
    std::optional<std::string> bytes =
        read_small_file(m_folder.get(), forgotten_file, maximal_manifest);
    if (!bytes && errno == ENOENT)
        return {};
    if (!bytes)
        fail(std::string("read ") + forgotten_file, errno);
    std::string problem;
    std::optional<nlohmann::json> document = from_canonical(*bytes, problem);
    try {
        if (document && document->at("format").get<int>() == forgotten_format)
            return document->at("sets").get<std::map<std::string, std::string>>();
    } catch (const nlohmann::json::exception&) {
        problem = "is not in its form";
    }
    throw ClientError(ExitCode::damage_found,
                      std::string(forgotten_file) + " of " + description() + " " + problem,
                      "bring it back from a copy of the store, or remove it and forget the sets "
                      "that `qrtln verify` misses again");
}

void DirectoryStore::forget_set(const std::string& set, const std::string& server) {
    std::map<std::string, std::string> forgotten = forgotten_sets();
    forgotten.emplace(set, server);
    std::string bytes = to_canonical({{"format", forgotten_format}, {"sets", forgotten}});
    if (int error = replace_file(m_directory + "/" + forgotten_file, bytes); error != 0)
        fail(std::string("write ") + forgotten_file, error);
    for (std::string_view suffix : {manifest_suffix, note_suffixes[0], note_suffixes[1]})
        if (::unlinkat(m_sets.get(), (set + std::string(suffix)).c_str(), 0) != 0 &&
            errno != ENOENT)
            fail("remove " + set + std::string(suffix), errno);
    if (int error = flush_folder(m_sets.get()); error != 0)
        fail("flush the folder sets", error);
}

std::optional<std::string> DirectoryStore::read_manifest(const std::string& set,
                                                         std::string& problem) {
    std::string name = set + std::string(manifest_suffix);
    std::optional<std::string> bytes = read_small_file(m_sets.get(), name, maximal_manifest);
    int error = bytes ? 0 : errno;
    throw_if_no_permission("read the manifest", m_directory + "/sets/" + name, error);
    if (!bytes)
        problem = error == ENOENT ? "is missing" : "cannot be read: " + system_error_text(error);
    if (!bytes)
        require_there();
    return bytes;
}

void DirectoryStore::write_manifest(const std::string& set, const std::string& bytes) {
    write_document(set + std::string(manifest_suffix), "the manifest " + set, bytes, false);
}

void DirectoryStore::rewrite_manifest(const std::string& set, const std::string& bytes) {
    write_document(set + std::string(manifest_suffix), "the manifest " + set, bytes, true);
}

std::optional<std::string> DirectoryStore::read_note(const std::string& set, SetNote note,
                                                     std::string& problem) {
    std::string name = note_name(set, note);
    std::optional<std::string> bytes;
    if (m_state)
        bytes = read_small_file(AT_FDCWD, m_state->file(name), maximal_manifest);
    if (!bytes)
        bytes = read_small_file(m_sets.get(), name, maximal_manifest);
    int error = bytes ? 0 : errno;
    throw_if_no_permission("read a note", m_directory + "/sets/" + name, error);
    problem = bytes || error == ENOENT ? "" : "cannot be read: " + system_error_text(error);
    if (!bytes)
        require_there(); // else a store that is gone looks like a set without notes
    return bytes;
}

std::string DirectoryStore::write_note(const std::string& set, SetNote note,
                                       const std::string& bytes) {
    std::string name = note_name(set, note);
    if (!m_state) {
        write_document(name, name, bytes, true);
        return m_directory + "/sets/" + name;
    }
    if (int error = replace_file(m_state->file(name), bytes); error != 0)
        throw ClientError(ExitCode::failed, "cannot write " + for_terminal(m_state->file(name)) +
                                                ": " + system_error_text(error));
    return m_state->file(name);
}

// A document about a set, so that a crash leaves the old state or the new one.
void DirectoryStore::write_document(const std::string& name, const std::string& what,
                                    const std::string& bytes, bool may_replace) {
    std::string temporary = name + std::string(temporary_suffix);
    int sets = m_sets.get();
    bool replaces = may_replace && exists(sets, name);
    if (int error = write_flushed(sets, temporary, bytes, m_folder.get()); error != 0)
        fail("write " + what, error, "sets");
    int error = 0;
    if (!may_replace)
        error = rename_to_new(sets, temporary, name);
    else if (::renameat(sets, temporary.c_str(), sets, name.c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlinkat(sets, temporary.c_str(), 0);
        fail("put " + what + " in place", error, "sets");
    }
    error = flush_folder(sets);
    if (error != 0) {
        if (!replaces) {
            ::unlinkat(sets, name.c_str(), 0);
            (void)flush_folder(sets); // what was not there must not come back with a power cut
        }
        fail("flush the folder sets", error);
    }
}

void DirectoryStore::flush() {
    for (const std::string& folder : m_unflushed)
        if (int error = flush_directory(m_objects.get(), folder); error != 0)
            fail("flush the folder objects/" + folder, error);
    m_unflushed.clear();
    if (int error = m_objects_unflushed ? flush_folder(m_objects.get()) : 0; error != 0)
        fail("flush the folder objects", error);
    m_objects_unflushed = false;
}

void DirectoryStore::keep_added() noexcept {
    m_added.clear();
}

bool DirectoryStore::has_object(const std::string& hash, std::uint64_t stored_size) {
    struct stat status {};
    return ::fstatat(m_objects.get(), object_file_name(hash).c_str(), &status,
                     AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode) && static_cast<std::uint64_t>(status.st_size) == stored_size;
}

void DirectoryStore::discard_object(const std::string& hash) noexcept {
    // Its folder stays: it is flushed with the others.
    if (auto added = std::find(m_added.begin(), m_added.end(), object_file_name(hash));
        added != m_added.end() && ::unlinkat(m_objects.get(), added->c_str(), 0) == 0)
        m_added.erase(added);
}

// Best effort: this runs because something failed already, and that is what gets reported.
void DirectoryStore::discard_added() noexcept {
    for (const std::string& name : m_added) {
        ::unlinkat(m_objects.get(), name.c_str(), 0);
        ::unlinkat(m_objects.get(), name.substr(0, 2).c_str(), AT_REMOVEDIR); // when it is empty
    }
    m_added.clear();
    if (m_lock && m_objects)
        remove_leftovers();
    try {
        if (m_skeleton_created && (!m_sets || set_names().empty())) {
            m_skeleton_created = false;
            last_opened.clear(); // it goes by our own hand
            ::unlinkat(m_folder.get(), format_file, 0);
            ::unlinkat(m_folder.get(), format_temporary, 0);
            for (const char* name : skeleton_folders)
                remove_tree(m_folder.get(), name);
            ::unlinkat(m_folder.get(), lock_file, 0);
        }
    } catch (...) {
        return; // out of memory while listing: the empty store stays
    }
    // Succeeds only for a folder that is empty.
    struct stat status {};
    if (m_folder_created &&
        ::fstatat(m_folder.get(), format_file, &status, AT_SYMLINK_NOFOLLOW) != 0 &&
        errno == ENOENT) {
        ::unlinkat(m_folder.get(), lock_file, 0);
        ::rmdir(m_directory.c_str());
    }
}

} // namespace qrtln
