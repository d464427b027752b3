#include "notes_simulator/storage/before_images.h"

#include "notes_simulator/base/status.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

// A database is changed in whole pages, and no page is smaller or begins elsewhere.
constexpr std::uint64_t kBlock = 512;

struct Beginning {
    std::uint64_t mark = 0;
    std::uint64_t size = 0; // of the database at the start
};

fs::path indexFile(const fs::path& folder) {
    return folder / "before";
}
fs::path pagesFile(const fs::path& folder) {
    return folder / "pages";
}

bool readAll(int fd, void* buffer, std::size_t size, std::uint64_t offset) {
    return ::pread(fd, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

bool writeAll(int fd, const void* buffer, std::size_t size, std::uint64_t offset) {
    return ::pwrite(fd, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

int openFile(const fs::path& file, int flags) {
    const int fd = ::open(file.c_str(), flags | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0 && ((flags & O_CREAT) != 0 || errno != ENOENT)) {
        throwErrno(errno, file.string());
    }
    return fd;
}

} // namespace

void BeforeImages::begin(const fs::path& contextFolder, std::uint64_t size) {
    const BeforeImages images(openFile(indexFile(contextFolder), O_CREAT | O_TRUNC),
                              openFile(pagesFile(contextFolder), O_CREAT | O_TRUNC));
    const Beginning beginning{0, size};
    const auto length = static_cast<off_t>(sizeof beginning + (size + kBlock - 1) / kBlock);
    if (!writeAll(images.m_index, &beginning, sizeof beginning, 0) ||
        ::ftruncate(images.m_index, length) != 0) {
        throwErrno(errno, indexFile(contextFolder).string());
    }
}

void BeforeImages::remove(const fs::path& contextFolder) {
    std::error_code ignored; // without the index there are none
    fs::remove(indexFile(contextFolder));
    fs::remove(pagesFile(contextFolder), ignored);
}

std::unique_ptr<BeforeImages> BeforeImages::open(const fs::path& contextFolder) {
    const int index = openFile(indexFile(contextFolder), 0);
    if (index < 0) {
        return nullptr;
    }
    auto images = std::unique_ptr<BeforeImages>(new BeforeImages(index, -1));
    images->m_pages = openFile(pagesFile(contextFolder), O_CREAT);
    return images;
}

BeforeImages::~BeforeImages() {
    for (const int fd : {m_index, m_pages}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void BeforeImages::setMark(std::uint64_t mark) {
    if (!writeAll(m_index, &mark, sizeof mark, 0)) {
        throwErrno(errno, "mark of a backup");
    }
}

int BeforeImages::keep(const ChangedRange& range, const Read& read,
                       const std::function<int(const ChangedRange&)>& tell) {
    Beginning beginning;
    if (!readAll(m_index, &beginning, sizeof beginning, 0)) {
        return SQLITE_IOERR_READ;
    }
    const std::uint64_t first = std::max(range.offset, beginning.mark) / kBlock;
    const std::uint64_t end =
        (std::min(range.offset + range.length, beginning.size) + kBlock - 1) / kBlock;
    if (first >= end) {
        return SQLITE_OK;
    }
    std::vector<char> kept(end - first);
    if (!readAll(m_index, kept.data(), kept.size(), sizeof beginning + first)) {
        return SQLITE_IOERR_READ;
    }
    for (auto at = kept.begin(); at != kept.end();) {
        at = std::find(at, kept.end(), 0);
        const auto next = std::find(at, kept.end(), 1);
        if (at != next) {
            const int result = keepPiece(first + static_cast<std::uint64_t>(at - kept.begin()),
                                         static_cast<std::uint64_t>(next - at), read, tell);
            if (result != SQLITE_OK) {
                return result;
            }
        }
        at = next;
    }
    return SQLITE_OK;
}

// Marked last: what a killed process had not marked is kept again, as it did not change yet.
int BeforeImages::keepPiece(std::uint64_t block, std::uint64_t blocks, const Read& read,
                            const std::function<int(const ChangedRange&)>& tell) {
    const ChangedRange range{block * kBlock, blocks * kBlock};
    std::vector<std::uint8_t> bytes(range.length);
    if (const int result = read(bytes, range.offset); result != SQLITE_OK) {
        return result;
    }
    if (!writeAll(m_pages, bytes.data(), bytes.size(), range.offset)) {
        return SQLITE_IOERR_WRITE;
    }
    if (const int result = tell(range); result != SQLITE_OK) {
        return result;
    }
    const std::vector<char> marks(blocks, 1);
    return writeAll(m_index, marks.data(), marks.size(), sizeof(Beginning) + block)
               ? SQLITE_OK
               : SQLITE_IOERR_WRITE;
}

void BeforeImages::content(std::span<std::uint8_t> bytes, std::uint64_t offset) const {
    if (!readAll(m_pages, bytes.data(), bytes.size(), offset)) {
        throwErrno(EIO, "pages as they were at the start of a backup");
    }
}

} // namespace notes_sim
