#include "client/module/told_lines.h"

#include "client/module/frames.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>

namespace qrtln {

namespace {

constexpr std::size_t ring_size = std::size_t{256} << 10;
constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

} // namespace

struct LineRing {
    std::atomic<std::uint64_t> put;
    std::atomic<std::uint64_t> taken;
    char bytes[ring_size];
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

MappedLines map_lines(int memory) {
    void* ring = ::mmap(nullptr, sizeof(LineRing), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (ring == MAP_FAILED)
        fail("mmap of the memory for lines");
    return MappedLines(static_cast<LineRing*>(ring));
}

// Before each line.
struct LineHeader {
    std::uint32_t size;
    LineKind kind;
};

} // namespace

void LineRingUnmap::operator()(LineRing* ring) const {
    ::munmap(ring, sizeof(LineRing));
}

FileDescriptor make_line_memory() {
    FileDescriptor memory(::memfd_create("qrtln-lines", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memory || ::ftruncate(memory.get(), sizeof(LineRing)) != 0 ||
        ::fcntl(memory.get(), F_ADD_SEALS, seals) != 0)
        fail("memory for lines");
    return memory;
}

bool is_line_memory(int memory) {
    struct stat status {};
    return ::fcntl(memory, F_GET_SEALS) == seals && ::fstat(memory, &status) == 0 &&
           status.st_size == sizeof(LineRing);
}

LineSender::LineSender(int memory) : m_ring(map_lines(memory)) {}

std::size_t LineSender::room() const {
    const std::uint64_t held = m_put - m_ring->taken.load(std::memory_order_acquire);
    return held > ring_size ? 0 : ring_size - held;
}

bool LineSender::is_full() const {
    return room() == 0;
}

bool LineSender::put(std::span<const char> bytes, const std::function<bool()>& make_room) {
    while (!bytes.empty()) {
        const std::size_t at = m_put % ring_size;
        const std::size_t size = std::min({bytes.size(), room(), ring_size - at});
        if (size == 0 && !make_room())
            return false;
        std::memcpy(m_ring->bytes + at, bytes.data(), size);
        m_put += size;
        m_ring->put.store(m_put, std::memory_order_release);
        bytes = bytes.subspan(size);
    }
    return true;
}

void LineSender::send(LineKind kind, std::string_view text,
                      const std::function<bool()>& make_room) {
    LineHeader header{};
    header.size = static_cast<std::uint32_t>(text.size());
    header.kind = kind;
    if (put({reinterpret_cast<const char*>(&header), sizeof header}, make_room))
        put({text.data(), text.size()}, make_room);
}

LineReceiver::LineReceiver(int memory) : m_ring(map_lines(memory)) {}

bool LineReceiver::receive(const Take& take) {
    const std::uint64_t size = m_ring->put.load(std::memory_order_acquire) - m_taken;
    if (size > ring_size)
        refuse_frame();
    if (size == 0)
        return false;
    const std::size_t at = m_taken % ring_size;
    const std::size_t first = std::min<std::size_t>(size, ring_size - at);
    m_buffer.insert(m_buffer.end(), m_ring->bytes + at, m_ring->bytes + at + first);
    m_buffer.insert(m_buffer.end(), m_ring->bytes, m_ring->bytes + (size - first));
    m_taken += size;
    m_ring->taken.store(m_taken, std::memory_order_release);
    std::size_t done = 0;
    LineHeader header{};
    while (m_buffer.size() - done >= sizeof header) {
        std::memcpy(&header, m_buffer.data() + done, sizeof header);
        if (header.size > maximal_frame ||
            (header.kind != LineKind::log && header.kind != LineKind::trace))
            refuse_frame();
        if (m_buffer.size() - done - sizeof header < header.size)
            break;
        take(header.kind, {m_buffer.data() + done + sizeof header, header.size});
        done += sizeof header + header.size;
    }
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(done));
    return true;
}

} // namespace qrtln
