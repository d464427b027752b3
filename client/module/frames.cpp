#include "client/module/frames.h"

#include "client/base/file_io.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>

namespace qrtln {

namespace {

// Enough for tens of thousands of DATABASE variables; a longer length is a fault, not a message.
constexpr std::uint32_t maximal_frame = 64U << 20;

} // namespace

FrameWriter::FrameWriter(FrameKind kind) : m_bytes(sizeof(std::uint32_t), '\0') {
    m_bytes += static_cast<char>(kind);
}

FrameWriter& FrameWriter::number(std::int32_t value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    m_bytes.append(bytes, sizeof value);
    return *this;
}

FrameWriter& FrameWriter::text(std::string_view bytes) {
    number(static_cast<std::int32_t>(bytes.size()));
    m_bytes += bytes;
    return *this;
}

std::string FrameWriter::finish() {
    auto length = static_cast<std::uint32_t>(m_bytes.size() - sizeof(std::uint32_t));
    std::memcpy(m_bytes.data(), &length, sizeof length);
    return std::move(m_bytes);
}

FrameReader::FrameReader(std::string payload) : m_payload(std::move(payload)) {
    m_kind = static_cast<FrameKind>(static_cast<std::uint8_t>(take(1)[0]));
}

std::string_view FrameReader::take(std::size_t size) {
    if (m_payload.size() - m_position < size)
        throw std::runtime_error("a message of the module's process is too short");
    std::string_view field = std::string_view(m_payload).substr(m_position, size);
    m_position += size;
    return field;
}

std::int32_t FrameReader::number() {
    std::int32_t value = 0;
    std::memcpy(&value, take(sizeof value).data(), sizeof value);
    return value;
}

std::string FrameReader::text() {
    auto size = static_cast<std::uint32_t>(number());
    return std::string(take(size));
}

int send_frame(int socket, std::string_view frame) {
    while (!frame.empty()) {
        ssize_t sent = ::send(socket, frame.data(), frame.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        frame.remove_prefix(static_cast<std::size_t>(sent));
    }
    return 0;
}

ReceiveResult receive_frame(int socket, std::string& payload) {
    std::uint32_t length = 0;
    ssize_t got = read_up_to(socket, std::as_writable_bytes(std::span(&length, 1)));
    if (got == 0)
        return ReceiveResult::closed;
    if (got < 0) {
        errno = static_cast<int>(-got);
        // A child that dies with unread data resets the connection: it is gone all the same.
        return errno == ECONNRESET ? ReceiveResult::closed : ReceiveResult::failed;
    }
    if (got != sizeof length)
        return ReceiveResult::closed;
    if (length == 0 || length > maximal_frame) {
        errno = EBADMSG;
        return ReceiveResult::failed;
    }
    payload.resize(length);
    got = read_up_to(socket, std::as_writable_bytes(std::span<char>(payload)));
    if (got < 0) {
        errno = static_cast<int>(-got);
        return errno == ECONNRESET ? ReceiveResult::closed : ReceiveResult::failed;
    }
    return static_cast<std::uint32_t>(got) == length ? ReceiveResult::frame : ReceiveResult::closed;
}

} // namespace qrtln
