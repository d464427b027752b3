#include "notes_simulator/transaction_log.h"

#include "notes_simulator/extent_files.h"
#include "notes_simulator/status.h"
#include "notes_simulator/times.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::string_view kExtentMagic = "SIMTXN01";
constexpr std::string_view kControlMagic = "SIMLCTL1";
constexpr std::uint32_t kRecordMagic = 0x44524353; // "SCRD"
constexpr std::uint64_t kExtentHeaderSize = 64;
constexpr std::size_t kRecordHeaderSize = 80;
constexpr std::size_t kControlSize = 4096;
constexpr std::size_t kLongestName = 4096;

/// A descriptor that closes itself.
class File {
  public:
    File(const fs::path& path, int flags) : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
        if (m_fd < 0) {
            throwErrno(errno, path.string());
        }
    }
    ~File() { ::close(m_fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int fd() const { return m_fd; }

  private:
    int m_fd;
};

void writeAt(int fd, std::span<const std::uint8_t> bytes, std::uint64_t position) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::pwrite(fd, bytes.data() + done, bytes.size() - done,
                                         static_cast<off_t>(position + done));
        if (written < 0 && errno != EINTR) {
            throwErrno(errno, "writing the transaction log");
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

/// Reads up to length bytes; fewer at the end of the file.
Bytes readAt(int fd, std::size_t length, std::uint64_t position) {
    Bytes bytes(length);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t got =
            ::pread(fd, bytes.data() + done, length - done, static_cast<off_t>(position + done));
        if (got < 0 && errno != EINTR) {
            throwErrno(errno, "reading the transaction log");
        }
        if (got == 0) {
            break;
        }
        done += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    bytes.resize(done);
    return bytes;
}

std::size_t padded(std::size_t length) {
    return (length + 7) / 8 * 8;
}

Bytes encodeExtentHeader(const ExtentHeader& header) {
    ByteWriter writer;
    writer.text(kExtentMagic);
    writer.raw(header.logId);
    writer.u32(header.number);
    writer.u32(header.free ? 1 : 0);
    writer.u64(header.firstRecord);
    writer.u64(static_cast<std::uint64_t>(header.created));
    writer.u32(checksum(writer.bytes));
    writer.bytes.resize(kExtentHeaderSize);
    return writer.bytes;
}

std::optional<ExtentHeader> decodeExtentHeader(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < kExtentHeaderSize) {
        return std::nullopt;
    }
    ByteReader reader(bytes);
    ExtentHeader header;
    const std::string magic = reader.text(kExtentMagic.size());
    header.logId = reader.id16();
    header.number = reader.u32();
    header.free = reader.u32() != 0;
    header.firstRecord = reader.u64();
    header.created = static_cast<std::int64_t>(reader.u64());
    const bool whole = reader.u32() == checksum(bytes.first(48));
    return whole && magic == kExtentMagic ? std::optional(header) : std::nullopt;
}

/// The checksum counts the log's identity in, so that what an extent held before it was used again
/// is never taken for a record.
std::uint32_t recordChecksum(const Id16& logId, std::span<const std::uint8_t> record) {
    return checksum(record.subspan(8), checksum(logId));
}

Bytes encodeRecord(const Id16& logId, const LogRecord& record) {
    ByteWriter body;
    body.u32(0); // magic and checksum come last
    body.u32(0);
    const std::size_t length =
        padded(kRecordHeaderSize + record.database.size() + record.payload.size());
    body.u32(static_cast<std::uint32_t>(length));
    body.u32(static_cast<std::uint32_t>(record.database.size()));
    body.u32(static_cast<std::uint32_t>(record.payload.size()));
    body.u32(0);
    body.u64(record.number);
    body.u64(record.previous);
    body.u64(record.commit);
    body.u64(static_cast<std::uint64_t>(record.time));
    body.raw(record.dbiid);
    body.u64(0);
    body.text(record.database);
    body.raw(record.payload);
    body.bytes.resize(length);
    ByteWriter front;
    front.u32(kRecordMagic);
    front.u32(recordChecksum(logId, body.bytes));
    std::copy(front.bytes.begin(), front.bytes.end(), body.bytes.begin());
    return body.bytes;
}

/// Reads the record at a position; none where no whole record lies.
std::optional<LogRecord> readRecord(int fd, const Id16& logId, std::uint64_t position,
                                    std::uint64_t* next) {
    const Bytes header = readAt(fd, kRecordHeaderSize, position);
    if (header.size() < kRecordHeaderSize || ByteReader(header).u32() != kRecordMagic) {
        return std::nullopt;
    }
    ByteReader sizes{std::span(header).subspan(8)};
    const std::size_t length = sizes.u32();
    const std::size_t nameLength = sizes.u32();
    const std::size_t payloadLength = sizes.u32();
    if (nameLength > kLongestName ||
        length != padded(kRecordHeaderSize + nameLength + payloadLength)) {
        return std::nullopt;
    }
    const Bytes bytes = readAt(fd, length, position);
    if (bytes.size() != length) {
        return std::nullopt;
    }
    ByteReader reader(bytes);
    reader.u32();
    if (reader.u32() != recordChecksum(logId, bytes)) {
        return std::nullopt;
    }
    reader.raw(16);
    LogRecord record;
    record.number = reader.u64();
    record.previous = reader.u64();
    record.commit = reader.u64();
    record.time = static_cast<std::int64_t>(reader.u64());
    record.dbiid = reader.id16();
    reader.u64();
    record.database = reader.text(nameLength);
    const auto payload = reader.raw(payloadLength);
    record.payload.assign(payload.begin(), payload.end());
    record.position = position;
    *next = position + length;
    return record;
}

std::optional<std::uint32_t> extentNumber(const std::string& name) {
    unsigned number = 0;
    char rest = 0;
    if (name.size() == 12 && std::sscanf(name.c_str(), "S%7u.TX%c", &number, &rest) == 2 &&
        extentFileName(number) == name) {
        return number;
    }
    return std::nullopt;
}

} // namespace

std::string extentFileName(std::uint32_t number) {
    char name[32] = {};
    std::snprintf(name, sizeof name, "S%07u.TXN", number);
    return name;
}

std::optional<ExtentHeader> extentHeaderOf(const fs::path& file) {
    const File extent(file, O_RDONLY);
    return decodeExtentHeader(readAt(extent.fd(), kExtentHeaderSize, 0));
}

void freeExtent(const fs::path& file) {
    ExtentHeader header = readExtentHeader(file);
    header.free = true;
    const File extent(file, O_RDWR);
    writeAt(extent.fd(), encodeExtentHeader(header), 0);
}

ExtentHeader readExtentHeader(const fs::path& file) {
    const auto header = extentHeaderOf(file);
    if (!header) {
        throw StatusError(kLogDamaged, file.string());
    }
    return *header;
}

void readExtent(const fs::path& file, const std::function<bool(const LogRecord&)>& visit) {
    const File extent(file, O_RDONLY);
    const ExtentHeader header = readExtentHeader(file);
    std::uint64_t position = kExtentHeaderSize;
    std::uint64_t expected = header.firstRecord;
    while (auto record = readRecord(extent.fd(), header.logId, position, &position)) {
        record->extent = header.number;
        if (record->number != expected++ || !visit(*record)) {
            return;
        }
    }
}

LogRecord readRecordAt(const fs::path& file, std::uint64_t position) {
    const File extent(file, O_RDONLY);
    const ExtentHeader header = readExtentHeader(file);
    std::uint64_t next = 0;
    auto record = readRecord(extent.fd(), header.logId, position, &next);
    if (!record) {
        throw StatusError(kLogDamaged, file.string());
    }
    record->extent = header.number;
    return *std::move(record);
}

TransactionLog::TransactionLog(const Server& server, const ServerLock&) : m_server(server) {
    if (server.style == LogStyle::kNone) {
        throw StatusError(kNoTransactionLogging, "");
    }
    std::error_code error;
    fs::create_directories(server.logs, error);
    if (!readControl()) {
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

std::uint64_t TransactionLog::largestPayload(const Server& server) {
    return server.extentSize - kExtentHeaderSize - kRecordHeaderSize - kLongestName - 8;
}

bool TransactionLog::readControl() {
    const fs::path path = m_server.logs / "nlogctrl.lfh";
    std::error_code error;
    if (!fs::exists(path, error)) {
        return false;
    }
    const File file(path, O_RDONLY);
    const Bytes bytes = readAt(file.fd(), kControlSize, 0);
    try {
        ByteReader reader(bytes);
        const std::string magic = reader.text(kControlMagic.size());
        const std::uint32_t sum = reader.u32();
        if (magic != kControlMagic || sum != checksum(std::span(bytes).subspan(12))) {
            throw StatusError(kLogDamaged, path.string());
        }
        reader.u32();
        m_control.logId = reader.id16();
        m_control.firstExtent = reader.u32();
        m_control.activeExtent = reader.u32();
        m_control.position = reader.u64();
        m_control.nextRecord = reader.u64();
        m_control.totalBytes = reader.u64();
        m_control.archived.resize(std::min<std::size_t>(reader.u32(), kControlSize / 4));
        for (std::uint32_t& number : m_control.archived) {
            number = reader.u32();
        }
    } catch (const std::out_of_range&) {
        throw StatusError(kLogDamaged, path.string());
    }
    return true;
}

void TransactionLog::writeControl() {
    ByteWriter body;
    body.text(kControlMagic);
    body.u32(0); // the checksum
    body.u32(0);
    body.raw(m_control.logId);
    body.u32(m_control.firstExtent);
    body.u32(m_control.activeExtent);
    body.u64(m_control.position);
    body.u64(m_control.nextRecord);
    body.u64(m_control.totalBytes);
    body.u32(static_cast<std::uint32_t>(m_control.archived.size()));
    for (const std::uint32_t number : m_control.archived) {
        body.u32(number);
    }
    if (body.bytes.size() > kControlSize) {
        throw StatusError(kNotReadyToArchive,
                          "too many extents archived before the first one that is ready");
    }
    body.bytes.resize(kControlSize);
    ByteWriter sum;
    sum.u32(checksum(std::span(body.bytes).subspan(12)));
    std::copy(sum.bytes.begin(), sum.bytes.end(), body.bytes.begin() + 8);
    // One page, so that a killed process leaves the old or the new content.
    const File file(m_server.logs / "nlogctrl.lfh", O_RDWR | O_CREAT);
    writeAt(file.fd(), body.bytes, 0);
}

void TransactionLog::beginLog() {
    m_control = Control();
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
    m_control = Control();
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
    const File file(present.back().second, O_RDONLY);
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
        const File file(following, O_RDONLY);
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
    const File file(path, O_RDWR | O_CREAT | O_TRUNC);
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
