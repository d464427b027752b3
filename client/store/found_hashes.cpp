#include "client/store/found_hashes.h"

#include "client/base/error.h"
#include "client/base/file_io.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

std::string temporary_directory() {
    std::error_code none;
    std::filesystem::path path = std::filesystem::temp_directory_path(none);
    return none ? "/tmp" : path.string();
}

[[noreturn]] void fail(const char* what, int error) {
    throw ClientError(ExitCode::failed,
                      fmt::format("cannot {} a temporary file in {}: {}", what,
                                  temporary_directory(), system_error_text(error)),
                      "32 bytes are needed there for each block of the store: set TMPDIR to a "
                      "directory that has the room");
}

FileDescriptor open_unnamed() {
    std::string directory = temporary_directory();
    FileDescriptor file(
        ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file || (errno != EOPNOTSUPP && errno != EISDIR))
        return file;
    std::string name = directory + "/qrtln-XXXXXX"; // of a file system without such files
    file = FileDescriptor(::mkostemp(name.data(), O_CLOEXEC));
    if (file)
        ::unlink(name.c_str());
    return file;
}

off_t place_of(std::uint64_t hash) {
    return static_cast<off_t>(hash * sizeof(BlockHash));
}

} // namespace

void FoundHashes::begin_pack(const std::string& id, std::uint32_t blocks) {
    m_pack = m_end;
    m_first[id] = m_pack;
    m_end += blocks;
}

void FoundHashes::put(std::uint32_t first_block, std::span<const BlockHash> hashes) {
    if (!m_file)
        m_file = open_unnamed();
    if (!m_file)
        fail("make", errno);
    Bytes bytes = std::as_bytes(hashes);
    if (::lseek(m_file.get(), place_of(m_pack + first_block), SEEK_SET) < 0)
        fail("write", errno);
    if (int error = write_all(m_file.get(), bytes); error != 0)
        fail("write", error);
}

std::span<const BlockHash> FoundHashes::get(const std::string& id, std::uint32_t first_block,
                                            std::uint32_t most) {
    m_read.resize(std::min(most, hashes_at_once));
    std::span<std::byte> buffer = std::as_writable_bytes(std::span(m_read));
    off_t place = place_of(m_first.at(id) + first_block);
    ssize_t got =
        ::lseek(m_file.get(), place, SEEK_SET) < 0 ? -errno : read_up_to(m_file.get(), buffer);
    if (got != static_cast<ssize_t>(buffer.size()))
        fail("read", got < 0 ? static_cast<int>(-got) : EIO);
    return m_read;
}

} // namespace qrtln
