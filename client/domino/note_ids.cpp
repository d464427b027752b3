#include "client/domino/note_ids.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <set>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr const char* list_name = "/noteids_list.txt";
constexpr NoteId deletion_bit = 0x80000000;
constexpr std::size_t largest_file = std::size_t{16} << 20;
constexpr std::size_t shown_length = 40; // of a line that is no id
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

// Whether all of the digits are a number that fits.
bool read_number(std::string_view digits, int base, NoteId& id) {
    const char* end = digits.data() + digits.size();
    auto [stop, error] = std::from_chars(digits.data(), end, id, base);
    return error == std::errc() && stop == end && !digits.empty();
}

bool read_id(std::string_view line, NoteId& id) {
    for (std::string_view prefix : {"0x", "0X", "NT", "nt"})
        if (line.starts_with(prefix))
            return read_number(line.substr(prefix.size()), 16, id);
    return read_number(line, 10, id);
}

[[noreturn]] void refuse_line(const std::string& source, std::size_t number, std::string_view line,
                              const std::string& reason) {
    throw ClientError(ExitCode::usage,
                      fmt::format("{}, line {}: '{}' {}", source, number,
                                  for_terminal(line.substr(0, shown_length)), reason),
                      "one note id a line: decimal, or hexadecimal as 0x8F6 or NT000008F6");
}

std::string read_everything(int fd, const std::string& source) {
    std::string text(largest_file + 1, '\0');
    ssize_t got = read_up_to(fd, std::as_writable_bytes(std::span<char>(text)));
    if (got < 0)
        throw ClientError(ExitCode::failed, fmt::format("cannot read {}: {}", source,
                                                        system_error_text(static_cast<int>(-got))));
    text.resize(static_cast<std::size_t>(got));
    if (text.size() > largest_file)
        throw ClientError(ExitCode::usage, fmt::format("{} is larger than {}: no list of note ids",
                                                       source, human_bytes(largest_file)));
    return text;
}

} // namespace

std::string note_id_text(NoteId id) {
    char text[11];
    std::snprintf(text, sizeof text, "NT%08X", id);
    return text;
}

std::vector<NoteId> parse_note_ids(std::string_view text, const std::string& source) {
    std::vector<NoteId> ids;
    std::set<NoteId> seen;
    if (text.starts_with(byte_order_mark))
        text.remove_prefix(byte_order_mark.size());
    for (std::size_t number = 1; !text.empty(); ++number) {
        std::size_t length = std::min(text.find_first_of("\r\n"), text.size());
        std::string_view line = trimmed(text.substr(0, length), " \t");
        bool both = text.substr(length).starts_with("\r\n");
        text.remove_prefix(std::min(length + (both ? 2 : 1), text.size()));
        if (line.empty() || line.front() == '#')
            continue;
        NoteId id = 0;
        if (!read_id(line, id))
            refuse_line(source, number, line, "is no note id");
        if (id == 0 || (id & deletion_bit) != 0)
            refuse_line(source, number, line, "is the id of no document");
        if (seen.insert(id).second)
            ids.push_back(id);
    }
    if (ids.empty())
        throw ClientError(ExitCode::usage, source + " has no note id");
    return ids;
}

std::vector<NoteId> read_note_ids(const std::string& file) {
    if (file == "-")
        return parse_note_ids(read_everything(STDIN_FILENO, "standard input"), "standard input");
    std::string source = for_terminal(file);
    FileDescriptor list(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!list)
        throw ClientError(ExitCode::usage, fmt::format("cannot open the list of note ids {}: {}",
                                                       source, system_error_text(errno)));
    return parse_note_ids(read_everything(list.get(), source), source);
}

NoteIdList::NoteIdList(const std::string& data_directory) : m_path(data_directory + list_name) {}

NoteIdList::~NoteIdList() {
    (void)remove();
}

void NoteIdList::require_none() const {
    struct stat status {};
    if (::lstat(m_path.c_str(), &status) == 0)
        throw ClientError(
            ExitCode::failed, "there is a list of note ids already: " + for_terminal(m_path),
            "another restore of documents is using it, or one that was killed left it: when none "
            "runs, remove the file and run the same command again");
}

void NoteIdList::place(const std::vector<NoteId>& ids) {
    FileDescriptor file(
        ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file && errno == EEXIST)
        require_none();
    auto fail = [this](int error) {
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write the list of note ids {}: {}",
                                      for_terminal(m_path), system_error_text(error)));
    };
    struct stat status {};
    if (!file)
        fail(errno);
    if (::fstat(file.get(), &status) != 0) {
        int error = errno;
        ::unlink(m_path.c_str()); // just made by this process
        fail(error);
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_placed = true;
    if (int error = give_to_server_user(file.get(), folder_of(m_path)); error != 0)
        fail(error); // the module could not read it
    std::string text;
    for (NoteId id : ids)
        text += std::to_string(id) + "\n";
    int error = write_all(file.get(), as_bytes(text));
    if (int close_error = file.close_checked(); error == 0)
        error = close_error;
    if (error != 0)
        fail(error); // the destructor removes what is there of it
}

int NoteIdList::remove() {
    struct stat status {};
    if (!std::exchange(m_placed, false) || ::lstat(m_path.c_str(), &status) != 0 ||
        status.st_dev != m_device || status.st_ino != m_inode)
        return 0;
    return ::unlink(m_path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

} // namespace qrtln
