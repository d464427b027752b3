// Where the values of options come from, and what a run tells.
#include "tests/client/simulated_server.h"

#include <sys/stat.h>

namespace qrtln::test {
namespace {

class Settings : public OverTheSimulator {
  protected:
    void configure(const std::string& text) const {
        write_file(m_file, text);
        ::chmod(m_file.c_str(), 0600);
    }
    // What --show-config says of an option: its value and where that comes from.
    std::pair<std::string, std::string> shown(const std::string& option, Words words,
                                              Environment environment = {}) const {
        environment.insert({"QRTLN_CONFIG", m_file});
        words.insert(words.end(), {"--show-config", "--json"});
        const json document = run_client(words, environment).document();
        for (const json& one : document.value("options", json::array()))
            if (one["option"] == option)
                return {one.value("value", ""), one["origin"]};
        return {};
    }
    const std::string m_file = m_scratch / "config.toml";
};

TEST_F(Settings, AFlagCountsBeforeTheEnvironmentThatBeforeAProfileThatBeforeTheRest) {
    configure("store = '/top'\n[verify]\nstore = '/top verify'\n[list]\nquiet = true\n"
              "[profile.a]\nstore = '/a'\n[profile.a.verify]\nstore = '/a verify'\n"
              "[profile.b.backup]\nexclude = ['x', 'y z']\nauto-full = true\n");
    using Shown = std::pair<std::string, std::string>;
    const std::tuple<const char*, Words, Environment, Shown> cases[] = {
        {"store", {"list"}, {}, {"/top", m_file + ":1"}},
        {"store", {"verify"}, {}, {"/top verify", m_file + ":3 [verify]"}},
        {"store", {"list", "--profile", "a"}, {}, {"/a", m_file + ":7 [profile.a]"}},
        {"store",
         {"verify"},
         {{"QRTLN_PROFILE", "a"}},
         {"/a verify", m_file + ":9 [profile.a.verify]"}},
        {"store", {"verify", "--profile=a"}, {{"QRTLN_STORE", "/env"}}, {"/env", "QRTLN_STORE"}},
        {"store",
         {"verify", "--store", "/flag", "--profile=a"},
         {{"QRTLN_STORE", "/env"}},
         {"/flag", "command line"}},
        {"quiet", {"list"}, {}, {"true", m_file + ":5 [list]"}},
        {"quiet", {"list"}, {{"QRTLN_QUIET", "off"}}, {"false", "QRTLN_QUIET"}},
        {"progress", {"list"}, {}, {"auto", "default"}},
        {"exclude",
         {"backup", "--notes-ini", "x", "--profile", "b"},
         {},
         {"x, y z", m_file + ":11 [profile.b.backup]"}},
    };
    for (const auto& [option, words, environment, expected] : cases)
        EXPECT_EQ(shown(option, words, environment), expected) << testing::PrintToString(words);
}

TEST_F(Settings, AConfigurationWithAnErrorIsNotUsedAndTheErrorNamesItsLine) {
    const std::tuple<const char*, Words, int, const char*> cases[] = {
        {"store = ", {}, 2, "config.toml:1: "},
        {"\nstroe = '/x'", {}, 2, "config.toml:2: there is no option 'stroe'"},
        {"[backup]\npattern = 1", {}, 2, "there is no option 'pattern' of backup"},
        {"quiet = 'yes'", {}, 2, "quiet is a flag: write true or false"},
        {"store = 1979-05-27", {}, 2, "store takes a text, a number or a list of them"},
        {"profile = 'a'", {}, 2, "write [profile.NAME]"},
        {"[profile.mail01]\nstore = 1", {"--profile", "mail02"}, 2, "hint: there are: mail01"},
        {"default-profile = 'x'", {}, 2, "there is no profile 'x'"},
    };
    for (const auto& [text, more, code, says] : cases) {
        configure(text);
        Words words = {"list", "--store", m_store, "--json", "--config", m_file};
        words.insert(words.end(), more.begin(), more.end());
        const Outcome outcome = run_client(words);
        EXPECT_EQ(outcome.exit_code, code) << text << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(says)) << text;
        EXPECT_EQ(outcome.document()["message_type"], "exit_error");
    }
    configure("store = '/x'");
    ::chmod(m_file.c_str(), 0620);
    EXPECT_EQ(run_client({"list", "--config", m_file}).exit_code, 12);
    EXPECT_EQ(run_client({"list", "--config", m_file + ".none"}).exit_code, 1);
}

TEST_F(Settings, ARunTellsWhatWasAskedFor) {
    configure("notes-ini = '" + m_server + "/notes.ini'\nstore = '" + m_store + "'\ntmp-dir = '" +
              m_tmp + "'\n");
    const Words backup = {"backup", "--config", m_file, "--level", "copy"};
    auto with = [&](Words more) {
        more.insert(more.begin(), backup.begin(), backup.end());
        return more;
    };
    Outcome outcome = run_client(with({"--quiet"}));
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, testing::MatchesRegex("warning: Notes_ExecDirectory [^\n]*\n"));
    outcome = run_client(with({"--progress", "always", "--json"}));
    EXPECT_THAT(outcome.errors, HasSubstr("\x1b[K"));
    // Asked for by a signal, while the module is held up.
    const std::string asks =
        "prepare:*user1.nsf) kill -USR1 $(cut -d \" \" -f 4 /proc/$PPID/stat); sleep 0.4";
    outcome = run_client(with({"--progress", "never"}), hook(asks));
    EXPECT_EQ(outcome.exit_code, 0) << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("\ndatabase "));
    // Into the journal, with priorities.
    struct stat status {};
    write_file(m_scratch / "journal", "");
    ASSERT_EQ(::stat((m_scratch / "journal").c_str(), &status), 0);
    const std::string command =
        fmt::format("JOURNAL_STREAM={}:{} exec {} list --store /none 2>{} >&2", status.st_dev,
                    status.st_ino, QRTLN_EXECUTABLE, m_scratch / "journal");
    EXPECT_EQ(Program({"/bin/sh", "-c", command}, {{"QRTLN_CONFIG", "/dev/null"}}).wait().exit_code,
              10);
    EXPECT_THAT(read_file(m_scratch / "journal"),
                testing::MatchesRegex("<3>qrtln: [^\n]*\n<3>  hint: [^\n]*\n"));
}

} // namespace
} // namespace qrtln::test
