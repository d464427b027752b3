#include "client/store/directory_store.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/output.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr int store_format = 2;
constexpr int whole_objects_format = 1; // without packs
constexpr std::size_t maximal_format_file = 65536;
constexpr const char* format_temporary = "store.json.tmp";
constexpr int forgotten_format = 1;
constexpr const char* forgotten_file = "forgotten.json";
constexpr std::array skeleton_folders = {"objects", "sets", "runtime", pack_folder, map_folder};

bool is_of_packs(std::string_view folder) {
    return folder == pack_folder || folder == map_folder;
}

std::uint64_t block_size_in(const nlohmann::json& format_document) {
    auto size = format_document.find("block_size");
    return size != format_document.end() && size->is_number_unsigned() ? size->get<std::uint64_t>()
                                                                       : 0;
}

std::string id_of(const nlohmann::json& format_document) {
    auto id = format_document.find("id");
    return id != format_document.end() && id->is_string() ? id->get<std::string>() : "";
}

} // namespace

std::string new_store_id() {
    std::array<char, 16> random{};
    return ::getentropy(random.data(), random.size()) == 0
               ? to_hex(std::string_view(random.data(), random.size()))
               : "";
}

std::string store_address(const std::string& given) {
    return is_elsewhere(given) ? given : absolute_path(given);
}

std::string store_id_at(const std::string& directory) {
    std::optional<std::string> bytes = read_small_file(
        AT_FDCWD, fmt::format("{}/{}", directory, format_file), maximal_format_file);
    return bytes ? store_id_in(*bytes) : "";
}

std::string store_id_in(const std::string& format_document) {
    std::string problem;
    std::optional<nlohmann::json> document = from_canonical(format_document, problem);
    return document ? id_of(*document) : "";
}

namespace {

std::unique_ptr<DirectoryStore> open_anywhere(const std::string& place, StoreAccess access,
                                              std::string* damage, std::uint32_t block_size) {
    if (!is_elsewhere(place))
        return std::make_unique<DirectoryStore>(place, access, damage, block_size);
    auto mirror = std::make_unique<Mirror>(place);
    const std::string directory = mirror->directory();
    return std::make_unique<DirectoryStore>(directory, access, damage, block_size,
                                            std::move(mirror));
}

} // namespace

std::unique_ptr<Store> open_directory_store(const std::string& directory, StoreAccess access,
                                            std::string* damage, std::uint32_t block_size) {
    std::unique_ptr<DirectoryStore> store = open_anywhere(directory, access, damage, block_size);
    if (!store->warning().empty())
        print_warnings({store->warning()});
    return store;
}

std::unique_ptr<Store> open_store_with_state(const StateRequest& request) {
    auto store = std::make_unique<DirectoryStore>(request.store, StoreAccess::read, nullptr, 0);
    store->keep_state_in(request);
    return store;
}

DirectoryStore::DirectoryStore(const std::string& directory, StoreAccess access,
                               std::string* damage, std::uint32_t block_size,
                               std::unique_ptr<Mirror> mirror)
    : m_mirror(std::move(mirror)), m_place(directory, m_mirror.get()),
      m_runtime(m_place.path("runtime")), m_objects(m_place), m_sets(m_place), m_packs(m_place) {
    try {
        bool locks = access == StoreAccess::write || access == StoreAccess::change;
        if (m_mirror && m_mirror->is_new())
            make_mirror(access);
        open_folder(access);
        if (locks) {
            lock();
            if (m_mirror)
                m_mirror->claim();
        }
        if (m_mirror)
            m_mirror->look(access != StoreAccess::read_damaged);
        if (locks) {
            if (m_mirror)
                m_mirror->drop_unsent();
            // Who had the lock may have made the store meanwhile, or removed it again.
            if (!m_place.exists(m_folder.get(), format_file)) {
                require_creation(access);
                create_skeleton(block_size != 0 ? block_size : usual_block);
            }
        }
        check_format(access == StoreAccess::read_damaged ? damage : nullptr);
        if (access == StoreAccess::write)
            require_block_size(block_size);
        m_objects.open(open_part("objects"), m_folder.get());
        m_sets.open(open_part("sets"), m_folder.get());
        if (has_packs())
            m_packs.open(open_part(pack_folder), open_part(map_folder), m_folder.get());
        m_readers.open(m_folder.get(), locks);
        m_place.watch();
        if (locks) {
            if (int error = make_folder(m_folder.get(), "runtime", m_folder.get()); error != 0)
                m_place.fail("create the folder runtime", error);
            require_writable_folders();
            flush_skeleton();
            remove_leftovers();
        }
    } catch (...) {
        discard_added();
        throw;
    }
}

FileDescriptor DirectoryStore::open_part(const char* name) const {
    FileDescriptor part(
        ::openat(m_folder.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    int error = part ? 0 : errno;
    throw_if_no_permission("open the folder", m_place.path(name), error);
    if (!part)
        throw ClientError(ExitCode::no_store,
                          fmt::format("cannot open the folder {} of {}: {}", name, description(),
                                      system_error_text(error)));
    return part;
}

// Before a backup has done its work, not when its first object is there.
void DirectoryStore::require_writable_folders() const {
    for (const char* name : skeleton_folders)
        if ((has_packs() || !is_of_packs(name)) &&
            ::faccessat(m_folder.get(), name, R_OK | W_OK | X_OK, AT_EACCESS) != 0)
            m_place.fail("write to the folder", errno, name);
}

void DirectoryStore::use_runtime_directory(const RuntimeChoice& choose) {
    std::string runtime = m_place.path("runtime");
    m_runtime = choose(runtime, static_cast<bool>(m_lock));
    if (m_lock && m_runtime != runtime)
        remove_unfinished(AT_FDCWD, m_runtime);
}

// What a run that was killed while it created the store leaves: no file but known ones.
bool DirectoryStore::is_unfinished_skeleton() const {
    int folder = m_folder.get();
    for (const std::string& name : m_place.list_folder(folder, ".")) {
        bool known = name == lock_file || name == readers_file || name == format_temporary ||
                     std::find(skeleton_folders.begin(), skeleton_folders.end(), name) !=
                         skeleton_folders.end();
        if (!known)
            return false;
    }
    for (const char* name : skeleton_folders)
        if (m_place.exists(folder, name) && !m_place.list_folder(folder, name).empty())
            return false;
    return true;
}

void DirectoryStore::open_folder(StoreAccess access) {
    auto open = [&] {
        m_folder =
            FileDescriptor(::open(m_place.directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return static_cast<bool>(m_folder);
    };
    if (!open() && errno == ENOENT && access == StoreAccess::write) {
        if (::mkdir(m_place.directory().c_str(), 0700) != 0 && errno != EEXIST) {
            int error = errno;
            throw ClientError(
                ExitCode::failed,
                fmt::format("cannot create {}: {}", description(), system_error_text(error)),
                error == ENOENT ? "create the folder above it first" : "");
        }
        m_folder_created = true;
        open();
    }
    if (!m_folder && (errno == ENOENT || errno == ENOTDIR))
        throw ClientError(ExitCode::no_store,
                          fmt::format("there is no store at {}: {}",
                                      for_terminal(m_place.directory()), system_error_text(errno)),
                          "`qrtln backup` creates a store in a new or empty folder");
    if (!m_folder) {
        int error = errno;
        throw_if_no_permission("open the store", m_place.directory(), error);
        throw ClientError(ExitCode::failed, fmt::format("cannot open {}: {}", description(),
                                                        system_error_text(error)));
    }
    if (m_place.exists(m_folder.get(), format_file))
        return;
    require_creation(access);
    if (!is_unfinished_skeleton())
        throw ClientError(
            ExitCode::no_store,
            fmt::format("the folder {} is not empty and is no store: store.json is missing",
                        for_terminal(m_place.directory())),
            "name a store, or a new or empty folder, with --store");
}

void DirectoryStore::require_creation(StoreAccess access) const {
    if (access != StoreAccess::write)
        throw ClientError(
            ExitCode::no_store,
            fmt::format("there is no store at {}: store.json is missing", for_terminal(address())),
            "`qrtln backup` creates a store in a new or empty folder");
}

void DirectoryStore::lock() {
    try {
        m_lock =
            lock_folder(m_folder.get(), description(), [this](const std::string& doing, int error) {
                m_place.fail(doing, error, lock_file);
            });
    } catch (const ClientError& failure) {
        // Others make it a store, who were faster: also when the wait for them was interrupted.
        if (failure.exit_code() == static_cast<int>(ExitCode::locked) ||
            failure.exit_code() > static_cast<int>(ExitCode::interrupted))
            m_folder_created = false;
        throw;
    }
    bool given = give_to_owner_of(m_folder.get(), m_lock.get()) == 0;
    struct stat status {};
    if (::fstat(m_folder.get(), &status) == 0)
        m_warning =
            other_owner_warning(m_place.directory(), status.st_uid, given && ::geteuid() == 0);
}

void DirectoryStore::create_skeleton(std::uint32_t block_size) {
    m_skeleton_created = true;
    for (const char* name : skeleton_folders)
        if (int error = make_folder(m_folder.get(), name, m_folder.get()); error != 0)
            m_place.fail("create the folder " + std::string(name), error);
    // The format file comes last, also on the disk: without it the folder is no store, and with it
    // the folders are there.
    if (int error = flush_folder(m_folder.get()); error != 0)
        m_place.fail("flush the folder", error);
    if (m_mirror && !m_mirror->is_empty())
        throw ClientError(ExitCode::no_store,
                          fmt::format("{} is not empty and is no store: store.json is missing",
                                      for_terminal(m_mirror->place())),
                          "name a store, or a new or empty folder, with --store");
    write_format(block_size, m_mirror ? m_mirror->id() : new_store_id());
    if (m_mirror)
        m_mirror->put_document(format_file, m_place.path(format_file));
}

// The folder of a store that is about to be made elsewhere.
void DirectoryStore::make_mirror(StoreAccess access) {
    require_creation(access);
    m_mirror->make_folder();
    m_folder_created = true;
}

void DirectoryStore::write_format(std::uint32_t block_size, const std::string& id) {
    nlohmann::json format = {
        {"format", store_format}, {"type", "qrtln store"}, {"block_size", block_size}};
    if (!id.empty())
        format["id"] = id;
    if (int error =
            write_flushed(m_folder.get(), format_temporary, to_canonical(format), m_folder.get());
        error != 0)
        m_place.fail("write store.json", error);
    if (::renameat(m_folder.get(), format_temporary, m_folder.get(), format_file) != 0)
        m_place.fail("put store.json in place", errno);
}

// The folders are there before store.json says so, as when a store is made.
void DirectoryStore::add_packs(std::uint32_t block_size) {
    for (const char* name : {pack_folder, map_folder})
        if (int error = make_folder(m_folder.get(), name, m_folder.get()); error != 0)
            m_place.fail("create the folder " + std::string(name), error);
    if (int error = flush_folder(m_folder.get()); error != 0)
        m_place.fail("flush the folder", error);
    write_format(block_size, m_id);
    if (m_mirror)
        m_mirror->put_document(format_file, m_place.path(format_file));
    if (int error = flush_folder(m_folder.get()); error != 0)
        m_place.fail("flush the folder", error);
    m_block_size = block_size;
    m_new_packs.set_block_size(block_size);
    m_packs.open(open_part(pack_folder), open_part(map_folder), m_folder.get());
}

// Also of a store that was there: the run that created it may have been killed before it did this.
void DirectoryStore::flush_skeleton() {
    if (int error = flush_folder(m_folder.get()); error != 0)
        m_place.fail("flush the folder", error);
    std::string parent = m_place.directory().substr(0, m_place.directory().rfind('/'));
    int error = flush_directory(AT_FDCWD, parent.empty() ? "/" : parent);
    if (error != 0 && m_folder_created) // one that may not be opened was flushed by who created it
        m_place.fail("flush the folder above", error);
}

void DirectoryStore::check_format(std::string* damage) {
    std::string problem;
    std::optional<std::string> bytes =
        read_small_file(m_folder.get(), format_file, maximal_format_file);
    if (int error = bytes ? 0 : errno; error != 0) {
        throw_if_no_permission("read store.json", m_place.path(format_file), error);
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
        else if (*format != store_format && *format != whole_objects_format)
            throw ClientError(
                ExitCode::no_store,
                fmt::format("{} has the format {}, which this version of qrtln does not know",
                            description(), format->dump()),
                "use the version of qrtln that wrote it, or a newer one");
    }
    if (problem.empty() && *document->find("format") == store_format &&
        !is_block_size(block_size_in(*document)))
        problem = "does not tell a size of blocks that a store can have";
    if (problem.empty()) {
        m_id = id_of(*document);
        m_block_size = static_cast<std::uint32_t>(block_size_in(*document));
        m_new_packs.set_block_size(m_block_size);
        return;
    }
    if (damage == nullptr)
        throw ClientError(ExitCode::no_store,
                          fmt::format("store.json of {} {}", description(), problem),
                          "`qrtln verify` tells what else is damaged");
    *damage = "store.json " + problem;
}

// Files of the run-time data that a run which was killed was making.
void DirectoryStore::remove_unfinished(int above, const std::string& folder) const {
    FileDescriptor runtime(
        ::openat(above, folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (runtime)
        for (const std::string& name : m_place.list_folder(runtime.get(), "."))
            if (is_unfinished(name))
                ::unlinkat(runtime.get(), name.c_str(), 0);
}

void DirectoryStore::require_block_size(std::uint32_t block_size) const {
    if (block_size != 0 && block_size != m_block_size)
        throw ClientError(ExitCode::failed,
                          fmt::format("{} has {}", description(),
                                      has_packs() ? fmt::format("blocks of {} bytes, not of {}",
                                                                m_block_size, block_size)
                                                  : "no blocks, but whole objects"),
                          "leave --block-size out: it is for a store that is made; sets are copied "
                          "between stores with blocks of one size");
}

// Only this process uses the store: what has a temporary name was left by a run that was killed.
void DirectoryStore::remove_leftovers() noexcept {
    try {
        std::vector<int> folders = {m_objects.descriptor(), m_sets.descriptor()};
        if (m_packs.is_open())
            folders.insert(folders.end(), {m_packs.pack_descriptor(), m_packs.map_descriptor()});
        for (int folder : folders)
            for (const std::string& name : m_place.list_folder(folder, "."))
                if (name.ends_with(temporary_suffix))
                    ::unlinkat(folder, name.c_str(), 0);
        ::unlinkat(m_folder.get(), format_temporary, 0);
        remove_unfinished(m_folder.get(), "runtime");
    } catch (...) {
        // Out of memory: they stay until the next run.
    }
}

int DirectoryStore::descriptor_of(const std::string& name) const {
    if (name.starts_with("packs/"))
        return m_packs.pack_descriptor();
    return name.starts_with("maps/") ? m_packs.map_descriptor() : m_objects.descriptor();
}

void DirectoryStore::take_in(const std::string& name, const StoredFile& file,
                             const std::function<void(const StoredFile&)>& check) {
    constexpr std::uint64_t piece = std::uint64_t{4} << 20;
    const std::string temporary = m_place.path(name) + std::string(temporary_suffix);
    const std::string folder = name.substr(0, name.rfind('/'));
    if (folder.find('/') != std::string::npos)
        if (int error = make_folder(m_objects.descriptor(), name_of(folder), m_folder.get());
            error != 0)
            m_place.fail("create a folder for objects", error, "objects");
    auto written = std::make_shared<FileDescriptor>(
        ::open(temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!*written)
        m_place.fail("create a file", errno, folder);
    try {
        (void)give_to_owner_of(m_folder.get(), written->get());
        std::vector<std::byte> bytes;
        for (std::uint64_t at = 0; at < file.size; at += bytes.size()) {
            bytes.resize(std::min(piece, file.size - at));
            file.read(at, bytes);
            if (int error = write_all(written->get(), bytes); error != 0)
                m_place.fail("write a file", error);
        }
        check(stored_file(written));
        if (!m_mirror && ::fsync(written->get()) != 0)
            m_place.fail("flush a file", errno);
        if (int error = written->close_checked(); error != 0)
            m_place.fail("close a file", error);
        if (::rename(temporary.c_str(), m_place.path(name).c_str()) != 0)
            m_place.fail("put a file in place", errno, folder);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
    if (m_mirror)
        m_mirror->put(name, name.starts_with("maps/") ? Mirror::Local::stays : Mirror::Local::goes);
    else
        m_taken_in.insert({folder, name.substr(0, name.find('/'))});
}

void DirectoryStore::flush_taken_in() {
    for (const std::string& folder : m_taken_in)
        if (int error = flush_directory(m_folder.get(), folder); error != 0)
            m_place.fail("flush the folder " + folder, error);
    m_taken_in.clear();
}

Store::AbsentSets DirectoryStore::absent_sets() {
    if (m_mirror && !m_mirror->fetch(forgotten_file, Mirror::Cache::fetched_anew))
        return {};
    std::optional<std::string> bytes =
        read_small_file(m_folder.get(), forgotten_file, maximal_manifest);
    if (!bytes && errno == ENOENT)
        return {};
    if (!bytes)
        m_place.fail(std::string("read ") + forgotten_file, errno);
    std::string problem;
    std::optional<nlohmann::json> document = from_canonical(*bytes, problem);
    try {
        if (document && document->at("format").get<int>() == forgotten_format)
            return {document->at("sets").get<std::map<std::string, std::string>>(),
                    document->value("not_copied", std::map<std::string, std::string>())};
    } catch (const nlohmann::json::exception&) {
        problem = "is not in its form";
    }
    throw ClientError(ExitCode::damage_found,
                      fmt::format("{} of {} {}", forgotten_file, description(), problem),
                      "bring it back from a copy of the store, or remove it and forget the sets "
                      "that `qrtln verify` misses again");
}

void DirectoryStore::hold_sets(const std::vector<std::string>& sets) {
    for (const std::string& set : sets)
        if (!m_readers.share(set) || !m_sets.has(set))
            throw ClientError(
                ExitCode::failed,
                fmt::format("the set {} is being forgotten, or was just now", for_terminal(set)),
                "`qrtln list` shows the sets that there are");
}

void DirectoryStore::note_not_copied(const std::map<std::string, std::string>& sets) {
    AbsentSets absent = absent_sets();
    if (absent.not_copied == sets)
        return;
    absent.not_copied = sets;
    write_absent(absent);
}

void DirectoryStore::write_absent(const AbsentSets& absent) {
    nlohmann::json document = {{"format", forgotten_format}, {"sets", absent.forgotten}};
    if (!absent.not_copied.empty())
        document["not_copied"] = absent.not_copied;
    if (int error = replace_file(m_place.path(forgotten_file), to_canonical(document)); error != 0)
        m_place.fail(std::string("write ") + forgotten_file, error);
    if (m_mirror)
        m_mirror->put_document(forgotten_file, m_place.path(forgotten_file));
}

void DirectoryStore::forget_set(const std::string& set, const std::string& server) {
    AbsentSets absent = absent_sets();
    absent.forgotten.emplace(set, server);
    write_absent(absent);
    m_sets.remove(set);
}

// Best effort: this runs because something failed already, and that is what gets reported.
void DirectoryStore::discard_added() noexcept {
    m_objects.discard_added();
    m_new_packs.discard();
    if (m_lock && m_objects.is_open())
        remove_leftovers();
    try {
        if (m_skeleton_created && (!m_sets.is_open() || set_names().empty())) {
            m_skeleton_created = false;
            m_place.unwatch(); // it goes by our own hand
            if (m_mirror)
                (void)m_mirror->take_back(format_file);
            ::unlinkat(m_folder.get(), format_file, 0);
            ::unlinkat(m_folder.get(), format_temporary, 0);
            for (const char* name : skeleton_folders)
                remove_tree(m_folder.get(), name);
            ::unlinkat(m_folder.get(), lock_file, 0);
            ::unlinkat(m_folder.get(), readers_file, 0);
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
        ::unlinkat(m_folder.get(), readers_file, 0);
        ::rmdir(m_place.directory().c_str());
    }
}

} // namespace qrtln
