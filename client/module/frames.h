// The frames between the client and the child process that hosts the module.
//
// A frame is a 32-bit length (host byte order, of what follows) and a MessagePack array: its kind,
// and the fields, 32-bit numbers and byte strings. Names are bytes, never text. Both sides are the
// same program, so there is no version. It is not CBOR: there a byte string in pieces may have
// pieces in pieces, which the library reads by recursion, as deep as a hostile sender likes.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace qrtln {

// Enough for tens of thousands of DATABASE variables; a longer length is a fault, not a message.
inline constexpr std::uint32_t maximal_frame = 64U << 20;

// Throws std::runtime_error: what came is nothing that the module's process sends.
[[noreturn]] void refuse_frame();

enum class FrameKind : std::uint8_t {
    // client to child; each is answered by one `reply`
    start = 1, // how the module is run; the first
    get_info,
    init,     // type, level, count, control variables
    get_item, //
    prepare,  // item
    set_item, // item type, item
    finish,   // result
    close,    // count, control variables
    get_error,
    // child to client
    reply = 100, // status, then what the call gave
    notice,      // text for a person; at any time
    lines,       // there are so many lines that the child waits until some are taken
};

// Builds one frame.
class FrameWriter {
  public:
    explicit FrameWriter(FrameKind kind);
    FrameWriter& number(std::int32_t value);
    FrameWriter& text(std::string_view bytes);
    // The whole frame, its length before it.
    std::string finish() const;

  private:
    nlohmann::json m_fields;
};

// Takes one frame apart, field by field in their order. What is no frame, and a field that is not
// there or another one, throws std::runtime_error.
class FrameReader {
  public:
    // A number or a byte string.
    using Field = std::variant<std::int64_t, std::string>;

    explicit FrameReader(std::string_view payload);
    FrameKind kind() const { return m_kind; }
    std::int32_t number();
    std::string text();

  private:
    template <typename Value>
    Value& next();

    std::vector<Field> m_fields;
    std::size_t m_next = 0;
    FrameKind m_kind{};
};

// Sends the whole frame. Returns 0 or the errno; a receiver that went away is EPIPE, no signal.
int send_frame(int socket, std::string_view frame);

enum class ReceiveResult { frame, closed, failed };

// Receives one frame's payload (kind and fields). `failed` sets errno; a length beyond reason is
// EBADMSG. Blocks until the frame is whole.
ReceiveResult receive_frame(int socket, std::string& payload);

} // namespace qrtln
