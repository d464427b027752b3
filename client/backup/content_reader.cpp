#include "client/backup/content_reader.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/database_names.h"
#include "client/domino/original.h"
#include "client/module/host.h"
#include "client/sets/item_content.h"
#include "client/store/block_hash.h"
#include "client/store/store.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::size_t read_block = std::size_t{1} << 20;

// How long a time of a file is still that of now: a change in the same tick of a file system's
// clock leaves it as it is.
std::chrono::nanoseconds left_of_tick(const timespec& changed) {
    using namespace std::chrono;
    // Whole seconds are those of a file system that has no others.
    const nanoseconds tick = changed.tv_nsec == 0 ? nanoseconds(seconds(2)) : milliseconds(20);
    timespec now{};
    if (::clock_gettime(CLOCK_REALTIME, &now) != 0)
        return nanoseconds(0);
    const nanoseconds age =
        seconds(now.tv_sec - changed.tv_sec) + nanoseconds(now.tv_nsec - changed.tv_nsec);
    return age >= nanoseconds(0) && age < tick ? tick - age : nanoseconds(0);
}

// No later backup would find such a change: the file is read when its time is past.
void wait_for_another_time(const timespec& changed) {
    if (const std::chrono::nanoseconds left = left_of_tick(changed); left.count() > 0)
        std::this_thread::sleep_for(left);
}

std::int64_t change_time_ns(const struct stat& status) {
    return status.st_ctim.tv_sec * std::int64_t{1000000000} + status.st_ctim.tv_nsec;
}

// What is known by size, times and inode to be as it was. A database is a copy, and a log changes
// its name.
bool has_identity(const ManifestItem& item) {
    return item.kind == ItemKind::file || item.kind == ItemKind::other;
}

std::uint64_t size_of(const struct stat& status) {
    return static_cast<std::uint64_t>(status.st_size);
}

// Nobody but us writes to a database's copy, and nobody at all to a log that is full.
bool stays_as_it_is(const ManifestItem& item) {
    return item.kind == ItemKind::database || (item.log && !item.log->active);
}

// What became of the file while `read` bytes were read, as the item's reason or warning. Returns
// whether another try may do.
bool judge_changes(ManifestItem& item, const struct stat& before, const struct stat& after,
                   std::uint64_t read) {
    const std::uint64_t expected = size_of(before);
    const std::uint64_t now = size_of(after);
    const std::string change =
        fmt::format("its size changed from {} to {} bytes while it was read", expected, now);
    const bool whole_or_nothing = is_attachment_object(item.path);
    if (read < expected || now < expected) {
        item.reason = now != expected
                          ? change
                          : fmt::format("only {} of its {} bytes could be read", read, expected);
        return now != expected;
    }
    if (now > expected && (stays_as_it_is(item) || whole_or_nothing)) {
        item.reason = change;
        return whole_or_nothing;
    }
    if (now > expected)
        item.warnings.push_back(fmt::format("{}; {} bytes are stored", change, read));
    bool same_time = after.st_mtim.tv_sec == before.st_mtim.tv_sec &&
                     after.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
    if (item.kind == ItemKind::other && now == expected && !same_time) {
        item.reason = "it was changed while it was read";
        return true;
    }
    return false;
}

} // namespace

bool ContentReader::read(ManifestItem& item, const std::string& file) {
    // O_NONBLOCK: a FIFO that took the file's place must not hang the run.
    FileDescriptor content =
        is_below(file, m_run.temporary->path())
            ? m_run.temporary->open_file(file)
            : FileDescriptor(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (content)
        return read(item, std::move(content));
    item.reason = errno == ENOENT ? "it is gone: it was there when the module listed it"
                                  : "cannot open it: " + system_error_text(errno);
    return false;
}

// Whether an earlier set has the file as it is, in a store that has its content: that is taken.
bool ContentReader::take_unchanged(ManifestItem& item, const struct stat& status) {
    auto found = m_run.earlier.find(item.path);
    if (!has_identity(item) || m_run.request.reread || found == m_run.earlier.end())
        return false;
    const LatestContent& held = found->second;
    if (held.inode != status.st_ino || held.size != size_of(status) ||
        held.ctime_ns != change_time_ns(status) || held.mtime_ns != modification_time_ns(status))
        return false;
    ManifestItem same = item;
    same.object = held.content.name;
    same.map = held.content.map;
    const bool in_blocks = is_in_blocks(same);
    if (in_blocks && !m_damage)
        m_damage.emplace(m_run.context.store);
    if (in_blocks ? m_damage->has(same)
                  : !m_run.context.store.has_object(same.object, held.stored_size))
        return false;
    item = std::move(same);
    item.size = held.size;
    item.stored_size = in_blocks ? 0 : held.stored_size;
    item.changed_size = 0;
    item.ctime_ns = held.ctime_ns;
    item.inode = held.inode;
    return true;
}

std::unique_ptr<ObjectWriter> ContentReader::create(const ManifestItem& item, std::uint64_t size) {
    Store& store = m_run.context.store;
    if (!goes_into_blocks(item, size))
        return store.create_object();
    auto earlier = m_run.earlier.find(item.path);
    std::optional<BlockContent> content;
    if (earlier != m_run.earlier.end() && block_size_of(earlier->second.content.name) != 0)
        content = earlier->second.content;
    return store.create_content(content);
}

bool ContentReader::read(ManifestItem& item, FileDescriptor content) {
    struct stat before {};
    if (::fstat(content.get(), &before) != 0) {
        item.reason = "cannot look at it: " + system_error_text(errno);
        return false;
    }
    if (!S_ISREG(before.st_mode)) {
        item.reason = fmt::format("it is {}, no file", file_type_name(before.st_mode));
        return false;
    }
    if (take_unchanged(item, before))
        return false;
    if (!stays_as_it_is(item))
        wait_for_another_time(before.st_mtim);
    const bool has_past = left_of_tick(before.st_ctim).count() == 0;
    ::posix_fadvise(content.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    // One consistent length: what is there now, even if the file grows meanwhile.
    std::unique_ptr<ObjectWriter> object = create(item, size_of(before));
    const std::uint64_t read = copy(content, *object, size_of(before), item.reason);
    if (!item.reason.empty())
        return false;
    struct stat after {};
    if (::fstat(content.get(), &after) != 0) {
        item.reason = "cannot look at it: " + system_error_text(errno);
        return false;
    }
    const bool may_do_again = judge_changes(item, before, after, read);
    if (!item.reason.empty())
        return may_do_again;
    StoredObject stored = object->finish();
    item.object = stored.hash;
    item.size = stored.size;
    item.stored_size = stored.stored_size;
    item.changed_size = stored.changed_size;
    item.map = stored.map;
    if (has_identity(item) && has_past && read == size_of(after) &&
        item.mtime_ns == modification_time_ns(before)) {
        item.ctime_ns = change_time_ns(before);
        item.inode = before.st_ino;
    }
    if (!stored.warning.empty())
        item.warnings.push_back(stored.warning);
    m_run.set.note_object(stored);
    return false;
}

// Copies no more than what was there at first. Returns how much there was.
std::uint64_t ContentReader::copy(FileDescriptor& content, ObjectWriter& object,
                                  std::uint64_t expected, std::string& problem) {
    m_buffer.resize(read_block);
    std::uint64_t read = 0;
    while (read < expected) {
        m_run.items().host().forward_interrupt();
        if (interrupt_signal() != 0) {
            problem = "interrupted";
            break;
        }
        std::size_t wanted = std::min<std::uint64_t>(m_buffer.size(), expected - read);
        ssize_t got = read_up_to(content.get(), std::span(m_buffer.data(), wanted));
        if (got < 0)
            problem = "cannot read it: " + system_error_text(static_cast<int>(-got));
        if (got <= 0)
            break;
        object.write(Bytes(m_buffer.data(), static_cast<std::size_t>(got)));
        read += static_cast<std::uint64_t>(got);
        m_run.progress->add_bytes(static_cast<std::uint64_t>(got));
    }
    return read;
}

} // namespace qrtln
