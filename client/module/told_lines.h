// What the module tells, line by line, on its way from its process to the client: through memory
// that both have, at which nobody waits. A system call and a client that wakes for each of some
// forty lines a database took as long as what most calls do. Lines that a process leaves when it
// dies are there still.
#pragma once

#include "client/base/file_descriptor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qrtln {

enum class LineKind : std::uint8_t { log = 1, trace };

// Memory for lines, that of a memfd: a ring of bytes, and how many were ever put in and taken out.
// Whoever has it can neither make it smaller under the other nor larger. Throws std::system_error.
FileDescriptor make_line_memory();

// Whether the descriptor is of such memory.
bool is_line_memory(int memory);

struct LineRing;
struct LineRingUnmap {
    void operator()(LineRing* ring) const;
};
using MappedLines = std::unique_ptr<LineRing, LineRingUnmap>;

class LineSender {
  public:
    // Throws std::system_error.
    explicit LineSender(int memory);
    // Where there is no room `make_room` is called, again and again; with false the line, or what
    // is left of it, is given up.
    void send(LineKind kind, std::string_view text, const std::function<bool()>& make_room);
    bool is_full() const;

  private:
    std::size_t room() const;
    bool put(std::span<const char> bytes, const std::function<bool()>& make_room);

    MappedLines m_ring;
    std::uint64_t m_put = 0;
};

class LineReceiver {
  public:
    using Take = std::function<void(LineKind, const std::string&)>;
    // Throws std::system_error.
    explicit LineReceiver(int memory);
    // Takes what has been sent, without waiting. Returns whether there was anything. Throws
    // std::runtime_error for what is no line: the other process may write into the memory as it
    // likes.
    bool receive(const Take& take);

  private:
    MappedLines m_ring;
    std::uint64_t m_taken = 0;
    std::vector<char> m_buffer; // taken out, not a whole line yet
};

} // namespace qrtln
