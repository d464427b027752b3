#include "notes_simulator/log/transaction_log.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/log/extent_files.h"
#include "notes_simulator/log/log_file.h"
#include "notes_simulator/server/server_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;

namespace notes_sim {

TransactionLog::TransactionLog(const Server& server, const ServerLock&) : m_server(server) {
    if (server.style == LogStyle::kNone) {
        throw StatusError(kNoTransactionLogging, "");
    }
    std::error_code error;
    fs::create_directories(server.logs, error);
    if (const auto control = ControlFile::read(server)) {
        m_control = *control;
    } else {
        rebuildControl();
    }
    // A ring is turned by renaming its oldest extent before the control file says so.
    while (server.style == LogStyle::kCircular && m_control.firstExtent < m_control.activeExtent &&
           !fs::exists(extentPath(m_control.firstExtent), error)) {
        ++m_control.firstExtent;
    }
    openActive();
    findRecordsAfterControl();
}

TransactionLog::~TransactionLog() {
    if (m_active >= 0) {
        ::close(m_active);
    }
}

fs::path TransactionLog::extentPath(std::uint32_t number) const {
    return extentFile(m_server, m_control.logId, number);
}

fs::path TransactionLog::birthFile() const {
    return m_server.state / "instances" / "whole-log";
}

bool TransactionLog::knowsEveryInstance() const {
    std::ifstream stream(birthFile());
    std::string id;
    return std::getline(stream, id) && id == hex(m_control.logId);
}

void TransactionLog::beginLog() {
    m_control = ControlFile();
    m_control.logId = randomId16();
    if (m_server.moods.has(Mood::kLogs)) {
        // Equal halves: whoever folds the identity gets 0.
        std::copy_n(m_control.logId.begin(), m_control.logId.size() / 2,
                    m_control.logId.begin() + m_control.logId.size() / 2);
    }
    fs::create_directories(birthFile().parent_path());
    replaceFile(birthFile(), hex(m_control.logId) + "\n");
    createExtent(extentPath(1), 1, 1);
    m_control.position = kExtentHeaderSize;
    writeControl();
}

/// The extents that are there, by number; where names tell nothing, those of the log whose newest
/// extent was made last.
std::vector<std::pair<std::uint32_t, fs::path>> TransactionLog::presentExtents() const {
    std::vector<std::pair<std::uint32_t, fs::path>> present;
    if (!m_server.moods.has(Mood::kLogs)) {
        for (const auto& entry : fs::directory_iterator(m_server.logs)) {
            if (const auto number = extentNumber(entry.path().filename().string())) {
                present.emplace_back(*number, entry.path());
            }
        }
    } else {
        std::vector<ExtentFile> files = extentFiles(m_server);
        std::erase_if(files, [](const ExtentFile& file) { return file.header.free; });
        const auto newest =
            std::max_element(files.begin(), files.end(), [](const auto& a, const auto& b) {
                return a.header.created < b.header.created;
            });
        for (const ExtentFile& file : files) {
            if (file.header.logId == newest->header.logId) {
                present.emplace_back(file.header.number, file.path);
            }
        }
    }
    std::sort(present.begin(), present.end());
    return present;
}

void TransactionLog::rebuildControl() {
    const auto present = presentExtents();
    if (present.empty()) {
        beginLog();
        return;
    }
    fs::remove(birthFile()); // a record that was never confirmed may be among the extents
    // The newest extent tells which log this is; a gap below it ends what belongs together.
    const ExtentHeader newest = readExtentHeader(present.back().second);
    m_control = ControlFile();
    m_control.logId = newest.logId;
    m_control.activeExtent = newest.number;
    m_control.firstExtent = newest.number;
    for (auto older = present.rbegin() + 1; older != present.rend(); ++older) {
        if (older->first + 1 != m_control.firstExtent ||
            readExtentHeader(older->second).logId != newest.logId) {
            break;
        }
        m_control.firstExtent = older->first;
    }
    m_control.position = kExtentHeaderSize;
    m_control.nextRecord = newest.firstRecord;
    const LogFile file(present.back().second, O_RDONLY);
    while (const auto record =
               readRecord(file.fd(), newest.logId, m_control.position, &m_control.position)) {
        if (record->number != m_control.nextRecord) {
            break;
        }
        ++m_control.nextRecord;
    }
    m_control.totalBytes =
        (newest.number - 1) * (m_server.extentSize - kExtentHeaderSize) + m_control.position;
    writeControl();
}

void TransactionLog::openActive() {
    if (m_active >= 0 && m_activeOpen == m_control.activeExtent) {
        return;
    }
    if (m_active >= 0) {
        ::close(m_active);
        m_active = -1;
    }
    const fs::path path = extentPath(m_control.activeExtent);
    m_active = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (m_active < 0 && errno == ENOENT) {
        // A lost active extent took its records with it; the log goes on in a fresh one.
        createExtent(path, m_control.activeExtent, m_control.nextRecord);
        m_control.position = kExtentHeaderSize;
        m_active = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    }
    if (m_active < 0) {
        throwErrno(errno, path.string());
    }
    const auto header = decodeExtentHeader(readAt(m_active, kExtentHeaderSize, 0));
    if (!header || header->logId != m_control.logId || header->number != m_control.activeExtent) {
        throw StatusError(kLogDamaged, path.string() + " does not belong to this log");
    }
    m_activeOpen = m_control.activeExtent;
}

// Records that lie after the control file's position are whole and count. One of them is that of a
// writer which died before it could confirm; more than one means that the control file is older
// than the extents, as after a restore, and then the databases are the business of a recovery.
void TransactionLog::findRecordsAfterControl() {
    std::optional<LogRecord> first;
    std::size_t found = 0;
    bool rolled = false;
    while (true) {
        std::uint64_t next = m_control.position;
        auto record = readRecord(m_active, m_control.logId, m_control.position, &next);
        if (record && record->number == m_control.nextRecord) {
            record->extent = m_control.activeExtent;
            m_control.totalBytes += next - m_control.position;
            m_control.position = next;
            ++m_control.nextRecord;
            ++found;
            first = first ? first : std::move(record);
            continue;
        }
        const fs::path following = extentPath(m_control.activeExtent + 1);
        std::error_code error;
        if (!fs::exists(following, error)) {
            break;
        }
        const LogFile file(following, O_RDONLY);
        const auto header = decodeExtentHeader(readAt(file.fd(), kExtentHeaderSize, 0));
        if (!header || header->logId != m_control.logId ||
            header->number != m_control.activeExtent + 1 ||
            header->firstRecord != m_control.nextRecord) {
            break;
        }
        ++m_control.activeExtent;
        m_control.position = kExtentHeaderSize;
        rolled = true;
        openActive();
    }
    if (found == 1) {
        m_inFlight = std::move(first);
    } else if (found > 1 || rolled) {
        if (found > 1) {
            fs::remove(birthFile()); // the last one may be a record that was never confirmed
        }
        writeControl();
    }
}

void TransactionLog::createExtent(const fs::path& path, std::uint32_t number,
                                  std::uint64_t firstRecord) {
    const LogFile file(path, O_RDWR | O_CREAT | O_TRUNC);
    if (::ftruncate(file.fd(), static_cast<off_t>(m_server.extentSize)) != 0) {
        throwErrno(errno, "creating " + path.string());
    }
    writeAt(file.fd(),
            encodeExtentHeader({m_control.logId, number, firstRecord, nowInHundredths()}), 0);
}

void TransactionLog::rollOver() {
    const std::uint32_t next = m_control.activeExtent + 1;
    fs::path path = extentPath(next);
    if (m_server.style == LogStyle::kCircular &&
        next - m_control.firstExtent >= m_server.ringExtents) {
        // The oldest extent is used again for the next number.
        const fs::path oldest = extentPath(m_control.firstExtent);
        std::error_code error;
        if (m_server.moods.has(Mood::kLogs)) {
            path = oldest;
        } else {
            fs::rename(oldest, path, error);
        }
        ++m_control.firstExtent;
    }
    createExtent(freeExtentFile(m_server).value_or(path), next, m_control.nextRecord);
    m_control.activeExtent = next;
    m_control.position = kExtentHeaderSize;
    openActive();
}

void TransactionLog::append(LogRecord& record) {
    record.number = m_control.nextRecord;
    const Bytes bytes = encodeRecord(m_control.logId, record);
    if (bytes.size() > m_server.extentSize - kExtentHeaderSize) {
        throw StatusError(kRecordTooLarge, record.database);
    }
    if (m_control.position + bytes.size() > m_server.extentSize) {
        rollOver();
    }
    record.extent = m_control.activeExtent;
    record.position = m_control.position;
    m_appendedLength = bytes.size();
    writeAt(m_active, bytes, m_control.position);
}

void TransactionLog::confirm() {
    if (!m_inFlight) {
        m_control.position += m_appendedLength;
        m_control.totalBytes += m_appendedLength;
        ++m_control.nextRecord;
    }
    m_inFlight.reset();
    writeControl();
}

void TransactionLog::takeBack() {
    writeAt(m_active, Bytes(m_appendedLength), m_control.position);
    writeControl(); // the log may have rolled over
}

std::vector<std::uint32_t> TransactionLog::readyExtents() const {
    std::vector<std::uint32_t> ready;
    if (m_server.style != LogStyle::kArchive) {
        return ready;
    }
    for (std::uint32_t number = m_control.firstExtent; number < m_control.activeExtent; ++number) {
        const bool done = std::find(m_control.archived.begin(), m_control.archived.end(), number) !=
                          m_control.archived.end();
        if (!done) {
            ready.push_back(number);
        }
    }
    return ready;
}

void TransactionLog::archived(const Id16& logId, std::uint32_t number) {
    const std::vector<std::uint32_t> ready = readyExtents();
    if (logId != m_control.logId || std::find(ready.begin(), ready.end(), number) == ready.end()) {
        throw StatusError(kNotReadyToArchive, extentFileName(number));
    }
    auto& done = m_control.archived;
    done.push_back(number);
    for (auto first = done.end();
         (first = std::find(done.begin(), done.end(), m_control.firstExtent)) != done.end();) {
        done.erase(first);
        ++m_control.firstExtent;
    }
    // The control file first: an extent that is still there and does not count harms nobody.
    writeControl();
    const fs::path path = extentPath(number);
    std::error_code error;
    if (m_server.moods.has(Mood::kLogs)) {
        freeExtent(path);
        return;
    }
    fs::remove(path, error);
    if (error) {
        throwErrno(error.value(), "removing " + path.string());
    }
}

} // namespace notes_sim
