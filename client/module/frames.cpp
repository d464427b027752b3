#include "client/module/frames.h"

#include "client/base/file_io.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

namespace qrtln {

void refuse_frame() {
    throw std::runtime_error("a message of the module's process cannot be read");
}

namespace {

// Collects the fields of a frame while it is parsed, and ends that at anything else: nothing in a
// frame lies deeper than its fields.
class FieldCollector final : public nlohmann::json_sax<nlohmann::json> {
  public:
    explicit FieldCollector(std::vector<FrameReader::Field>& fields) : m_fields(fields) {}

    bool null() override { return false; }
    bool boolean(bool) override { return false; }
    bool number_integer(number_integer_t value) override { return add(std::int64_t{value}); }
    bool number_unsigned(number_unsigned_t value) override {
        return add(static_cast<std::int64_t>(value));
    }
    bool number_float(number_float_t, const string_t&) override { return false; }
    bool string(string_t&) override { return false; }
    bool binary(binary_t& bytes) override { return add(std::string(bytes.begin(), bytes.end())); }
    bool start_object(std::size_t) override { return false; }
    bool key(string_t&) override { return false; }
    bool end_object() override { return false; }
    bool start_array(std::size_t) override { return !std::exchange(m_begun, true); }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) override {
        return false;
    }

  private:
    template <typename Value>
    bool add(Value value) {
        m_fields.emplace_back(std::move(value));
        return m_begun;
    }

    std::vector<FrameReader::Field>& m_fields;
    bool m_begun = false;
};

} // namespace

FrameWriter::FrameWriter(FrameKind kind)
    : m_fields(nlohmann::json::array({static_cast<int>(kind)})) {}

FrameWriter& FrameWriter::number(std::int32_t value) {
    m_fields.push_back(value);
    return *this;
}

FrameWriter& FrameWriter::text(std::string_view bytes) {
    m_fields.push_back(nlohmann::json::binary({bytes.begin(), bytes.end()}));
    return *this;
}

std::string FrameWriter::finish() const {
    std::string frame(sizeof(std::uint32_t), '\0');
    nlohmann::json::to_msgpack(m_fields, frame);
    auto length = static_cast<std::uint32_t>(frame.size() - sizeof(std::uint32_t));
    std::memcpy(frame.data(), &length, sizeof length);
    return frame;
}

FrameReader::FrameReader(std::string_view payload) {
    FieldCollector collector(m_fields);
    if (!nlohmann::json::sax_parse(payload, &collector, nlohmann::json::input_format_t::msgpack))
        refuse_frame();
    m_kind = static_cast<FrameKind>(number());
}

template <typename Value>
Value& FrameReader::next() {
    if (m_next == m_fields.size())
        throw std::runtime_error("a message of the module's process is too short");
    Value* value = std::get_if<Value>(&m_fields[m_next++]);
    if (value == nullptr)
        refuse_frame();
    return *value;
}

std::int32_t FrameReader::number() {
    const std::int64_t value = next<std::int64_t>();
    if (!std::in_range<std::int32_t>(value))
        refuse_frame();
    return static_cast<std::int32_t>(value);
}

std::string FrameReader::text() {
    return std::move(next<std::string>());
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
