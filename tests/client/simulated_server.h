// A simulated server, and the client with the real module over it.
#pragma once

#include "client/catalogue.h"
#include "client/store/object_writer.h"
#include "client/store/store.h"
#include "tests/client/run_client.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qrtln::test {

// A task of the server: domino-sim with these words, until the object goes away and sends it a
// signal.
class ServerTask {
  public:
    explicit ServerTask(const std::string& words, int signal = SIGTERM) : m_signal(signal) {
        int output[2];
        EXPECT_EQ(::pipe(output), 0);
        const std::string command = std::string("exec ") + QRTLN_DOMINO_SIM + " " + words;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(output[1], 1);
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(output[1]);
        char line = 0; // printed once it is at work
        EXPECT_EQ(::read(output[0], &line, 1), 1);
        ::close(output[0]);
    }
    ~ServerTask() {
        ::kill(m_pid, m_signal);
        ::waitpid(m_pid, nullptr, 0);
    }
    ServerTask(const ServerTask&) = delete;
    ServerTask& operator=(const ServerTask&) = delete;

  private:
    pid_t m_pid = -1;
    int m_signal;
};

// One that has a database open: a command of domino-sim, its options behind it.
struct HeldDatabase : ServerTask {
    HeldDatabase(const std::string& server, const std::string& name,
                 const std::string& command = "hold", const std::string& options = "")
        : ServerTask(command + " " + server + " " + name + " " + options, SIGKILL) {}
};

class OverTheSimulator : public testing::Test {
  protected:
    OverTheSimulator() {
        std::filesystem::create_directories(m_tmp);
        domino("init " + m_server + " --databases 6 --extent-size 65536");
    }
    // Has the server do what a real one may do: names of moods, with commas.
    void set_moods(const std::string& moods) const {
        std::ofstream(m_server + "/notes.ini", std::ios::app) << "SimStrict=" << moods << "\n";
    }
    // Runs domino-sim with plain words; its exit status.
    int domino(const std::string& words) const {
        std::string command = std::string(QRTLN_DOMINO_SIM) + " " + words + " >" +
                              m_scratch / "domino-sim.out" + " 2>&1";
        return std::system(command.c_str());
    }
    // Runs a command on the server, with the real module.
    Outcome client(std::vector<std::string> words, Environment environment = {}) const {
        words.insert(words.end(), {"--notes-ini", m_server + "/notes.ini", "--store", m_store,
                                   "--tmp-dir", m_tmp, "--json"});
        environment["QRTLN_MODULE"] = ""; // the one beside the executable
        environment.try_emplace("Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY);
        return run_client(words, environment);
    }
    Outcome backup(std::vector<std::string> more = {}, Environment environment = {}) const {
        more.insert(more.begin(), "backup");
        return client(std::move(more), std::move(environment));
    }

    // What `qrtln list` or the last backup tells, as JSON.
    nlohmann::json list() const {
        return nlohmann::json::parse(
            run_client({"list", "--store", m_store, "--json"}, {}).output)["sets"];
    }
    // The numbers of the extents that the server still has, oldest first.
    std::vector<std::int64_t> extents() const {
        std::vector<std::int64_t> numbers;
        for (const auto& entry : std::filesystem::directory_iterator(m_server + "/logs"))
            if (entry.path().extension() == ".TXN")
                numbers.push_back(std::stoll(entry.path().stem().string().substr(1)));
        std::sort(numbers.begin(), numbers.end());
        return numbers;
    }
    Manifest manifest(const std::string& set) const {
        return load_set(*open_directory_store(m_store, StoreAccess::read), set).manifest.value();
    }
    // The names of the stored databases of a set, below the data directory, sorted.
    std::vector<std::string> databases(const std::string& set) const {
        std::vector<std::string> names;
        Manifest stored = manifest(set);
        for (const ManifestItem& item : stored.items)
            if (item.kind == ItemKind::database && item.status == ItemStatus::stored)
                names.push_back(item.path.substr(stored.data_directory.size() + 1));
        std::sort(names.begin(), names.end());
        return names;
    }

    // Runs a command on the server that must end with this code; its JSON document.
    nlohmann::json run(int exit_code, std::vector<std::string> words,
                       Environment environment = {}) {
        Outcome outcome = client(std::move(words), std::move(environment));
        EXPECT_EQ(outcome.exit_code, exit_code) << outcome.errors << outcome.output;
        m_errors = outcome.errors;
        return outcome.output.empty() ? nlohmann::json() : nlohmann::json::parse(outcome.output);
    }
    std::string full_backup(const std::vector<std::string>& more = {}) {
        Outcome outcome = backup(more);
        EXPECT_EQ(outcome.exit_code, 0) << outcome.errors;
        return nlohmann::json::parse(outcome.output)["set"];
    }
    // What the server reads in a database; null when it cannot.
    nlohmann::json shown(const std::string& name) const {
        if (domino("show " + m_server + " " + name + " --json") != 0)
            return nullptr;
        return nlohmann::json::parse(read_file(m_scratch / "domino-sim.out"));
    }
    // Waits for the next second: what was written before is older than a backup that starts now.
    static void settle() {
        for (std::time_t now = std::time(nullptr); std::time(nullptr) == now;)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // Users write until so many extents are full. Each change fits in one.
    void fill_extents(std::size_t count) const {
        const std::string text(9000, 'x');
        for (int i = 0; i < 1000 && extents().size() <= count; ++i)
            ASSERT_EQ(domino("put " + m_server + " mail/user1.nsf --count 5 --text " + text), 0);
    }
    ManifestItem item(const std::string& set, const std::string& path) const {
        for (const ManifestItem& item : manifest(set).items)
            if (item.path == path)
                return item;
        throw std::runtime_error("not in the set: " + path);
    }
    std::string object_file(const std::string& set, const std::string& path) const {
        return m_store + "/objects/" + object_file_name(item(set, path).object);
    }
    void flip_a_bit(const std::string& file) const {
        std::string bytes = read_file(file);
        bytes[bytes.size() / 2] ^= 4;
        write_file(file, bytes);
    }

    ScratchFolder m_scratch;
    std::string m_server = m_scratch / "server";
    std::string m_store = m_scratch / "store";
    std::string m_tmp = m_scratch / "tmp";
    std::string m_errors; // of the last command
};

} // namespace qrtln::test
