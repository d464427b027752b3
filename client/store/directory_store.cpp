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
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr int store_format = 2;
constexpr int whole_objects_format = 1; // without packs
constexpr int encrypted_format = 3;
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
                                              std::string* damage, const NewStore& made) {
    if (!is_elsewhere(place))
        return std::make_unique<DirectoryStore>(place, access, damage, made);
    auto mirror = std::make_unique<Mirror>(place);
    const std::string directory = mirror->directory();
    return std::make_unique<DirectoryStore>(directory, access, damage, made, std::move(mirror));
}

} // namespace

std::unique_ptr<Store> open_directory_store(const std::string& directory, StoreAccess access,
                                            std::string* damage, const NewStore& made) {
    std::unique_ptr<DirectoryStore> store = open_anywhere(directory, access, damage, made);
    if (!store->warning().empty())
        print_warnings({store->warning()});
    return store;
}

std::unique_ptr<Store> open_store_with_state(const StateRequest& request) {
    auto store =
        std::make_unique<DirectoryStore>(request.store, StoreAccess::read, nullptr, NewStore());
    store->keep_state_in(request);
    return store;
}

DirectoryStore::DirectoryStore(const std::string& directory, StoreAccess access,
                               std::string* damage, const NewStore& made,
                               std::unique_ptr<Mirror> mirror)
    : m_mirror(std::move(mirror)), m_place(directory, m_mirror.get()),
      m_runtime(m_place.path("runtime")), m_keys(m_place), m_objects(m_place), m_sets(m_place),
      m_packs(m_place) {
    try {
        const bool locks = access != StoreAccess::read && access != StoreAccess::read_damaged;
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
                create_skeleton(made);
            } else if (access == StoreAccess::create) {
                throw ClientError(ExitCode::failed,
                                  fmt::format("{} is there already", m_place.description()),
                                  "name a new or empty folder with --store");
            }
        }
        check_format(access == StoreAccess::read_damaged ? damage : nullptr);
        if (access == StoreAccess::write)
            require_block_size(made.block_size);
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
                     name == key_folder ||
                     std::find(skeleton_folders.begin(), skeleton_folders.end(), name) !=
                         skeleton_folders.end();
        if (!known)
            return false;
    }
    for (const char* name : skeleton_folders)
        if (m_place.exists(folder, name) && !m_place.list_folder(folder, name).empty())
            return false;
    if (m_place.exists(folder, key_folder))
        for (const std::string& name : m_place.list_folder(folder, key_folder))
            if (!KeyFolder::is_path_of_key(fmt::format("{}/{}", key_folder, name)))
                return false;
    return true;
}

void DirectoryStore::open_folder(StoreAccess access) {
    auto open = [&] {
        m_folder =
            FileDescriptor(::open(m_place.directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return static_cast<bool>(m_folder);
    };
    if (!open() && errno == ENOENT &&
        (access == StoreAccess::write || access == StoreAccess::create)) {
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
    if (access != StoreAccess::write && access != StoreAccess::create)
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

void DirectoryStore::create_skeleton(const NewStore& made) {
    if (!made.encrypted)
        refuse_plain();
    // Before anything is this run's to take back: where store.json alone was lost the keys are not.
    if (m_mirror)
        for (const auto& [name, size] : m_mirror->files())
            if (!KeyFolder::is_path_of_key(name))
                throw ClientError(
                    ExitCode::no_store,
                    fmt::format("{} is not empty and is no store: store.json is missing",
                                for_terminal(m_mirror->place())),
                    "name a store, or a new or empty folder, with --store");
    m_skeleton_created = true;
    for (const char* name : skeleton_folders)
        if (int error = make_folder(m_folder.get(), name, m_folder.get()); error != 0)
            m_place.fail("create the folder " + std::string(name), error);
    // The format file comes last, also on the disk: without it the folder is no store, and with it
    // the folders are there.
    if (int error = flush_folder(m_folder.get()); error != 0)
        m_place.fail("flush the folder", error);
    m_keys.open(m_folder.get());
    m_keys.remove_all();
    if (made.encrypted) {
        m_place.seal_with(std::make_shared<Sealing>(SecretKey::random()));
        (void)add_key(key_settings().secrets().at(0), made.label);
    }
    write_format(made.block_size != 0 ? made.block_size : usual_block,
                 m_mirror ? m_mirror->id() : new_store_id());
    if (m_mirror)
        m_mirror->put_document(format_file, m_place.path(format_file));
}

// Who gives a key means an encrypted store: another one in its place would get what is secret.
void DirectoryStore::refuse_plain() const {
    if (key_settings().empty() || key_settings().takes_plain_stores)
        return;
    throw ClientError(
        ExitCode::no_permission,
        fmt::format("a key was given, but {} is not encrypted", m_place.description()),
        "leave the key out if that is as it should be; `qrtln init --encrypt` makes "
        "an encrypted store");
}

std::string DirectoryStore::add_key(const Secret& secret, const std::string& label) {
    const WrappedKey key =
        wrap_key(m_place.sealing()->store_key(), secret, label, std::time(nullptr));
    m_keys.add(key);
    return key.id;
}

void DirectoryStore::remove_key(const std::string& id) {
    const std::vector<WrappedKey> keys = m_keys.list(nullptr);
    if (std::none_of(keys.begin(), keys.end(), [&](const WrappedKey& key) { return key.id == id; }))
        throw ClientError(ExitCode::no_such,
                          fmt::format("{} has no key {}", description(), for_terminal(id)),
                          "`qrtln key list` shows them");
    if (keys.size() == 1)
        throw ClientError(ExitCode::failed,
                          fmt::format("{} is the only key of {}: nothing would open it any more",
                                      id, description()),
                          "add another one first with `qrtln key add`");
    m_keys.remove(id);
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
    if (m_place.sealing() != nullptr)
        format.update({{"format", encrypted_format},
                       {"mark", m_place.sealing()->format_mark(id, block_size)}});
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
    m_keys.open(m_folder.get());
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
        else if (*format != store_format && *format != whole_objects_format &&
                 *format != encrypted_format)
            throw ClientError(
                ExitCode::no_store,
                fmt::format("{} has the format {}, which this version of qrtln does not know",
                            description(), format->dump()),
                "use the version of qrtln that wrote it, or a newer one");
    }
    const bool is_encrypted =
        problem.empty() ? *document->find("format") == encrypted_format : m_keys.has_any();
    if (problem.empty() && *document->find("format") != whole_objects_format &&
        !is_block_size(block_size_in(*document)))
        problem = "does not tell a size of blocks that a store can have";
    if (is_encrypted && m_place.sealing() == nullptr && (problem.empty() || damage != nullptr))
        m_place.seal_with(std::make_shared<Sealing>(m_keys.unlock()));
    if (!is_encrypted)
        refuse_plain();
    if (problem.empty()) {
        m_id = id_of(*document);
        m_block_size = static_cast<std::uint32_t>(block_size_in(*document));
        m_new_packs.set_block_size(m_block_size);
        if (is_encrypted && document->value("mark", nlohmann::json()) !=
                                m_place.sealing()->format_mark(m_id, m_block_size))
            problem = "is not the one that was made with its key";
    }
    if (problem.empty())
        return;
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
        if (m_place.exists(m_folder.get(), key_folder))
            for (const std::string& name : m_place.list_folder(m_folder.get(), key_folder))
                if (name.ends_with(temporary_suffix))
                    ::unlinkat(m_folder.get(), fmt::format("{}/{}", key_folder, name).c_str(), 0);
        ::unlinkat(m_folder.get(), format_temporary, 0);
        remove_unfinished(m_folder.get(), "runtime");
    } catch (...) {
        // Out of memory: they stay until the next run.
    }
}

int DirectoryStore::descriptor_of(FileKind kind) const {
    if (kind == FileKind::pack)
        return m_packs.pack_descriptor();
    return kind == FileKind::map ? m_packs.map_descriptor() : m_objects.descriptor();
}

void DirectoryStore::take_in(FileKind kind, const std::string& id, const StoredFile& file,
                             const std::function<void(const StoredFile&)>& check) {
    constexpr std::uint64_t piece = std::uint64_t{4} << 20;
    const std::string name = m_place.path_of(kind, id);
    const std::string unsealed_name = stored_path(kind, id);
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
        FileSealer sealer(m_place.sealing(), [&](Bytes bytes) {
            if (int error = write_all(written->get(), bytes); error != 0)
                m_place.fail("write a file", error);
        });
        std::vector<std::byte> bytes;
        for (std::uint64_t at = 0; at < file.size; at += bytes.size()) {
            bytes.resize(std::min(piece, file.size - at));
            file.read(at, bytes);
            sealer.write(bytes);
        }
        sealer.finish(unsealed_name);
        check(is_encrypted() ? m_place.sealing()->unsealed(stored_file(written), unsealed_name)
                             : stored_file(written));
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
        m_mirror->put(name, kind == FileKind::map ? Mirror::Local::stays : Mirror::Local::goes);
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
    bytes = m_place.read_document(*bytes, forgotten_file, problem);
    std::optional<nlohmann::json> document;
    if (bytes)
        document = from_canonical(*bytes, problem);
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
    if (int error = replace_file(m_place.path(forgotten_file),
                                 m_place.stored_document(to_canonical(document), forgotten_file));
        error != 0)
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
            m_keys.remove_all();
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
