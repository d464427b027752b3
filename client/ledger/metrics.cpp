#include "client/ledger/metrics.h"

#include "client/base/text.h"

#include <fmt/format.h>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace qrtln {

namespace {

std::string label_value(std::string_view bytes) {
    std::string value;
    for (char character : for_terminal(bytes)) {
        if (character == '\\' || character == '"')
            value += '\\';
        value += character;
    }
    return value;
}

// Labels that are there twice would have the collector refuse the whole file: names of unknown
// bytes may look the same.
class Labels {
  public:
    std::string unique(const std::string& labels) {
        std::string own = labels;
        for (int copy = 2; !m_given.insert(own).second; ++copy)
            own = fmt::format("{},same_name=\"{}\"", labels, copy);
        return own;
    }

  private:
    std::set<std::string> m_given;
};

struct Sample {
    const ServerLedger* server;
    const DatabaseLedger* database;
    std::string labels;
};

using Value = std::function<std::optional<std::int64_t>(const Sample&)>;

class MetricsFile {
  public:
    void family(const char* name, const char* help) {
        m_name = name;
        fmt::format_to(std::back_inserter(m_text), "# HELP {} {}\n# TYPE {} gauge\n", name, help,
                       name);
    }
    void add(const std::string& labels, std::int64_t value) {
        if (labels.empty())
            fmt::format_to(std::back_inserter(m_text), "{} {}\n", m_name, value);
        else
            fmt::format_to(std::back_inserter(m_text), "{}{{{}}} {}\n", m_name, labels, value);
    }
    void add_family(const char* name, const char* help, const std::vector<Sample>& samples,
                    const Value& value) {
        family(name, help);
        for (const Sample& sample : samples)
            if (std::optional<std::int64_t> known = value(sample))
                add(sample.labels, *known);
    }
    std::string take() { return std::move(m_text); }

  private:
    std::string m_text;
    const char* m_name = "";
};

std::vector<Sample> server_samples(const Ledger& ledger) {
    std::vector<Sample> samples;
    Labels labels;
    for (const ServerLedger& server : ledger.servers)
        samples.push_back(
            {&server, nullptr,
             labels.unique((server.store.empty()
                                ? ""
                                : fmt::format("store=\"{}\",", label_value(server.store))) +
                           fmt::format("server=\"{}\",domino_server=\"{}\",data_directory=\"{}\"",
                                       label_value(server.name), label_value(server.own_name),
                                       label_value(server.data_directory)))});
    return samples;
}

std::vector<Sample> database_samples(const std::vector<Sample>& servers) {
    std::vector<Sample> samples;
    Labels labels;
    for (const Sample& server : servers)
        for (const DatabaseLedger& database : server.server->databases)
            if (database.is_current())
                samples.push_back({server.server, &database,
                                   labels.unique(fmt::format("{},database=\"{}\"", server.labels,
                                                             label_value(database.name)))});
    return samples;
}

void add_servers(MetricsFile& file, const std::vector<Sample>& servers) {
    file.add_family("qrtln_server_newest_set_timestamp_seconds",
                    "When the newest set of the server was complete.", servers,
                    [](const Sample& sample) {
                        const auto& sets = sample.server->sets;
                        return sets.empty() ? std::nullopt : std::optional(sets.back().complete_at);
                    });
    file.add_family("qrtln_server_as_of_timestamp_seconds",
                    "Each database of the server can be had as of this moment or a later one.",
                    servers, [](const Sample& sample) { return sample.server->as_of(); });
    file.add_family("qrtln_server_last_proof_timestamp_seconds",
                    "When a recovery of the server was last tried.", servers,
                    [](const Sample& sample) { return sample.server->last_proof; });
    file.add_family("qrtln_server_log_gaps",
                    "Gaps in the chain of transaction logs that no full backup has ended.", servers,
                    [](const Sample& sample) {
                        std::int64_t open = 0;
                        for (const ServerLedger::Gap& gap : sample.server->log_gaps)
                            open += gap.is_open ? 1 : 0;
                        return std::optional(open);
                    });
    file.family("qrtln_server_databases", "Databases of the server in each state.");
    for (const Sample& sample : servers)
        for (int state = 0; state <= static_cast<int>(LedgerState::gap); ++state)
            file.add(
                fmt::format("{},state=\"{}\"", sample.labels,
                            state_name(static_cast<LedgerState>(state))),
                static_cast<std::int64_t>(sample.server->count(static_cast<LedgerState>(state))));
}

void add_databases(MetricsFile& file, const std::vector<Sample>& databases) {
    file.add_family("qrtln_database_newest_copy_timestamp_seconds",
                    "When the newest copy of the database was complete.", databases,
                    [](const Sample& sample) {
                        const auto& copies = sample.database->copies;
                        return copies.empty() ? std::nullopt : std::optional(copies.back());
                    });
    file.add_family("qrtln_database_recoverable_from_timestamp_seconds",
                    "The oldest moment to which the database can be recovered.", databases,
                    [](const Sample& sample) { return sample.database->recoverable_from(); });
    file.add_family("qrtln_database_recoverable_until_timestamp_seconds",
                    "The newest moment to which the database can be recovered.", databases,
                    [](const Sample& sample) { return sample.database->recoverable_until(); });
    file.add_family("qrtln_database_as_of_timestamp_seconds",
                    "That moment, or a later one up to which the database had not changed.",
                    databases, [](const Sample& sample) { return sample.database->as_of(); });
    file.add_family(
        "qrtln_database_gaps", "Gaps between the moments to which the database can be recovered.",
        databases, [](const Sample& sample) {
            return std::optional(static_cast<std::int64_t>(sample.database->gaps.size()));
        });
    file.add_family("qrtln_database_last_proof_timestamp_seconds",
                    "When the database was last recovered and read as a proof, with success.",
                    databases, [](const Sample& sample) {
                        const std::optional<LastProof>& proof = sample.database->proof;
                        return proof && proof->proven ? std::optional(proof->time) : std::nullopt;
                    });
    file.family("qrtln_database_problem",
                "What is wrong with the database: 1 for each that is not recoverable.");
    for (const Sample& sample : databases)
        if (sample.database->state != LedgerState::recoverable)
            file.add(
                fmt::format("{},problem=\"{}\"", sample.labels, state_name(sample.database->state)),
                1);
}

} // namespace

std::string ledger_metrics(const Ledger& ledger) {
    MetricsFile file;
    file.family("qrtln_ledger_timestamp_seconds", "When the ledger was made.");
    file.add("", ledger.made);
    file.family("qrtln_ledger_fine", "1 where everything is recoverable, else 0.");
    file.add("", ledger.exit_code() == 0 ? 1 : 0);
    file.family("qrtln_ledger_exit_code", "What `qrtln status` ended with.");
    file.add("", ledger.exit_code());
    const std::vector<Sample> servers = server_samples(ledger);
    add_servers(file, servers);
    add_databases(file, database_samples(servers));
    return file.take();
}

} // namespace qrtln
