#include "client/acceptance/teller.h"

#include "client/base/file_io.h"

#include <sys/socket.h>

namespace qrtln::acceptance {

using nlohmann::json;

bool Teller::write(const json& message) noexcept {
    try {
        const std::string line =
            message.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
        return write_all(m_descriptor, as_bytes(line)) == 0;
    } catch (...) {
        return false;
    }
}

void Teller::calling(const std::string& call) {
    char none = 0;
    // It sends nothing after the request: an end is its wish, or its own.
    if (!write({{"call", call}}) || ::recv(m_descriptor, &none, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
        throw ClientGone();
}

void Teller::undoing(const std::string& call) noexcept {
    (void)write({{"call", call}});
}

void Teller::leaves(const std::string& kind, const std::string& text) noexcept {
    (void)write({{"leaves", text}, {"kind", kind}});
}

void Teller::send(const Finding& finding) {
    if (!write(to_json(finding)))
        throw ClientGone();
}

void Teller::done() {
    if (!write({{"done", true}}))
        throw ClientGone();
}

void Teller::ok(const std::string& name, const std::string& text, const Statuses& statuses) {
    send({m_step, name, Verdict::ok, text, statuses, false});
}

void Teller::told(const std::string& name, const std::string& text, const Statuses& statuses,
                  bool incomplete) {
    send({m_step, name, Verdict::told, text, statuses, incomplete});
}

void Teller::stop(const std::string& name, const std::string& text, const Statuses& statuses) {
    throw Surprise{{m_step, name, Verdict::stop, text, statuses, false}};
}

} // namespace qrtln::acceptance
