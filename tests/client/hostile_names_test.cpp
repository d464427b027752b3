// A server whose data directory holds every hostile name and kind of file at once: what can be
// saved is saved and comes back equal, what cannot is named with its reason, nothing hangs.
#include "client/text.h"
#include "tests/client/simulated_server.h"

#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>

namespace qrtln::test {
namespace {

using testing::HasSubstr;

class HostileNames : public OverTheSimulator {
  protected:
    HostileNames() {
        fs::create_directories(m_data + "/q");
        for (const char* name :
             {"%n%s%x%1$s", "new\nline\r", "=a=b;c#d", "[DBIID]", "\x1b[31m\x07\x7f",
              "\xC2\x9B\xE2\x80\xAEltr", " blanks ", "back\\slash*?[x]", "-o chgd deld \"quoted\"",
              "$(reboot)`'&;", "caf\xC3\xA9 \xE4\xB8\xAD", "%2Fmail",
              "Archive ID 01234567, Log number 1, log path [x]", "[odd] %s*/below", "p/linked"})
            m_names.push_back(name + std::string(".nsf"));
        m_names.push_back("CAPS.NSF");
        m_names.push_back(std::string(251, 'n') + ".nsf");
        m_names.push_back(std::string(200, 'd') + "/" + std::string(200, 'e') + "/deep.nsf");
        for (const std::string& name : m_names)
            EXPECT_EQ(domino_with("create", name, "--notes 3"), 0) << name;
        // Folders that link to each other, and links that never end.
        fs::create_directory_symlink(m_data + "/q", m_data + "/p/q");
        fs::create_directory_symlink(m_data + "/p", m_data + "/q/p");
        fs::create_directory_symlink(".", m_data + "/loop");
        fs::create_directory_symlink("/", m_data + "/q/root");
        fs::create_symlink("endless", m_data + "/endless");
    }
    int domino_with(const std::string& command, const std::string& name,
                    const std::string& options = {}) const {
        std::string quoted;
        for (char character : name)
            quoted += character == '\'' ? "'\\''" : std::string(1, character);
        return domino(command + " " + options + " " + m_server + " -- '" + quoted + "'");
    }
    // What cannot be saved: its path, and a part of the reason.
    std::map<std::string, std::string> add_unsaveable() {
        const auto at = [this](const std::string& name) { return m_data + "/" + name; };
        write_file(at("empty.nsf"), "");
        write_file(at("garbage.nsf"), "no database");
        write_file(at(".hidden.nsf"), "x");
        fs::copy_file(at("names.nsf"), at("gr\xFC\xFE.nsf"));
        EXPECT_EQ(::mkfifo(at("fifo.nsf").c_str(), 0600), 0);
        EXPECT_EQ(::mkfifo(at("fifo.id").c_str(), 0600), 0);
        fs::create_symlink("/dev/zero", at("zero.id"));
        fs::create_symlink("gone", at("dangling.nsf"));
        fs::create_symlink("self.nsf", at("self.nsf"));
        // A tree that ends beyond every path of the module and of the system. Wherever the test
        // lies, the last folder that can be saved has room for the folder that it is restored to.
        const std::string step = "/" + std::string(250, 'f');
        std::string deep = at("depths/");
        deep += std::string(260 - deep.size(), 'f');
        for (int level = 0; level < 4; ++level)
            deep += step;
        write_file(deep + "/far.nsf", "");
        std::string beyond = deep;
        int folder = ::open(deep.c_str(), O_RDONLY | O_DIRECTORY);
        for (int level = 0; level < 15; ++level) {
            if (beyond.size() <= PATH_MAX)
                beyond += step;
            EXPECT_EQ(::mkdirat(folder, step.c_str() + 1, 0700), 0);
            const int below = ::openat(folder, step.c_str() + 1, O_RDONLY | O_DIRECTORY);
            ::close(folder);
            folder = below;
        }
        ::close(::openat(folder, "far.nsf", O_WRONLY | O_CREAT, 0600));
        ::close(folder);
        return {
            {at("empty.nsf"), "not a database"},
            {at("garbage.nsf"), "not a database"},
            {at(".hidden.nsf"), "begins with a dot"},
            {at("gr\xFC\xFE.nsf"), "not UTF-8"},
            {at("fifo.nsf"), "a FIFO"},
            {at("fifo.id"), "a FIFO"},
            {at("zero.id"), "a character device"},
            {at("dangling.nsf"), "it is gone"},
            {at("self.nsf"), "Too many levels"},
            {deep + "/far.nsf", "longer than the module takes"},
            {beyond, "File name too long"},
        };
    }
    void remove(const std::map<std::string, std::string>& files) const {
        fs::remove_all(m_data + "/depths");
        for (const auto& [path, reason] : files)
            if (path.size() < PATH_MAX)
                fs::remove(path);
    }
    static void expect_printable(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            EXPECT_EQ(for_terminal(line), line);
    }

    Words m_names; // of databases that can be saved
};

TEST_F(HostileNames, AllAtOnceAreSavedAndRestoredOrNamed) {
    const std::map<std::string, std::string> unsaveable = add_unsaveable();
    const json first = backup(3);
    expect_printable(m_errors);
    const std::string set = first["set"];
    Words told;
    for (const json& failed : first["failed"])
        told.push_back(failed["path"].get<std::string>());
    EXPECT_EQ(told.size(), unsaveable.size());
    for (const auto& [path, reason] : unsaveable) {
        EXPECT_THAT(m_errors, HasSubstr("failed: " + for_terminal(path) + ": "));
        EXPECT_THAT(told, testing::Contains(printable_utf8(path)));
        const ManifestItem failed = item(set, path);
        EXPECT_THAT(failed.reason, HasSubstr(reason));
        for (const std::string& warning : failed.warnings)
            EXPECT_EQ(warning.find("it is stored"), std::string::npos) << path;
    }
    for (const Words& command : {Words{"list"}, {"show", "latest"}, {"verify"}})
        for (bool as_json : {false, true}) {
            Words words = command;
            if (as_json)
                words.emplace_back("--json");
            const Outcome outcome = on_store(words);
            EXPECT_EQ(outcome.exit_code, 0) << words[0] << outcome.errors;
            expect_printable(outcome.output + outcome.errors);
            EXPECT_EQ(json::accept(outcome.output), as_json);
        }
    run(0, {"restore", "--all", "--set", set, "--to", m_scratch / "to"});
    for (const std::string& name : m_names)
        EXPECT_EQ(read_file(m_scratch / "to" + m_data + "/" + name), read_file(m_data + "/" + name))
            << name;

    // Then without them, until the index knows every database; then with them again.
    remove(unsaveable);
    backup(0);
    backup(0);
    EXPECT_EQ(owed(), "");
    add_unsaveable();
    for (const std::string& name : m_names)
        ASSERT_EQ(domino_with("compact", name), 0) << name;
    const json changed = backup(3, "incr");
    expect_printable(m_errors);
    Words saved = databases(changed["set"]);
    // Those that the index cannot hold come first.
    for (const std::string& name : databases(changed["owed"]["set"]))
        saved.push_back(name);
    for (const std::string& name : m_names)
        EXPECT_THAT(saved, testing::Contains(name));
}

} // namespace
} // namespace qrtln::test
