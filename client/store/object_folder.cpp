#include "client/store/object_folder.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/compression.h"
#include "client/store/digest.h"
#include "client/store/mirror.h"
#include "client/store/sealing.h"
#include "client/store/state_folder.h"
#include "client/store/stored_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

// "AB" of "objects/AB/AB.zst".
std::string beginning_of(const std::string& path) {
    const std::string name = name_in_folder(path);
    return name.substr(0, name.find('/'));
}

} // namespace

ObjectCheck read_object_file(const StoredFile& file, const std::string& hash,
                             const std::function<void(Bytes)>& sink) {
    ObjectCheck check;
    std::uint64_t at = 0;
    Sha256 digest;
    check.problem = decompress(
        [&](std::span<std::byte> buffer) {
            const auto count =
                static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), file.size - at));
            file.read(at, buffer.first(count));
            at += count;
            return count;
        },
        [&](Bytes bytes) {
            digest.update(bytes);
            check.size += bytes.size();
            sink(bytes);
        });
    if (check.problem.empty() && digest.finish() != hash)
        check.problem = "does not have the content that its name tells";
    return check;
}

void ObjectFolder::open(FileDescriptor folder, int store) {
    m_folder = std::move(folder);
    m_store = store;
}

std::string ObjectFolder::temporary_name() {
    return fmt::format("incoming-{}{}", m_next_temporary++, temporary_suffix);
}

void ObjectFolder::expect_flush(const std::string& path) {
    m_unflushed.insert(beginning_of(path));
    m_itself_unflushed = true;
}

ObjectCheck ObjectFolder::read(const std::string& hash,
                               const std::function<void(Bytes)>& sink) const {
    ObjectCheck check;
    try {
        const StoredFile file = open_stored_file(m_place, m_folder.get(), FileKind::object, hash);
        check = read_object_file(file, hash, sink);
    } catch (const PackDamage& damage) {
        check.problem = damage.problem;
    }
    if (!check.problem.empty())
        m_place.require_there();
    return check;
}

std::vector<std::string> ObjectFolder::list(std::vector<std::string>* foreign) const {
    std::vector<std::string> hashes;
    for (const std::string& folder : m_place.list_part(m_folder.get(), object_folder)) {
        const bool is_beginning = folder.size() == 2 && from_hex(folder).has_value();
        if (!is_beginning) {
            if (foreign != nullptr)
                foreign->push_back("objects/" + folder);
            continue;
        }
        const std::string shown = fmt::format("objects/{}/", folder);
        for (const std::string& name : m_place.list_part(m_folder.get(), object_folder, folder)) {
            std::optional<std::string> hash = m_place.id_of(FileKind::object, name);
            if (hash && name.starts_with(folder))
                hashes.push_back(std::move(*hash));
            else if (foreign != nullptr && !StorePlace::is_damage_note(name))
                foreign->push_back(shown + name);
        }
    }
    std::sort(hashes.begin(), hashes.end());
    return hashes;
}

bool ObjectFolder::has(const std::string& hash, std::uint64_t stored_size) const {
    const std::string path = path_of(hash);
    std::optional<std::uint64_t> size;
    struct stat status {};
    if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
        size = mirror->size_of(path);
    else if (::fstatat(m_folder.get(), name_in_folder(path).c_str(), &status,
                       AT_SYMLINK_NOFOLLOW) == 0 &&
             S_ISREG(status.st_mode))
        size = static_cast<std::uint64_t>(status.st_size);
    if (size && m_place.sealing() != nullptr)
        size = unsealed_size(*size);
    return size == stored_size && !is_noted_damaged(hash);
}

int ObjectFolder::note_damage(const std::string& hash, bool damaged) const {
    const std::string note = name_in_folder(m_place.damage_note_of(FileKind::object, hash));
    if (!damaged)
        return ::unlinkat(m_folder.get(), note.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
    const std::string path = path_of(hash);
    if (Mirror* mirror = m_place.mirror(); mirror != nullptr) {
        if (!mirror->size_of(path))
            return 0;
        if (int error = make_folder(m_folder.get(), beginning_of(path), m_store); error != 0)
            return error;
    } else if (::faccessat(m_folder.get(), name_in_folder(path).c_str(), F_OK,
                           AT_SYMLINK_NOFOLLOW) != 0) {
        return 0; // one that is missing needs no note
    }
    const FileDescriptor file(
        ::openat(m_folder.get(), note.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        return errno;
    (void)give_to_owner_of(m_store, file.get());
    return 0;
}

bool ObjectFolder::is_noted_damaged(const std::string& hash) const {
    struct stat status {};
    const std::string note = name_in_folder(m_place.damage_note_of(FileKind::object, hash));
    return ::fstatat(m_folder.get(), note.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

void ObjectFolder::flush() {
    for (const std::string& folder : m_unflushed)
        if (int error = flush_directory(m_folder.get(), folder); error != 0)
            m_place.fail("flush the folder objects/" + folder, error);
    m_unflushed.clear();
    if (int error = m_itself_unflushed ? flush_folder(m_folder.get()) : 0; error != 0)
        m_place.fail("flush the folder objects", error);
    m_itself_unflushed = false;
}

void ObjectFolder::discard(const std::string& hash) noexcept {
    // Its folder stays: it is flushed with the others.
    if (auto added = std::find(m_added.begin(), m_added.end(), path_of(hash));
        added != m_added.end() && remove_file(*added))
        m_added.erase(added);
}

bool ObjectFolder::remove_file(const std::string& path) const noexcept {
    bool removed = ::unlinkat(m_folder.get(), name_in_folder(path).c_str(), 0) == 0;
    if (Mirror* mirror = m_place.mirror(); mirror != nullptr)
        removed = mirror->take_back(path);
    return removed;
}

void ObjectFolder::discard_added() noexcept {
    for (const std::string& path : m_added) {
        (void)remove_file(path);
        ::unlinkat(m_folder.get(), beginning_of(path).c_str(), AT_REMOVEDIR); // when it is empty
    }
    m_added.clear();
}

} // namespace qrtln
