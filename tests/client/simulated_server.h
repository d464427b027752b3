// A simulated server with a store, and the client over it.
#pragma once

#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/store/object_writer.h"
#include "client/store/store.h"
#include "tests/client/run_client.h"
#include "tests/support/domino_sim.h"
#include "tests/support/stored_content.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

namespace qrtln::test {

using nlohmann::json;

// Waits for the next second: what was written before is older than a backup that starts now.
inline void settle() {
    for (std::time_t now = std::time(nullptr); std::time(nullptr) == now;)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

class OverTheSimulator : public testing::Test {
  protected:
    explicit OverTheSimulator(const std::string& options = "") {
        fs::create_directories(m_tmp);
        init(options);
    }
    // Begins a new server, with these options of `domino-sim init`, in place of the one there.
    void init(const std::string& options) const {
        fs::remove_all(m_server);
        domino("init", "--databases 6 --extent-size 65536 " + options);
    }
    void add_to_notes_ini(const std::string& lines) const {
        std::ofstream(m_server + "/notes.ini", std::ios::app) << lines << "\n";
    }
    // Runs a command of domino-sim on the server; what it printed.
    std::string domino(const std::string& command, const std::string& words = "") const {
        return dominoSim(command + " " + m_server + " " + words);
    }
    // What users do: documents, so many full extents.
    void put(const std::string& name, const std::string& more = "--text new") const {
        domino("put", name + " " + more);
    }
    void fill_extents(std::size_t count) const {
        for (int i = 0; i < 1000 && extents().size() <= count; ++i)
            put("mail/user1.nsf", "--count 5 --text " + std::string(9000, 'x'));
    }
    // What the server reads in a database.
    json shown(const std::string& name) const {
        return json::parse(domino("show", name + " --json"));
    }
    std::string digest(const std::string& name) const { return shown(name)["digest"]; }
    // The numbers of the extents that the server still has, oldest first.
    std::vector<std::int64_t> extents() const {
        std::vector<std::int64_t> numbers;
        for (const auto& entry : fs::directory_iterator(m_server + "/logs"))
            if (entry.path().extension() == ".TXN")
                numbers.push_back(std::stoll(entry.path().stem().string().substr(1)));
        std::sort(numbers.begin(), numbers.end());
        return numbers;
    }

    // A command on the server.
    Words on_server(Words words) const {
        words.insert(words.end(), {"--notes-ini", m_server + "/notes.ini", "--store", m_store,
                                   "--tmp-dir", m_tmp, "--json"});
        return words;
    }
    // Runs a command on the server that must end with this code, say this, and leave no folder of
    // its own behind; its JSON document. Its messages are in m_errors.
    json run(int exit_code, const Words& words, const std::string& says = "",
             const Environment& environment = {}) {
        const auto before = private_folders();
        Outcome outcome = run_client(on_server(words), environment);
        m_errors = outcome.errors;
        EXPECT_EQ(outcome.exit_code, exit_code)
            << testing::PrintToString(words) << m_errors << outcome.output;
        EXPECT_THAT(m_errors, HasSubstr(says)) << testing::PrintToString(words);
        EXPECT_THAT(private_folders(), testing::IsSubsetOf(before))
            << testing::PrintToString(words);
        return outcome.document();
    }
    // What runs have for themselves below --tmp-dir: their process ids are in the names. Copies
    // that wait for a second command are in others.
    Words private_folders() const {
        Words names;
        for (const auto& entry : fs::directory_iterator(m_tmp))
            if (std::string name = entry.path().filename();
                name.starts_with("qrtln-") && std::isdigit(name[6]) != 0)
                names.push_back(name);
        return names;
    }
    json backup(int exit_code, const std::string& level = "full", Words more = {},
                const std::string& says = "", const Environment& environment = {}) {
        more.insert(more.begin(), {"backup", "--level", level});
        return run(exit_code, more, says, environment);
    }
    // The same with a call of the server's library that fails.
    static Environment fault(const std::string& calls) { return {{"NOTES_SIM_FAULTS", calls}}; }
    // The same with what happens between the module's calls: "CALL:ITEM) shell commands", as
    // hooked_module/ has it.
    static Environment hook(const std::string& happens) {
        return {{"QRTLN_MODULE", QRTLN_HOOKED_MODULE},
                {"QRTLN_TEST_HOOK", "case $CALL:$ITEM in " + happens + ";; esac"}};
    }
    // Runs a command that needs nothing but the store.
    Outcome on_store(Words words) const {
        words.insert(words.end(), {"--store", m_store});
        return run_client(words);
    }
    int verify() const { return on_store({"verify"}).exit_code; }
    std::string owed() const { return read_file(m_store + "/runtime/owed.jsonl"); }
    std::string index() const { return read_file(m_store + "/runtime/qrtln_DBIID.ini"); }
    json list() const { return on_store({"list", "--json"}).document()["sets"]; }

    Manifest manifest(const std::string& set) const {
        return load_set(*open_directory_store(m_store, StoreAccess::read), set).manifest.value();
    }
    // Writes what no client would: over the set that is there, or as another.
    void write_manifest(const Manifest& manifest) const {
        auto store = open_directory_store(m_store, StoreAccess::change);
        if (fs::exists(m_store + "/sets/" + manifest.set + ".json"))
            store->rewrite_manifest(manifest.set, serialize(manifest));
        else
            store->write_manifest(manifest.set, serialize(manifest));
    }
    ManifestItem item(const std::string& set, const std::string& path) const {
        for (const ManifestItem& item : manifest(set).items)
            if (item.path == path)
                return item;
        throw std::runtime_error("not in the set: " + path);
    }
    std::string object_file(const std::string& set, const std::string& path) const {
        return m_store + "/" + stored_path(FileKind::object, item(set, path).object);
    }
    // Changes a bit of its content in the store, or back.
    void flip(const std::string& set, const std::string& path) const {
        flip_content(m_store, item(set, path));
    }
    // The names of the stored databases of a set, below the data directory, sorted.
    Words databases(const std::string& set) const {
        Words names;
        for (const ManifestItem& item : manifest(set).items)
            if (item.kind == ItemKind::database && item.status == ItemStatus::stored)
                names.push_back(item.path.substr(m_data.size() + 1));
        std::sort(names.begin(), names.end());
        return names;
    }

    ScratchFolder m_scratch;
    std::string m_server = m_scratch / "server";
    std::string m_data = m_server + "/data";
    std::string m_user1 = m_data + "/mail/user1.nsf";
    std::string m_user2 = m_data + "/mail/user2.nsf";
    std::string m_store = m_scratch / "store";
    std::string m_tmp = m_scratch / "tmp";
    std::string m_errors; // of the last command
};

} // namespace qrtln::test
