#include "client/commands/set_reading.h"

#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/options.h"
#include "client/sets/catalogue.h"

#include <fmt/format.h>

namespace qrtln {

bool SetReading::permitted(const std::function<void()>& read) {
    try {
        read();
        return true;
    } catch (const ClientError& failure) {
        if (failure.exit_code() != static_cast<int>(ExitCode::no_permission))
            throw;
        m_denied = m_denied.value_or(failure);
        m_reason = failure.what();
        return false;
    }
}

std::optional<Manifest> SetReading::read(const std::string& set) {
    throw_if_interrupted();
    CatalogueEntry entry;
    if (!permitted([&] { entry = load_set(m_store, set); })) {
        m_unread.push_back({set, "no permission", m_reason});
    } else if (entry.manifest) {
        m_links.add(*entry.manifest);
    } else {
        m_damaged = true;
        m_unread.push_back({set, "damaged", entry.problem});
    }
    return std::move(entry.manifest);
}

nlohmann::json SetReading::report_missing() {
    std::vector<MissingSet> missing;
    (void)permitted([&] { missing = m_links.missing(m_store); });
    nlohmann::json sets = nlohmann::json::array();
    for (const MissingSet& set : missing) {
        m_damaged = true;
        sets.push_back({{"set", printable_utf8(set.set)}, {"why", set.why}});
        print_error(describe(set), &set == &missing.back() ? missing_set_hint : "");
    }
    return sets;
}

nlohmann::json SetReading::report_unread() const {
    nlohmann::json sets = nlohmann::json::array();
    for (const UnreadSet& set : m_unread) {
        sets.push_back({{"set", printable_utf8(set.set)},
                        {"status", set.status},
                        {"problem", printable_utf8(set.problem)}});
        if (set.status == "damaged")
            print_error(fmt::format("what the set {} holds is not known: its manifest {}",
                                    for_terminal(set.set), for_terminal(set.problem)),
                        "`qrtln verify` tells what else is damaged");
    }
    return sets;
}

void SetReading::report_denied() const {
    if (m_denied)
        print_error(m_denied->what(), m_denied->hint());
}

int SetReading::exit_code(ExitCode otherwise) const {
    return m_damaged  ? static_cast<int>(ExitCode::damage_found)
           : m_denied ? m_denied->exit_code()
                      : static_cast<int>(otherwise);
}

void add_set_filter(CLI::App& command, SetFilterOptions& options, bool level) {
    command.add_option("--server", options.server, "Only sets of this server")->type_name("NAME");
    if (level)
        command.add_option("--level", options.level, "Only sets of this level")
            ->check(CLI::IsMember({"full", "copy", "diff", "incr"}));
    command
        .add_option("--since", options.since,
                    std::string("Only sets that began at this time or later: ") + time_help)
        ->type_name("TIME");
    command.add_option("--until", options.until, "Only sets that began at this time or earlier")
        ->type_name("TIME");
}

SetFilter::SetFilter(const SetFilterOptions& options) : m_options(options) {
    if (!options.since.empty())
        m_since = parse_moment(options.since, "--since");
    if (!options.until.empty())
        m_until = parse_moment(options.until, "--until");
    if (m_since && m_until && m_since->time > m_until->time)
        throw ClientError(ExitCode::usage,
                          fmt::format("--since '{}' is after --until '{}'",
                                      for_terminal(options.since), for_terminal(options.until)));
}

bool SetFilter::takes(const Manifest& manifest) {
    if (!m_options.server.empty() && manifest.server_name != m_options.server)
        return false;
    m_server_met = true;
    // The time in a name is a later one after the clock was set back.
    const std::string name_time = manifest.set.substr(0, compact_time_length);
    if (m_since && (m_since->set_prefix.empty() ? manifest.started < m_since->time
                                                : name_time < m_since->set_prefix))
        return false;
    if (m_until && (m_until->set_prefix.empty() ? manifest.started > m_until->time
                                                : name_time > m_until->set_prefix))
        return false;
    return m_options.level.empty() || manifest.level == m_options.level;
}

void SetFilter::require_server(const Store& store) const {
    if (!m_options.server.empty() && !m_server_met)
        throw ClientError(ExitCode::no_such,
                          fmt::format("{} has no set of the server {}", store.description(),
                                      for_terminal(m_options.server)),
                          "`qrtln list` shows the servers");
}

} // namespace qrtln
