#include "notes_simulator/domino_sim/manifest.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/domino_sim/cli.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;
using namespace notes_sim;
using nlohmann::json;

namespace domino_sim {

namespace {

json digests(const std::map<NoteId, std::string>& map) {
    json value = json::object();
    for (const auto& [id, digest] : map) {
        value[std::to_string(id)] = digest;
    }
    return value;
}

std::map<NoteId, std::string> digestMap(const json& value) {
    std::map<NoteId, std::string> map;
    for (const auto& [id, digest] : value.items()) {
        map[static_cast<NoteId>(std::stoul(id))] = digest.get<std::string>();
    }
    return map;
}

void applyOperations(const json& operations, ManifestState& state) {
    for (const json& operation : operations) {
        const auto id = operation.at(1).get<NoteId>();
        const auto digest = operation.at(2).get<std::string>();
        if (operation.at(0) == "delete") {
            state.notes.erase(id);
            state.stubs[id] = digest;
        } else {
            state.stubs.erase(id);
            state.notes[id] = digest;
        }
    }
}

/// A database in a manifest: its base, and the lines of its commits by their numbers.
struct ManifestLines {
    ManifestState base;
    std::map<std::uint64_t, json> commits;
};

ManifestLines readManifest(const fs::path& manifest, const std::string& database) {
    std::ifstream stream(manifest);
    if (!stream) {
        throwErrno(errno, "manifest " + manifest.string());
    }
    std::optional<ManifestState> base;
    std::map<std::uint64_t, json> commits;
    for (std::string text; std::getline(stream, text);) {
        const json value = json::parse(text, nullptr, false);
        if (value.is_discarded()) {
            if (stream.eof()) {
                break; // a killed writer's last line
            }
            throw StatusError(kInvalidArgument, "manifest line \"" + text.substr(0, 60) + "\"");
        }
        if (value.at("db") != database) {
            continue;
        }
        if (value.contains("base")) {
            // A later workload on the same manifest goes on from the earlier one.
            if (!base) {
                base = ManifestState{digestMap(value.at("notes")), digestMap(value.at("stubs")),
                                     value.at("base"), value.at("base")};
            }
        } else {
            commits[value.at("commit").get<std::uint64_t>()] = value;
        }
    }
    if (!base) {
        throw StatusError(kInvalidArgument, "the manifest does not have " + database);
    }
    return {*std::move(base), std::move(commits)};
}

} // namespace

ManifestWriter::ManifestWriter(const fs::path& file)
    : m_fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666)) {
    if (m_fd < 0) {
        throwErrno(errno, "manifest " + file.string());
    }
}

ManifestWriter::~ManifestWriter() {
    ::close(m_fd);
}

void ManifestWriter::line(const std::string& text) {
    const std::string whole = text + "\n";
    if (::write(m_fd, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size())) {
        throwErrno(errno, "writing the manifest");
    }
}

void ManifestWriter::base(const std::string& database, const DatabaseState& state) {
    line(json{{"db", database},
              {"base", state.header.commit},
              {"dbiid", hex(state.header.dbiid)},
              {"notes", digests(state.notes)},
              {"stubs", digests(state.stubs)}}
             .dump());
}

void ManifestWriter::commit(const std::string& database, const Commit& commit) {
    json operations = json::array();
    for (const NoteChange& change : commit.changes) {
        operations.push_back({change.kind == ChangeKind::kDelete ? "delete" : "put", change.note.id,
                              digestOf(change)});
    }
    line(json{{"db", database},
              {"commit", commit.number},
              {"record", commit.record},
              {"time", commit.time},
              {"ops", operations}}
             .dump());
}

ManifestState stateAfter(const fs::path& manifest, const std::string& database,
                         std::uint64_t commit) {
    auto [state, commits] = readManifest(manifest, database);
    state.lastCommit = commits.empty() ? state.firstCommit : commits.rbegin()->first;
    if (commit < state.firstCommit || commit > state.lastCommit) {
        throw CheckFailed(database + ": the copy is at commit " + std::to_string(commit) +
                          ", the manifest has " + std::to_string(state.firstCommit) + " to " +
                          std::to_string(state.lastCommit));
    }
    for (const auto& [number, line] : commits) {
        if (number > commit) {
            break;
        }
        applyOperations(line.at("ops"), state);
    }
    return state;
}

std::uint64_t lastCommitAt(const fs::path& manifest, const std::string& database,
                           std::int64_t time) {
    const auto [base, commits] = readManifest(manifest, database);
    std::uint64_t last = base.firstCommit;
    for (const auto& [number, line] : commits) {
        if (line.at("time").get<std::int64_t>() > time) {
            break;
        }
        last = number;
    }
    return last;
}

} // namespace domino_sim
