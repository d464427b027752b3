#include "notes_simulator/engine/change_info.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/storage/side_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::string_view kMagic = "SIMCHG01";
constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kRangeHeaderSize = 16;
constexpr std::size_t kTrailerSize = 4;
constexpr std::uint64_t kLargestRange = 64 * 1024;

/// Joins what overlaps or touches, cuts off what lies beyond the end, splits what is long.
std::vector<ChangedRange> tidied(std::vector<ChangedRange> changes, std::uint64_t size) {
    std::sort(changes.begin(), changes.end(),
              [](const ChangedRange& a, const ChangedRange& b) { return a.offset < b.offset; });
    std::vector<ChangedRange> merged;
    for (const ChangedRange& change : changes) {
        if (change.offset >= size || change.length == 0) {
            continue;
        }
        const std::uint64_t end = std::min(change.offset + change.length, size);
        if (!merged.empty() && change.offset <= merged.back().offset + merged.back().length) {
            ChangedRange& last = merged.back();
            last.length = std::max(last.offset + last.length, end) - last.offset;
        } else {
            merged.push_back({change.offset, end - change.offset});
        }
    }
    std::vector<ChangedRange> pieces;
    for (const ChangedRange& range : merged) {
        for (std::uint64_t done = 0; done < range.length; done += kLargestRange) {
            pieces.push_back({range.offset + done, std::min(kLargestRange, range.length - done)});
        }
    }
    return pieces;
}

} // namespace

ChangedContent presentContent(Connection& database) {
    // The file is read through SQLite's own descriptor: closing another one of the same file would
    // drop the lock.
    sqlite3_file* source = database.file();
    sqlite3_int64 size = 0;
    if (const int result = source->pMethods->xFileSize(source, &size); result != SQLITE_OK) {
        database.fail(result, "size");
    }
    return {static_cast<std::uint64_t>(size),
            [&database, source](std::span<std::uint8_t> bytes, std::uint64_t offset) {
                const int result =
                    source->pMethods->xRead(source, bytes.data(), static_cast<int>(bytes.size()),
                                            static_cast<sqlite3_int64>(offset));
                if (result != SQLITE_OK) {
                    database.fail(result, "changed pages");
                }
            }};
}

std::uint64_t writeChangeInfo(const ChangedContent& source, std::vector<ChangedRange> changes,
                              const fs::path& file) {
    const std::vector<ChangedRange> pieces = tidied(std::move(changes), source.size);
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    std::uint32_t sum = 0;
    std::uint64_t total = 0;
    const auto emit = [&](std::span<const std::uint8_t> bytes) {
        sum = checksum(bytes, sum);
        total += bytes.size();
        stream.write(reinterpret_cast<const char*>(bytes.data()),
                     static_cast<std::streamsize>(bytes.size()));
    };
    ByteWriter header;
    header.text(kMagic);
    header.u64(source.size);
    header.u64(pieces.size());
    emit(header.bytes);
    Bytes content;
    for (const ChangedRange& piece : pieces) {
        ByteWriter range;
        range.u64(piece.offset);
        range.u64(piece.length);
        emit(range.bytes);
        content.resize(piece.length);
        source.read(content, piece.offset);
        emit(content);
    }
    ByteWriter trailer;
    trailer.u32(sum);
    emit(trailer.bytes);
    stream.close();
    if (!stream) {
        throwErrno(errno, "writing " + file.string());
    }
    return total;
}

ChangeInfoReader::ChangeInfoReader(const fs::path& copy, std::uint64_t announced, bool checkOnly)
    : m_checkOnly(checkOnly), m_announced(announced) {
    m_fd = ::open(copy.c_str(), (checkOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (m_fd < 0) {
        throwErrno(errno, copy.string());
    }
}

ChangeInfoReader::~ChangeInfoReader() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool ChangeInfoReader::takeHeader() {
    if (m_pending.size() < kHeaderSize) {
        return false;
    }
    const auto bytes = std::span(m_pending).first(kHeaderSize);
    ByteReader reader(bytes);
    if (reader.text(kMagic.size()) != kMagic) {
        throw StatusError(kBadChangeInfo, "beginning");
    }
    m_finalSize = reader.u64();
    m_rangesLeft = reader.u64();
    m_haveHeader = true;
    m_checksum = checksum(bytes, m_checksum);
    m_pending.erase(m_pending.begin(), m_pending.begin() + kHeaderSize);
    return true;
}

bool ChangeInfoReader::takeRange() {
    if (m_pending.size() < kRangeHeaderSize) {
        return false;
    }
    ByteReader reader(m_pending);
    const std::uint64_t offset = reader.u64();
    const std::uint64_t length = reader.u64();
    if (length == 0 || length > kLargestRange || offset > m_finalSize ||
        length > m_finalSize - offset) {
        throw StatusError(kBadChangeInfo, "range");
    }
    const std::size_t whole = kRangeHeaderSize + length;
    if (m_pending.size() < whole) {
        return false;
    }
    m_checksum = checksum(std::span(m_pending).first(whole), m_checksum);
    for (std::size_t done = 0; !m_checkOnly && done < length;) {
        const ssize_t written = ::pwrite(m_fd, m_pending.data() + kRangeHeaderSize + done,
                                         length - done, static_cast<off_t>(offset + done));
        if (written < 0 && errno != EINTR) {
            throwErrno(errno, "changing the copy");
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(whole));
    --m_rangesLeft;
    return true;
}

void ChangeInfoReader::take(std::span<const std::uint8_t> piece) {
    if (m_failed) {
        throw StatusError(kBadChangeInfo, "after a failure");
    }
    m_failed = true; // until all of this piece has been taken
    m_arrived += piece.size();
    m_pending.insert(m_pending.end(), piece.begin(), piece.end());
    if (m_arrived > m_announced || (m_haveTrailer && !piece.empty())) {
        throw StatusError(kBadChangeInfo, "more than was announced");
    }
    bool more = true;
    while (more) {
        if (!m_haveHeader) {
            more = takeHeader();
        } else if (m_rangesLeft > 0) {
            more = takeRange();
        } else if (!m_haveTrailer && m_pending.size() >= kTrailerSize) {
            if (ByteReader(m_pending).u32() != m_checksum) {
                throw StatusError(kBadChangeInfo, "checksum");
            }
            m_pending.erase(m_pending.begin(), m_pending.begin() + kTrailerSize);
            m_haveTrailer = true;
            more = false;
        } else {
            more = false;
        }
    }
    m_failed = false;
}

void ChangeInfoReader::finish() {
    if (m_failed || !m_haveTrailer || m_arrived != m_announced) {
        throw StatusError(kChangeInfoIncomplete, "");
    }
    if (!m_checkOnly && ::ftruncate(m_fd, static_cast<off_t>(m_finalSize)) != 0) {
        throwErrno(errno, "size of the copy");
    }
}

} // namespace notes_sim
