#include "client/sets/owed.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <optional>

namespace qrtln {

namespace {

using nlohmann::json;

// A line has at most two paths, each twice.
constexpr std::size_t maximal_owed_file = std::size_t{256} << 20;
constexpr const char* checksum_field = "checksum";

// One line, without its line feed. Paths are bytes: where they are not UTF-8 their hexadecimal form
// says exactly which.
std::string line_of(const std::string& data_directory, const std::string& path, bool restored) {
    json line;
    put_bytes(line, "data_directory", data_directory);
    put_bytes(line, "path", path);
    if (restored)
        line["restored"] = true;
    line[checksum_field] = sha256_hex(line.dump());
    return line.dump();
}

} // namespace

std::string owed_file_of(const Store& store) {
    return store.stored_runtime_directory() + "/owed.jsonl";
}

std::string copy_owed(const Store& store, const std::string& folder) {
    std::string original = owed_file_of(store);
    std::string copy = folder + "/owed.jsonl";
    std::optional<std::string> content = read_small_file(AT_FDCWD, original, maximal_owed_file);
    int error = content ? 0 : errno;
    throw_if_no_permission("read the list of owed databases", original, error);
    if (error == 0)
        error = replace_file(copy, *content);
    else if (error == ENOENT)
        error = ::unlink(copy.c_str()) == 0 || errno == ENOENT ? 0 : errno;
    if (error != 0)
        throw ClientError(ExitCode::failed, "cannot look at the list of owed databases " +
                                                for_terminal(original) + ": " +
                                                system_error_text(error));
    return copy;
}

OwedDatabases::OwedDatabases(std::string file, Access access) : m_file(std::move(file)) {
    std::optional<std::string> content = read_small_file(AT_FDCWD, m_file, maximal_owed_file);
    if (!content && errno == ENOENT)
        return;
    if (!content)
        fail("read", errno);
    m_exists = true;
    std::size_t line_number = 0;
    std::size_t start = 0;
    for (std::size_t end; (end = content->find('\n', start)) != std::string::npos;
         start = end + 1) {
        ++line_number;
        std::string text = content->substr(start, end - start);
        json line = json::parse(text, nullptr, false);
        std::string data_directory;
        std::string path;
        bool restored = false;
        try {
            data_directory = get_bytes(line, "data_directory");
            path = get_bytes(line, "path");
            restored = line.contains("restored");
        } catch (const std::exception&) {
            path.clear(); // no entry has an empty one
        }
        // Writing it again settles form and checksum at once.
        if (path.empty() || line_of(data_directory, path, restored) != text)
            throw ClientError(
                ExitCode::failed,
                "line " + std::to_string(line_number) + " of " + for_terminal(m_file) +
                    " is damaged: it names a database that a failed run did not store",
                "move the file away, then take a whole backup: `qrtln backup --level full`");
        m_entries[{std::move(data_directory), std::move(path)}] |= restored;
    }
    if (access == Access::change)
        make_durable(start, start < content->size());
}

std::vector<std::string> OwedDatabases::of(const std::string& data_directory) const {
    std::vector<std::string> paths;
    for (const auto& [entry, restored] : m_entries)
        if (entry.first == data_directory)
            paths.push_back(entry.second);
    return paths;
}

bool OwedDatabases::has(const std::string& data_directory, const std::string& path) const {
    return m_entries.contains({data_directory, path});
}

bool OwedDatabases::is_restored(const std::string& data_directory, const std::string& path) const {
    auto found = m_entries.find({data_directory, path});
    return found != m_entries.end() && found->second;
}

std::string OwedDatabases::lines() const {
    std::string content;
    for (const auto& [entry, restored] : m_entries)
        content += line_of(entry.first, entry.second, restored) + "\n";
    return content;
}

void OwedDatabases::add(const std::string& data_directory, const std::vector<std::string>& paths,
                        bool restored) {
    if (m_unsettled) {
        if (int error = replace_file(m_file, lines()); error != 0)
            fail("write", error);
        m_exists = true;
        m_unsettled = false;
    }
    std::string added;
    for (const std::string& path : paths) {
        auto known = m_entries.find({data_directory, path});
        if (known == m_entries.end() || (!known->second && restored))
            added += line_of(data_directory, path, restored) + "\n";
    }
    if (added.empty())
        return;
    FileDescriptor file(
        ::open(m_file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file)
        (void)give_to_owner_of_folder(m_file);
    off_t size = file ? ::lseek(file.get(), 0, SEEK_END) : -1;
    if (size < 0)
        fail("open", errno);
    int error = write_all(file.get(), as_bytes(added));
    if (error == 0 && ::fdatasync(file.get()) != 0)
        error = errno;
    if (error == 0 && !m_exists)
        error = flush_directory(AT_FDCWD, folder_of(m_file));
    if (error != 0) {
        // Half a line must not stay in front of the next one.
        if (::ftruncate(file.get(), size) != 0)
            m_unsettled = true;
        fail("write", error);
    }
    m_exists = true;
    for (const std::string& path : paths)
        m_entries[{data_directory, path}] |= restored;
}

void OwedDatabases::add_restored(const std::string& data_directory,
                                 const std::vector<std::string>& paths) {
    std::map<Entry, bool> before = m_entries;
    for (const std::string& path : paths)
        m_entries[{data_directory, path}] = true;
    if (m_entries == before)
        return;
    if (int error = replace_file(m_file, lines()); error != 0) {
        m_entries = std::move(before);
        m_unsettled = true;
        fail("write", error);
    }
    m_exists = true;
    m_unsettled = false;
}

int OwedDatabases::strike(const std::string& data_directory,
                          const std::vector<std::string>& paths) {
    std::map<Entry, bool> before = m_entries;
    for (const std::string& path : paths)
        m_entries.erase({data_directory, path});
    if (m_entries.size() == before.size())
        return 0;
    int error = 0;
    if (!m_entries.empty())
        error = replace_file(m_file, lines());
    else
        error =
            ::unlink(m_file.c_str()) == 0 ? flush_directory(AT_FDCWD, folder_of(m_file)) : errno;
    m_unsettled = error != 0;
    if (m_unsettled)
        m_entries = std::move(before);
    else
        m_exists = !m_entries.empty();
    return error;
}

// A killed run may have left lines, and the file's name, that it had not flushed yet. A
// half-written last line is cut off.
void OwedDatabases::make_durable(std::size_t size, bool cut) {
    FileDescriptor file(::open(m_file.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    int error = file ? 0 : errno;
    if (error == 0 && cut && ::ftruncate(file.get(), static_cast<off_t>(size)) != 0)
        error = errno;
    if (error == 0 && ::fsync(file.get()) != 0)
        error = errno;
    if (error == 0)
        error = flush_directory(AT_FDCWD, folder_of(m_file));
    if (error != 0)
        fail(cut ? "cut the half-written last line off" : "flush", error);
}

void OwedDatabases::fail(const std::string& doing, int error) const {
    throw_if_no_permission(doing + " the list of owed databases", m_file, error, true);
    std::string hint;
    if (error == ENOSPC || error == EDQUOT)
        hint = "make room on the file system of the store";
    throw ClientError(ExitCode::failed,
                      "cannot " + doing + " the list of owed databases " + for_terminal(m_file) +
                          ": " + system_error_text(error),
                      hint);
}

} // namespace qrtln
