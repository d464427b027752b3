#include "client/restore/waiting_copies.h"

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/domino/server_user.h"
#include "client/module/temporary_directory.h"
#include "client/store/canonical_json.h"
#include "client/store/file_digest.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace qrtln {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* waiting_note = "/qrtln-waiting.json";
constexpr int waiting_format = 1;
constexpr std::size_t maximal_waiting_note = std::size_t{64} << 20;
constexpr mode_t others_write = S_IWGRP | S_IWOTH;

// Whether nobody but this user, the server's and root can have changed the file.
bool is_own(const struct stat& status, const std::string& data_directory) {
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           is_runs_own(status.st_uid, data_directory) && (status.st_mode & others_write) == 0;
}

// Whether nobody else gets to what is in the open folder.
bool is_private(int folder, const std::string& data_directory) {
    constexpr mode_t others = S_IRWXG | S_IRWXO;
    struct stat status {};
    return ::fstat(folder, &status) == 0 && is_runs_own(status.st_uid, data_directory) &&
           (status.st_mode & others) == 0;
}

bool is_same(const struct stat& first, const struct stat& second) {
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino &&
           first.st_size == second.st_size && first.st_mtim.tv_sec == second.st_mtim.tv_sec &&
           first.st_mtim.tv_nsec == second.st_mtim.tv_nsec;
}

// The copies that the note in a folder tells, of this server.
std::vector<NotedCopy> read_note(const std::string& folder, const std::string& data_directory) {
    struct stat status {};
    std::string note = folder + waiting_note;
    FileDescriptor open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!open || !is_private(open.get(), data_directory) || ::lstat(note.c_str(), &status) != 0 ||
        !is_own(status, data_directory))
        return {};
    std::optional<std::string> content = read_small_file(AT_FDCWD, note, maximal_waiting_note);
    std::string problem;
    std::optional<json> document;
    if (content)
        document = from_canonical(*content, problem);
    std::vector<NotedCopy> copies;
    try {
        if (!document || document->at("format").get<int>() != waiting_format ||
            get_bytes(*document, "data_directory") != data_directory)
            return {};
        for (const json& entry : document->at("copies"))
            copies.push_back({get_bytes(entry, "path"), get_bytes(entry, "copy"),
                              entry.at("object").get<std::string>()});
    } catch (const std::exception&) {
        return {};
    }
    return copies;
}

// A copy that is this run's own, opened without leaving its folder.
struct OpenCopy {
    FileDescriptor folder;
    std::string name;
    FileDescriptor file;
    struct stat status {};
    explicit operator bool() const { return static_cast<bool>(file); }
};

OpenCopy open_copy(const std::string& kept, const std::string& relative,
                   const std::string& data_directory) {
    OpenCopy copy;
    std::string problem;
    SafeFolder root(kept);
    std::size_t slash = relative.rfind('/');
    copy.folder =
        root.open_folder(slash == std::string::npos ? "" : relative.substr(0, slash), problem);
    copy.name = name_of(relative);
    if (copy.folder)
        copy.file = root.open_file(relative, problem);
    bool good = copy.file && ::fstat(copy.file.get(), &copy.status) == 0 &&
                is_own(copy.status, data_directory) &&
                is_private(root.open_folder("", problem).get(), data_directory);
    if (!good)
        copy.file.reset();
    return copy;
}

// Whether the open copy has this content, and has had it all the time while it was read.
bool has_content(const OpenCopy& copy, const std::string& object,
                 const std::function<void()>& between) {
    struct stat after {};
    return descriptor_has_content(copy.file.get(), object, between) &&
           ::fstat(copy.file.get(), &after) == 0 && after.st_nlink == 1 &&
           after.st_uid == copy.status.st_uid && after.st_mode == copy.status.st_mode &&
           is_same(copy.status, after);
}

// Folders that are not empty stay.
void remove_empty_folders(const std::string& folder) {
    std::vector<fs::path> folders;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
        if (entry->symlink_status(error).type() == fs::file_type::directory)
            folders.push_back(entry->path());
    for (auto path = folders.rbegin(); path != folders.rend(); ++path)
        (void)::rmdir(path->c_str());
    (void)::rmdir(folder.c_str());
}

} // namespace

int note_waiting_copies(const std::string& folder, const std::string& data_directory,
                        const std::vector<NotedCopy>& copies) {
    json document = {{"format", waiting_format}, {"copies", json::array()}};
    put_bytes(document, "data_directory", data_directory);
    for (const NotedCopy& copy : copies) {
        json& entry = document["copies"].emplace_back(json::object());
        put_bytes(entry, "path", copy.path);
        put_bytes(entry, "copy", copy.copy);
        entry["object"] = copy.object;
    }
    return replace_file(folder + waiting_note, to_canonical(std::move(document)));
}

WaitingCopies::WaitingCopies(const std::string& tmp_dir, const std::string& data_directory)
    : m_data_directory(data_directory) {
    for (const std::string& folder : kept_folders(tmp_dir)) {
        std::vector<NotedCopy> copies = read_note(folder, data_directory);
        if (!copies.empty())
            m_kept.push_back({folder, std::move(copies)});
    }
}

bool WaitingCopies::has(const ManifestItem& item) const {
    for (const Kept& kept : m_kept)
        for (const NotedCopy& noted : kept.copies) {
            if (noted.path != item.path || noted.object != item.object)
                continue;
            OpenCopy copy = open_copy(kept.folder, noted.copy, m_data_directory);
            if (copy && static_cast<std::uint64_t>(copy.status.st_size) == item.size)
                return true;
        }
    return false;
}

std::string WaitingCopies::take(const ManifestItem& item, int folder, const std::string& name,
                                const std::function<void()>& between) {
    for (Kept& kept : m_kept)
        for (const NotedCopy& noted : kept.copies) {
            if (noted.path != item.path || noted.object != item.object)
                continue;
            OpenCopy copy = open_copy(kept.folder, noted.copy, m_data_directory);
            if (!copy || !has_content(copy, item.object, between) ||
                ::renameat2(copy.folder.get(), copy.name.c_str(), folder, name.c_str(),
                            RENAME_NOREPLACE) != 0)
                continue;
            struct stat moved {};
            if (::fstatat(folder, name.c_str(), &moved, AT_SYMLINK_NOFOLLOW) == 0 &&
                is_own(moved, m_data_directory) && is_same(copy.status, moved) &&
                give_to_server_user(copy.file.get(), m_data_directory) == 0)
                return kept.folder + "/" + noted.copy;
            (void)::unlinkat(folder, name.c_str(), 0);
        }
    return {};
}

std::vector<std::string> WaitingCopies::drop(const std::string& path,
                                             const std::function<void()>& between) {
    std::vector<std::string> warnings;
    for (Kept& kept : m_kept) {
        bool concerned = false;
        for (const NotedCopy& noted : kept.copies) {
            const std::string file = kept.folder + "/" + noted.copy;
            if (noted.path != path || !exists(kept.folder))
                continue;
            concerned = true;
            OpenCopy copy = open_copy(kept.folder, noted.copy, m_data_directory);
            if (copy && has_content(copy, noted.object, between))
                (void)::unlinkat(copy.folder.get(), copy.name.c_str(), 0);
            if (exists(file))
                warnings.push_back(std::string(path)
                                       .append(": the copy that an earlier restore left, ")
                                       .append(file)
                                       .append(", was changed since: it is left alone"));
        }
        auto waits = [&](const NotedCopy& noted) { return exists(kept.folder + "/" + noted.copy); };
        if (!concerned || std::any_of(kept.copies.begin(), kept.copies.end(), waits))
            continue;
        (void)::unlink((kept.folder + waiting_note).c_str());
        remove_empty_folders(kept.folder);
    }
    return warnings;
}

} // namespace qrtln
