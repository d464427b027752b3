// A server whose data directory holds every hostile name and kind of file at once: what can be
// saved is saved and comes back equal, what cannot is named with its reason, nothing hangs.
#include "client/base/file_descriptor.h"
#include "client/base/text.h"
#include "client/sets/manifest.h"
#include "tests/client/simulated_server.h"

#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>

namespace qrtln::test {
namespace {

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
            domino_with("create --notes 3", name);
        // Folders that link to each other, and links that never end.
        fs::create_directory_symlink(m_data + "/q", m_data + "/p/q");
        fs::create_directory_symlink(m_data + "/p", m_data + "/q/p");
        fs::create_directory_symlink(".", m_data + "/loop");
        fs::create_directory_symlink("/", m_data + "/q/root");
        fs::create_symlink("endless", m_data + "/endless");
    }
    void domino_with(const std::string& command, const std::string& name) const {
        std::string quoted;
        for (char character : name)
            quoted += character == '\'' ? "'\\''" : std::string(1, character);
        domino(command, "-- '" + quoted + "'");
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
        FileDescriptor folder(::open(deep.c_str(), O_RDONLY | O_DIRECTORY));
        for (int level = 0; level < 15; ++level) {
            if (beyond.size() <= PATH_MAX)
                beyond += step;
            EXPECT_EQ(::mkdirat(folder.get(), step.c_str() + 1, 0700), 0);
            folder = FileDescriptor(::openat(folder.get(), step.c_str() + 1, O_RDONLY));
        }
        FileDescriptor(::openat(folder.get(), "far.nsf", O_WRONLY | O_CREAT, 0600));
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
    static void expect_printable(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            EXPECT_EQ(for_terminal(line), line);
    }

    Words m_names; // of databases that can be saved
};

TEST_F(HostileNames, AllAtOnceAreSavedAndRestoredOrNamed) {
    backup(0);
    backup(0); // the index knows every database that it can hold
    for (const std::string& name : m_names)
        domino_with("compact", name);
    const json changed = backup(0, "incr");
    expect_printable(m_errors);
    Words saved = databases(changed["set"]);
    for (const std::string& name : databases(changed["owed"]["set"])) // those that it cannot hold
        saved.push_back(name);
    for (const std::string& name : m_names)
        EXPECT_THAT(saved, Contains(name));

    const std::map<std::string, std::string> unsaveable = add_unsaveable();
    const json all = backup(3);
    expect_printable(m_errors);
    const std::string set = all["set"];
    EXPECT_THAT(all["failed"], SizeIs(unsaveable.size()));
    for (const auto& [path, reason] : unsaveable) {
        EXPECT_THAT(m_errors, HasSubstr("failed: " + for_terminal(path) + ": "));
        EXPECT_THAT(all["failed"].dump(), HasSubstr(json(printable_utf8(path)).dump()));
        const ManifestItem failed = item(set, path);
        EXPECT_THAT(failed.reason, HasSubstr(reason));
        for (const std::string& warning : failed.warnings)
            EXPECT_EQ(warning.find("it is stored"), std::string::npos) << path;
    }
    for (Words words : {Words{"list"}, {"show", "latest"}, {"verify"}})
        for (bool as_json : {false, true}) {
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
}

} // namespace
} // namespace qrtln::test
