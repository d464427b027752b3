#include "client/store/lock_state.h"

#include "client/base/error.h"
#include "client/base/lock_holders.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/folder_lock.h"
#include "client/store/reader_locks.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <set>

namespace qrtln {

namespace {

// One of the store's two files; empty where it is not there, as nobody has it locked then.
FileDescriptor open_lock_of(const Store& store, const char* name) {
    const std::string path = fmt::format("{}/{}", store.location(), name);
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (int error = file ? 0 : errno; error != 0 && error != ENOENT) {
        throw_if_no_permission("open the lock file", path, error);
        throw ClientError(ExitCode::failed, fmt::format("cannot open {}: {}", for_terminal(path),
                                                        system_error_text(error)));
    }
    return file;
}

bool is_read(int file, const std::string& set) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = reader_byte(set);
    range.l_len = 1;
    return ::fcntl(file, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

} // namespace

const char* lock_state_name(LockState state) {
    switch (state) {
    case LockState::free:
        return "free";
    case LockState::held:
        return "held";
    case LockState::left:
        return "left";
    case LockState::noted:
        return "noted";
    }
    return "";
}

UsedLock state_of_lock(int file, bool has_note) {
    std::optional<ProcessNote> note = has_note ? read_lock_note(file) : std::nullopt;
    if (note && note->boot.empty()) // of an earlier release, which leaves it there
        note.reset();
    const Liveness noted = note ? liveness_of(*note) : Liveness::ended;
    for (const LockHolder& holder : lock_holders(file, LockKind::whole)) {
        bool since_noted =
            note && noted == Liveness::runs && note->process == holder.process.process;
        return {LockState::held, since_noted ? *note : holder.process};
    }
    if (!note)
        return {};
    return {noted == Liveness::not_known ? LockState::noted : LockState::left, note};
}

UsedLock claim_of(const Store& store) {
    const std::optional<ProcessNote> process = store.claimed_by();
    if (!process)
        return {};
    const Liveness liveness = process->process == 0 ? Liveness::not_known : liveness_of(*process);
    return {liveness == Liveness::runs    ? LockState::held
            : liveness == Liveness::ended ? LockState::left
                                          : LockState::noted,
            process};
}

UsedLock writer_of(const Store& store) {
    FileDescriptor file = open_lock_of(store, lock_file);
    return file ? state_of_lock(file.get(), true) : UsedLock{};
}

std::vector<UsedLock> readers_of(const Store& store, const std::vector<std::string>& sets) {
    FileDescriptor file = open_lock_of(store, readers_file);
    if (!file)
        return {};
    std::set<std::string> read;
    for (const std::string& set : sets)
        if (is_read(file.get(), set))
            read.insert(set);
    if (read.empty())
        return {};
    std::vector<UsedLock> readers;
    std::set<std::string> unseen = read;
    for (const LockHolder& holder : lock_holders(file.get(), LockKind::bytes)) {
        UsedLock reader{LockState::held, holder.process};
        for (const std::string& set : read) {
            const std::int64_t byte = reader_byte(set);
            if (std::any_of(holder.ranges.begin(), holder.ranges.end(), [&](const auto& range) {
                    return range.first <= byte && byte <= range.second;
                })) {
                reader.sets.push_back(set);
                unseen.erase(set);
            }
        }
        if (!reader.sets.empty())
            readers.push_back(std::move(reader));
    }
    if (!unseen.empty()) // by processes into which this user may not look
        readers.push_back({LockState::held, std::nullopt, {unseen.begin(), unseen.end()}});
    return readers;
}

} // namespace qrtln
