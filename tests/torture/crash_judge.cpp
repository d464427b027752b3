#include "tests/torture/crash_judge.h"

#include "client/file_io.h"
#include "client/store/digest.h"
#include "notes_simulator/transaction_log.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/file.h>
#include <thread>

namespace fs = std::filesystem;
using nlohmann::json;

namespace qrtln::torture {

namespace {

constexpr const char* index_name = "qrtln_DBIID.ini";

std::string content_of(const fs::path& file) {
    std::ostringstream bytes;
    bytes << std::ifstream(file, std::ios::binary).rdbuf();
    return bytes.str();
}

} // namespace

std::string index_of(const std::string& store) {
    return content_of(store + "/runtime/" + index_name);
}

std::map<std::uint32_t, std::string> waiting_extents(const notes_sim::Server& server) {
    std::map<std::uint32_t, std::string> waiting;
    notes_sim::ServerLock lock(server);
    notes_sim::TransactionLog log(server, lock);
    for (std::uint32_t number : log.readyExtents())
        waiting[number] = sha256_hex(content_of(log.extentPath(number)));
    return waiting;
}

void CrashJudge::begin(const Start& start, std::string doing) {
    m_start = &start;
    m_indexes = start.indexes;
    m_doing = std::move(doing);
}

void CrashJudge::violated(const std::string& rule, const std::string& what) {
    ++m_violations[rule];
    std::cout << "  VIOLATED (" << rule << "), " << m_doing << ": " << what << std::endl;
}

void CrashJudge::judge_remains() {
    wait_for_the_end();
    judge_index();
    judge_extents();
    judge_store();
}

// The module's process may outlive the client; both share the lock of the store.
void CrashJudge::wait_for_the_end() {
    FileDescriptor lock(::open((m_history.store() + "/lock").c_str(), O_RDONLY | O_CLOEXEC));
    for (int i = 0; lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++i) {
        if (i == 60'000) {
            violated(rule::next_run, "the killed run holds its lock for more than a minute");
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CrashJudge::judge_index() {
    std::string index = index_of(m_history.store());
    if (!m_indexes.contains(index))
        violated(rule::index, "it has " + std::to_string(index.size()) +
                                  " bytes and is neither the old nor the new one");
}

void CrashJudge::judge_extents() {
    std::map<std::uint32_t, std::string> left = waiting_extents(m_history.server());
    for (const auto& [number, digest] : m_start->waiting)
        if (!left.contains(number) && !is_stored(number, digest))
            violated(rule::extents,
                     std::to_string(number) + " is marked as archived and in no set as it was");
}

bool CrashJudge::is_stored(std::uint32_t extent, const std::string& digest) const {
    fs::path sets = m_history.store() + "/sets";
    if (!fs::exists(sets))
        return false;
    for (const auto& file : fs::directory_iterator(sets)) {
        if (file.path().extension() != ".json")
            continue;
        json set = json::parse(content_of(file.path()), nullptr, false);
        for (const json& item : set.is_object() ? set.at("items") : json::array())
            if (item.at("status") == "stored" && item.contains("log") &&
                item["log"].at("number") == extent && item.at("object") == digest)
                return true; // that the object is whole is for `qrtln verify` to say
    }
    return false;
}

// Before the first run was whole there may be no store.
void CrashJudge::judge_store() {
    if (!fs::exists(m_history.store() + "/store.json") && m_start->indexes.contains(""))
        return;
    Run verify = m_history.qrtln({"verify"});
    if (verify.exit_code != 0)
        violated(rule::verify, verify.output + verify.errors);
}

void CrashJudge::judge_next_runs() {
    for (bool full : m_start->full ? std::vector{true, false} : std::vector{false}) {
        for (const char* name : {"mail/user1.nsf", "unlogged.nsf"})
            m_history.commit(name);
        try {
            m_history.back_up(full);
        } catch (const std::exception& failure) {
            violated(rule::next_run, failure.what());
            return;
        }
    }
    judge_leftovers();
    judge_store();
    judge_databases();
}

void CrashJudge::judge_leftovers() {
    for (const auto& entry : fs::recursive_directory_iterator(m_history.disk())) {
        bool of_run_time = entry.path().parent_path().filename() == "runtime";
        if (entry.path().extension() == ".tmp" ||
            (of_run_time && entry.path().filename() != index_name &&
             entry.path().filename() != "server.json"))
            violated(rule::leftovers, entry.path().filename().string());
    }
    for (const auto& entry : fs::directory_iterator(m_history.temporary()))
        violated(rule::leftovers, entry.path().filename().string() + " in the temporary directory");
}

void CrashJudge::judge_databases() {
    std::string into = m_history.scratch() + "/into";
    Run recovery = m_history.qrtln({"recover", "--all", "--into", into});
    if (recovery.exit_code != 0)
        violated(rule::databases, recovery.output + recovery.errors);
    for (const auto& [name, database] : m_history.databases()) {
        try {
            std::string wrong = database.wrong_with(into + m_history.path_of(name), std::nullopt);
            if (!wrong.empty())
                violated(rule::databases, name + ": " + wrong);
        } catch (const std::exception& failure) {
            violated(rule::databases, name + ": " + failure.what());
        }
    }
    fs::remove_all(into);
}

} // namespace qrtln::torture
