// The runtime: its start and its texts.
#include "support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>

namespace simulator_tests {
namespace {

/// Starts the runtime with a notes.ini, or with none.
STATUS startWith(const std::string& ini = "") {
    std::string program = "test";
    std::string argument = "=" + ini;
    char* argv[] = {program.data(), argument.data(), nullptr};
    return NotesInitExtended(ini.empty() ? 1 : 2, argv);
}

TEST(NotesInit, TellsWhyAServerCannotBeUsed) {
    const TestServer server;
    const std::string missing = (server.folder / "missing.ini").string();
    EXPECT_EQ(startWith(missing), 499);
    for (const std::string& directory : {std::string("/nowhere"), server.data("mail").string()}) {
        const std::string ini = server.folder.write("other.ini", "Directory=" + directory + "\n");
        EXPECT_EQ(startWith(ini), 499) << directory;
    }
    ::chmod((server.root() + "/notes.ini").c_str(), 0);
    EXPECT_EQ(startWith(server.root() + "/notes.ini"), 272);
    ::chmod((server.root() + "/notes.ini").c_str(), 0644);
    EXPECT_EQ(startWith(server.root() + "/notes.ini"), 0);
}

TEST(Runtime, KnowsItsDirectoriesAndTextsOnlyWhileItIsUp) {
    const TestServer server;
    char buffer[1028] = {};
    EXPECT_EQ(OSGetDataDirectory(buffer), server.root().size() + 5);
    EXPECT_EQ(buffer, server.root() + "/data");
    EXPECT_EQ(OSGetEnvironmentString("notesprogram", buffer, sizeof buffer), 1);
    EXPECT_EQ(buffer, server.root() + "/program");
    EXPECT_EQ(OSGetEnvironmentString("NotesProgram", buffer, 5), 0);
    EXPECT_EQ(OSGetEnvironmentString("NoSuchVariable", buffer, sizeof buffer), 0);
    char small[6] = "-----";
    EXPECT_EQ(OSLoadString(0, 259, small, sizeof small), 5);
    EXPECT_STREQ(small, "File ");
    NotesTerm();
    EXPECT_EQ(OSGetDataDirectory(buffer), 0);
    DBHANDLE db = 0;
    EXPECT_NE(NSFDbOpen("names.nsf", &db), 0);
}

std::string translated(WORD mode, const std::string& in, WORD limit, WORD inLength = 0xFFFF) {
    std::string out(limit + 1U, '#');
    const WORD length = OSTranslate(mode, in.c_str(), inLength, out.data(), limit);
    EXPECT_EQ(out[limit], '#') << "written past the limit";
    if (inLength == 0xFFFF && limit > 0) {
        EXPECT_EQ(out[length], '\0');
    }
    return out.substr(0, length);
}

TEST(Translate, RoundTripsTextAndCutsItAtTheLimitButNeverInsideACharacter) {
    for (const char* text :
         {"", "/a b/c.nsf", "caf\xC3\xA9", "\xE4\xB8\xAD\xE6\x96\x87", "\xD0\x9F\xD0\xBE\xD1\x87",
          "\xF0\x9F\x93\xA7 mail", "\xE2\x82\xAC", "tab\tnewline\n", "\xE4\xB8\x80"}) {
        const std::string lmbcs = translated(0, text, 1028);
        EXPECT_EQ(translated(1, lmbcs, 1028), text);
        EXPECT_EQ(translated(22, lmbcs, 1028), text);
    }
    const std::string text = "ab\xE4\xB8\xAD\xE4\xB8\xAD";
    for (WORD limit = 1; limit < 20; ++limit) {
        const std::string lmbcs = translated(0, text, limit);
        EXPECT_LT(lmbcs.size(), limit) << "room for the NUL";
        const std::string back = translated(22, lmbcs, 100);
        EXPECT_EQ(text.compare(0, back.size(), back), 0) << limit;
    }
    const std::string lmbcs = translated(0, text, 100);
    EXPECT_EQ(translated(22, lmbcs, 6), "ab\xE4\xB8\xAD");
    EXPECT_EQ(translated(22, lmbcs, 5), "ab");
    EXPECT_EQ(translated(0, "0123456789", 4, 10), "0123") << "no NUL after a counted text";
    EXPECT_EQ(translated(0, "0123456789", 100, 4), "0123");
    EXPECT_EQ(translated(0, "bad\xFF\xFE", 100), "bad??");
}

TEST(Translate, TakesNativeTextInTheCharacterSetOfTheLocale) {
    ::setenv("LC_ALL", "de_DE.ISO-8859-1", 1);
    const std::string lmbcs = translated(0, "caf\xE9", 100);
    EXPECT_EQ(translated(22, lmbcs, 100), "caf\xC3\xA9");
    EXPECT_EQ(translated(1, lmbcs, 100), "caf\xE9");
    ::setenv("LC_ALL", "C", 1);
    EXPECT_EQ(translated(1, lmbcs, 100), "caf\xC3\xA9") << "UTF-8 where the locale names no set";
    ::unsetenv("LC_ALL");
}

} // namespace
} // namespace simulator_tests
