#include "client/acceptance/notes_backup.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <fmt/format.h>

namespace qrtln::acceptance {

namespace {

constexpr WORD documents = 1;
constexpr NOTEID deleted_bit = 0x80000000;
constexpr std::size_t buffer_size = 32768;

// The table of ids that a call gave.
class IdTable {
  public:
    ~IdTable() {
        if (m_handle != 0)
            notes_api.IDDestroyTable(m_handle);
    }
    DHANDLE* slot() { return &m_handle; }
    std::set<NOTEID> ids() const {
        std::set<NOTEID> found;
        NOTEID id = 0;
        for (BOOL more = notes_api.IDScan(m_handle, 1, &id); more != 0;
             more = notes_api.IDScan(m_handle, 0, &id))
            if ((id & deleted_bit) == 0)
                found.insert(id);
        return found;
    }

  private:
    DHANDLE m_handle = 0;
};

// The context in which changes are applied to a copy; given up unless ended.
class ApplyContext {
  public:
    ~ApplyContext() {
        if (m_handle != 0)
            notes_api.NSFBackupEndApplyChangeInfo(m_handle, give_up);
    }
    DHANDLE* slot() { return &m_handle; }
    DHANDLE handle() const { return m_handle; }
    STATUS end() {
        return notes_api.NSFBackupEndApplyChangeInfo(std::exchange(m_handle, 0), complete);
    }

  private:
    DHANDLE m_handle = 0;
};

std::uint64_t joined(DWORD low, DWORD high) {
    return std::uint64_t{high} << 32 | low;
}

} // namespace

std::set<NOTEID> documents_of(Teller& teller, const OpenDatabase& database,
                              const std::string& shown) {
    TIMEDATE since{};
    TIMEDATE until{};
    IdTable table;
    teller.calling("TimeConstant(2)");
    notes_api.TimeConstant(kTimeWildcard, &since);
    teller.calling(fmt::format("NSFDbGetModifiedNoteTable({})", shown));
    const STATUS status = notes_api.NSFDbGetModifiedNoteTable(database.handle(), documents, since,
                                                              &until, table.slot());
    if (isStatus(status, kNotesNoNoteModified))
        return {};
    if (status != kNotesNoError)
        teller.stop("documents",
                    fmt::format("the documents of {} are not told: {}", shown, status_text(status)),
                    {{"NSFDbGetModifiedNoteTable", status}});
    return table.ids();
}

Backup::Backup(Teller& teller, const OpenDatabase& database, const NamedDatabase& named)
    : m_teller(teller), m_database(database.handle()), m_named(named) {
    DWORD low = 0;
    DWORD high = 0;
    teller.calling(fmt::format("NSFBackupStart({})", named.shown));
    check("NSFBackupStart", notes_api.NSFBackupStart(m_database, 0, &m_context, &low, &high));
    m_open = true;
    m_size = joined(low, high);
    teller.leaves(
        "backup",
        fmt::format(
            "a backup of {} stays begun on the server: the next backup of it answers 3748 once",
            named.shown));
}

Backup::~Backup() {
    if (!m_open)
        return;
    m_teller.undoing(fmt::format("NSFBackupEnd({}, 1)", m_named.shown));
    notes_api.NSFBackupEnd(m_database, m_context, give_up);
    m_teller.leaves("backup", "");
}

void Backup::check(const char* call, STATUS status) {
    if (status != kNotesNoError)
        m_teller.stop("backup",
                      fmt::format("{} of {}: {}", call, m_named.shown, status_text(status)),
                      {{call, status}});
}

void Backup::copy(const std::string& target, std::uint64_t begin, std::uint64_t end) {
    FileDescriptor from(::open(m_named.path.c_str(), O_RDONLY | O_CLOEXEC));
    const int mode = begin == 0 ? O_CREAT | O_TRUNC : O_APPEND;
    FileDescriptor to(::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | mode, 0600));
    if (!from || !to || ::lseek(from.get(), static_cast<off_t>(begin), SEEK_SET) < 0)
        throw ClientError(ExitCode::failed, fmt::format("cannot copy {}: {}", m_named.shown,
                                                        system_error_text(errno)));
    std::array<std::byte, buffer_size> buffer{};
    for (std::uint64_t at = begin; at < end;) {
        const std::size_t size = std::min<std::uint64_t>(buffer.size(), end - at);
        std::fill(buffer.begin(), buffer.end(), std::byte{});
        // What the server cuts off meanwhile is recorded like every other change: zeros stand for
        // it.
        const ssize_t got = read_up_to(from.get(), std::span(buffer.data(), size));
        const int error =
            got < 0 ? static_cast<int>(-got) : write_all(to.get(), Bytes(buffer.data(), size));
        if (error != 0)
            throw ClientError(ExitCode::failed, fmt::format("cannot copy {}: {}", m_named.shown,
                                                            system_error_text(error)));
        at += size;
        m_teller.calling("copying " + m_named.shown);
    }
}

void Backup::fetch_and_apply(DHANDLE apply) {
    std::vector<BYTE> buffer(buffer_size);
    for (DWORD filled = 1; filled != 0;) {
        filled = 0;
        m_teller.calling(fmt::format("NSFBackupGetNextChangeInfo({})", m_named.shown));
        check("NSFBackupGetNextChangeInfo",
              notes_api.NSFBackupGetNextChangeInfo(m_database, m_context, 0, buffer.data(),
                                                   buffer_size, &filled));
        if (filled > buffer_size)
            m_teller.stop("backup", fmt::format("NSFBackupGetNextChangeInfo filled {} bytes of {}",
                                                filled, buffer_size));
        m_teller.calling("NSFBackupApplyNextChangeInfo(the copy)");
        check("NSFBackupApplyNextChangeInfo",
              notes_api.NSFBackupApplyNextChangeInfo(apply, 0, buffer.data(), filled));
    }
}

std::uint64_t Backup::apply_changes(const std::string& target) {
    DWORD low = 0;
    DWORD high = 0;
    m_teller.calling(fmt::format("NSFBackupStop({})", m_named.shown));
    check("NSFBackupStop", notes_api.NSFBackupStop(m_database, m_context));
    m_teller.calling(fmt::format("NSFBackupGetChangeInfoSize({})", m_named.shown));
    check("NSFBackupGetChangeInfoSize",
          notes_api.NSFBackupGetChangeInfoSize(m_database, m_context, 0, &low, &high));
    std::vector<char> path = lmbcs_path(m_teller, target);
    ApplyContext apply;
    m_teller.calling("NSFBackupStartApplyChangeInfo(the copy)");
    check("NSFBackupStartApplyChangeInfo",
          notes_api.NSFBackupStartApplyChangeInfo(apply.slot(), path.data(), 0, low, high));
    fetch_and_apply(apply.handle());
    m_teller.calling("NSFBackupEndApplyChangeInfo(the copy, 0)");
    check("NSFBackupEndApplyChangeInfo", apply.end());
    return joined(low, high);
}

void Backup::end(DWORD option) {
    m_teller.calling(fmt::format("NSFBackupEnd({}, {})", m_named.shown, option));
    m_open = false;
    check("NSFBackupEnd", notes_api.NSFBackupEnd(m_database, m_context, option));
    m_teller.leaves("backup", "");
}

} // namespace qrtln::acceptance
