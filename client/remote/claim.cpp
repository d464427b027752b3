#include "client/remote/claim.h"

#include "client/base/error.h"
#include "client/base/lock_wait.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/remote/rclone_process.h"
#include "client/remote/remote_settings.h"

#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <thread>

namespace qrtln {

using namespace std::chrono_literals;

namespace {

constexpr int claim_format = 1;
constexpr std::size_t longest_claim = 65536;
constexpr auto between_renewals = 5min;
// Another one who saw no claim may be about to write his.
constexpr auto settles = 200ms;

struct Claimed {
    std::string name;
    std::optional<ProcessNote> process;
    std::int64_t renewed = 0; // seconds since 1970
};

// Whatever lies there is somebody's.
Claimed parse(const std::string& bytes) {
    const nlohmann::json document = nlohmann::json::parse(bytes, nullptr, false);
    Claimed claimed;
    if (!document.is_object())
        return claimed;
    try {
        claimed.name = document.value("name", "");
        claimed.renewed = document.value("renewed", std::int64_t{0});
        claimed.process = parse_process_note(document.value("process", ""));
    } catch (const nlohmann::json::exception&) {
        return {};
    }
    return claimed;
}

std::string describe(const Claimed& claimed) {
    std::string text = describe(claimed.process.value_or(ProcessNote{}), true);
    if (claimed.renewed > 0)
        text += ", which said so last at " + utc_time(claimed.renewed);
    return text;
}

} // namespace

Claim::~Claim() {
    if (m_name.empty())
        return;
    try {
        const std::optional<std::string> bytes = m_files.read_small(claim_file, longest_claim);
        if (bytes && parse(*bytes).name == m_name)
            m_files.take_back(claim_file);
    } catch (...) {
        // The next writer of this machine sees that this process has ended.
    }
}

void Claim::write() {
    const nlohmann::json document = {{"format", claim_format},
                                     {"name", m_name},
                                     {"process", serialize(own_process())},
                                     {"renewed", std::int64_t{std::time(nullptr)}}};
    m_files.put_small(document.dump(), claim_file);
    m_renewed = std::chrono::steady_clock::now();
}

void Claim::take() {
    std::optional<Claimed> other;
    const auto is_free = [&] {
        const std::optional<std::string> bytes = m_files.read_small(claim_file, longest_claim);
        other = bytes ? std::optional(parse(*bytes)) : std::nullopt;
        return !other || remote_settings().breaks_claim ||
               (other->process && liveness_of(*other->process) == Liveness::ended);
    };
    const auto refused = [&] {
        return fmt::format("the store {} is in use by {}", for_terminal(m_store), describe(*other));
    };
    const std::string hint = std::string(locked_hint) +
                             "; where that process has ended for sure, as that machine is "
                             "gone: --break-claim";
    if (!wait_for_lock(is_free, refused))
        throw ClientError(ExitCode::locked, refused(), hint);
    if (other)
        print_message(fmt::format("note: the store {} is taken over from {}", for_terminal(m_store),
                                  describe(*other)));
    m_name = random_word();
    write();
    std::this_thread::sleep_for(settles);
    const std::optional<std::string> bytes = m_files.read_small(claim_file, longest_claim);
    other = parse(bytes.value_or(""));
    if (other->name == m_name)
        return;
    m_name.clear();
    throw ClientError(ExitCode::locked, refused(), hint);
}

std::optional<ProcessNote> Claim::holder() const {
    const std::optional<std::string> bytes = m_files.read_small(claim_file, longest_claim);
    return bytes ? std::optional(parse(*bytes).process.value_or(ProcessNote{})) : std::nullopt;
}

void Claim::renew() {
    if (m_name.empty() || std::chrono::steady_clock::now() - m_renewed < between_renewals)
        return;
    const std::optional<std::string> bytes = m_files.read_small(claim_file, longest_claim);
    if (const Claimed claimed = parse(bytes.value_or("")); claimed.name != m_name) {
        m_name.clear();
        throw ClientError(ExitCode::locked,
                          fmt::format("the store {} was taken over by {}", for_terminal(m_store),
                                      describe(claimed)),
                          "nothing of this run is kept; run the same command again when that has "
                          "ended");
    }
    write();
}

} // namespace qrtln
