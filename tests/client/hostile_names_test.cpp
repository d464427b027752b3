// A server whose data directory holds every hostile name and kind of file at once: what can be
// saved is saved and comes back equal, what cannot is named with its reason, nothing hangs.
#ifdef QRTLN_DOMINO_SIM

#include "client/text.h"
#include "tests/client/simulated_server.h"

#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::Outcome;
using test::OverTheSimulator;
using test::read_file;
using test::run_client;
using test::write_file;
using testing::HasSubstr;

const std::string deep_folder = std::string(200, 'd') + "/" + std::string(200, 'e');

// Databases that can be saved.
const std::vector<std::string> good_names = {
    "%n%s%x%1$s.nsf",
    "new\nline\r.nsf",
    "=a=b;c#d.nsf",
    "[DBIID].nsf",
    "\x1b[31m\x07\x7f.nsf",
    "\xC2\x9B\xE2\x80\xAEltr.nsf",
    " blanks .nsf",
    "back\\slash*?[x].nsf",
    "-o chgd deld \"quoted\".nsf",
    "$(reboot)`'&;.nsf",
    "caf\xC3\xA9 \xE4\xB8\xAD.nsf",
    "CAPS.NSF",
    "%2Fmail.nsf",
    "Archive ID 01234567, Log number 1, log path [x].nsf",
    std::string(251, 'n') + ".nsf",
    deep_folder + "/deep.nsf",
    "[odd] %s*/below.nsf",
    "p/linked.nsf",
};

class HostileNames : public OverTheSimulator {
  protected:
    HostileNames() {
        fs::create_directories(m_data + "/q");
        for (const std::string& name : good_names)
            EXPECT_EQ(on_server("create", name, "--notes 3"), 0) << name;
        // Folders that link to each other, and links that never end.
        fs::create_directory_symlink(m_data + "/q", m_data + "/p/q");
        fs::create_directory_symlink(m_data + "/p", m_data + "/q/p");
        fs::create_directory_symlink(".", m_data + "/loop");
        fs::create_directory_symlink("/", m_data + "/q/root");
        fs::create_symlink("endless", m_data + "/endless");
    }
    int on_server(const std::string& command, const std::string& name,
                  const std::string& options = {}) const {
        std::string quoted;
        for (char character : name)
            quoted += character == '\'' ? "'\\''" : std::string(1, character);
        return domino(command + " " + options + " " + m_server + " -- '" + quoted + "'");
    }
    // What cannot be saved: its path, and a part of the reason.
    std::map<std::string, std::string> add_unsaveable() {
        auto at = [this](const std::string& name) { return m_data + "/" + name; };
        write_file(at("empty.nsf"), "");
        write_file(at("garbage.nsf"), "no database");
        write_file(at(".hidden.nsf"), "x");
        fs::copy_file(at("names.nsf"), at("gr\xFC\xFE.nsf"));
        EXPECT_EQ(::mkfifo(at("fifo.nsf").c_str(), 0600), 0);
        EXPECT_EQ(::mkfifo(at("fifo.id").c_str(), 0600), 0);
        fs::create_symlink("/dev/zero", at("zero.id"));
        fs::create_symlink("gone", at("dangling.nsf"));
        fs::create_symlink("self.nsf", at("self.nsf"));
        std::map<std::string, std::string> unsaveable = {
            {at("empty.nsf"), "not a database"},
            {at("garbage.nsf"), "not a database"},
            {at(".hidden.nsf"), "begins with a dot"},
            {at("gr\xFC\xFE.nsf"), "not UTF-8"},
            {at("fifo.nsf"), "a FIFO"},
            {at("fifo.id"), "a FIFO"},
            {at("zero.id"), "a character device"},
            {at("dangling.nsf"), "it is gone"},
            {at("self.nsf"), "Too many levels"},
        };
        add_depths(unsaveable);
        return unsaveable;
    }
    // A tree that ends beyond every path of the module and of the system.
    void add_depths(std::map<std::string, std::string>& unsaveable) {
        const std::string step(250, 'f');
        std::string path = m_data + "/depths";
        fs::create_directories(path);
        int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
        bool told = false;
        for (int level = 0; level < 20; ++level) {
            ASSERT_EQ(::mkdirat(folder, step.c_str(), 0700), 0);
            int below = ::openat(folder, step.c_str(), O_RDONLY | O_DIRECTORY);
            ::close(folder);
            folder = below;
            path += "/" + step;
            if (!told && path.size() > PATH_MAX) {
                told = true;
                unsaveable[path] = "File name too long";
            }
            if (level != 4 && level != 19)
                continue;
            int file = ::openat(folder, "far.nsf", O_WRONLY | O_CREAT, 0600);
            ASSERT_GE(file, 0);
            ::close(file);
            if (!told)
                unsaveable[path + "/far.nsf"] = "longer than the module takes";
        }
        ::close(folder);
    }
    void remove(const std::map<std::string, std::string>& files) {
        fs::remove_all(m_data + "/depths");
        for (const auto& [path, reason] : files)
            if (path.size() < PATH_MAX)
                fs::remove(path);
    }
    // What the document of a backup says has failed must be just this.
    static void expect_failed(const json& document,
                              const std::map<std::string, std::string>& expected) {
        std::set<std::string> failed;
        for (const json& item : document["failed"])
            failed.insert(item["path"]);
        for (const auto& [path, reason] : expected) {
            EXPECT_EQ(failed.erase(printable_utf8(path)), 1U) << path;
            for (const json& item : document["failed"]) {
                if (item["path"] == printable_utf8(path)) {
                    EXPECT_THAT(item["reason"].get<std::string>(), HasSubstr(reason)) << path;
                }
            }
        }
        EXPECT_THAT(failed, testing::IsEmpty());
    }
    static void expect_printable(const Outcome& outcome) {
        std::istringstream text(outcome.output + outcome.errors);
        for (std::string line; std::getline(text, line);)
            EXPECT_EQ(for_terminal(line), line);
    }

    const std::string m_data = m_server + "/data";
};

TEST_F(HostileNames, AllAtOnceAreSavedAndRestoredOrNamed) {
    const std::map<std::string, std::string> unsaveable = add_unsaveable();
    Outcome first = backup({"--level", "full"});
    ASSERT_EQ(first.exit_code, 3) << first.errors;
    expect_printable(first);
    expect_failed(json::parse(first.output), unsaveable);
    std::string set = json::parse(first.output)["set"];
    for (const auto& [path, reason] : unsaveable) {
        EXPECT_THAT(first.errors, HasSubstr("failed: " + for_terminal(path) + ": "));
        ManifestItem failed = item(set, path);
        EXPECT_THAT(failed.reason, HasSubstr(reason));
        for (const std::string& warning : failed.warnings)
            EXPECT_EQ(warning.find("it is stored"), std::string::npos) << path;
    }

    for (std::vector<std::string> words :
         {std::vector<std::string>{"list"}, {"show", "latest"}, {"verify"}}) {
        words.insert(words.end(), {"--store", m_store});
        Outcome plain = run_client(words, {});
        words.emplace_back("--json");
        Outcome document = run_client(words, {});
        for (const Outcome& outcome : {plain, document}) {
            EXPECT_EQ(outcome.exit_code, 0) << words[0] << outcome.errors;
            expect_printable(outcome);
        }
        EXPECT_TRUE(json::accept(document.output));
    }

    run(0, {"restore", "--all", "--set", set, "--to", m_scratch / "to"});
    for (const std::string& name : good_names)
        EXPECT_EQ(read_file(m_scratch / "to" + m_data + "/" + name), read_file(m_data + "/" + name))
            << name;

    // Then without them, until the index knows every database; then with them again.
    remove(unsaveable);
    full_backup();
    full_backup();
    EXPECT_EQ(read_file(m_store + "/runtime/owed.jsonl"), "");
    add_unsaveable();
    for (const std::string& name : good_names)
        ASSERT_EQ(on_server("compact", name), 0) << name;
    Outcome changed = backup({"--level", "incr"});
    ASSERT_EQ(changed.exit_code, 3) << changed.errors;
    expect_printable(changed);
    const std::string increment = json::parse(changed.output)["set"];
    std::vector<std::string> saved = databases(increment);
    // Those that the index cannot hold come first.
    const std::vector<std::string> first_saved =
        databases(json::parse(changed.output)["owed"]["set"]);
    saved.insert(saved.end(), first_saved.begin(), first_saved.end());
    for (const std::string& name : good_names)
        EXPECT_THAT(saved, testing::Contains(name));
}

} // namespace
} // namespace qrtln

#endif
