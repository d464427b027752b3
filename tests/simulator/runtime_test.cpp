// The runtime: its start, texts, times and memory.
#include "support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

namespace fs = std::filesystem;

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

TEST(NotesInit, FindsNotesIniInTheCurrentDirectoryThenInPath) {
    const TestServer server;
    NotesTerm();
    const fs::path before = fs::current_path();
    const std::string path = std::getenv("PATH");
    fs::current_path(server.folder.path());
    EXPECT_EQ(startWith(), 499);
    ::setenv("PATH", ("/usr/bin:" + server.data(".").string()).c_str(), 1);
    EXPECT_EQ(startWith(), 0);
    ::setenv("PATH", path.c_str(), 1);
    fs::current_path(server.root());
    EXPECT_EQ(startWith(), 0);
    fs::current_path(before);
}

TEST(Runtime, KnowsItsDirectoriesOnlyWhileItIsUp) {
    const TestServer server;
    char buffer[1028] = {};
    EXPECT_EQ(OSGetDataDirectory(buffer), server.root().size() + 5);
    EXPECT_EQ(buffer, server.root() + "/data");
    EXPECT_EQ(OSGetEnvironmentString("notesprogram", buffer, sizeof buffer), 1);
    EXPECT_EQ(buffer, server.root() + "/program");
    EXPECT_EQ(OSGetEnvironmentString("NotesProgram", buffer, 5), 0);
    EXPECT_EQ(OSGetEnvironmentString("NoSuchVariable", buffer, sizeof buffer), 0);
    NotesTerm();
    EXPECT_EQ(OSGetDataDirectory(buffer), 0);
    DBHANDLE db = 0;
    EXPECT_NE(NSFDbOpen("names.nsf", &db), 0);
}

TEST(LoadString, HasATextForEveryStatusAndCutsIt) {
    char generic[200] = {};
    ASSERT_GT(OSLoadString(0, 12345, generic, sizeof generic), 0);
    EXPECT_NE(std::strstr(generic, "12345"), nullptr);
    for (const STATUS status : {259, 272, 499, 513, 572, 3748, 3758, 5086, 5098, 5114, 5119, 0x3F01,
                                0x3F06, 0x3F11, 0x3F12, 0x3F13, 0x3F14, 0x3F15}) {
        char text[200] = {};
        const WORD length = OSLoadString(0, status, text, sizeof text);
        EXPECT_GT(length, 0);
        EXPECT_EQ(length, std::strlen(text));
        EXPECT_EQ(std::strstr(text, "no text"), nullptr) << status;
    }
    char small[6] = "-----";
    EXPECT_EQ(OSLoadString(0, 259, small, sizeof small), 5);
    EXPECT_STREQ(small, "File ");
    EXPECT_EQ(OSLoadString(0, 259, small, 0), 0);
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
}

TEST(Translate, SurvivesWhatDoesNotConvert) {
    EXPECT_EQ(translated(0, "bad\xFF\xFE", 100), "bad??");
    EXPECT_EQ(translated(0, "cut\xE4\xB8", 100).substr(0, 4), "cut?");
    for (int lead = 1; lead < 256; ++lead) {
        const std::string text = {'a', static_cast<char>(lead), '\x80', static_cast<char>(lead)};
        for (const WORD mode : {0, 1, 22}) {
            translated(mode, text, mode == 22 ? 3 : 20);
        }
    }
    char out[4] = "abc";
    EXPECT_EQ(OSTranslate(7, "x", 1, out, 4), 0);
    EXPECT_EQ(OSTranslate(0, nullptr, 0xFFFF, out, 4), 0);
    EXPECT_EQ(OSTranslate(0, "x", 0xFFFF, nullptr, 4), 0);
    EXPECT_EQ(OSTranslate(0, "x", 0xFFFF, out, 0), 0);
    EXPECT_STREQ(out, "abc");
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

class Times : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        ::tzset();
        OSGetIntlSettings(&intl, sizeof intl);
    }
    void TearDown() override {
        ::unsetenv("TZ");
        ::tzset();
    }

    /// The characters read, or -1.
    static int parse(const void* settings, const std::string& text, TIMEDATE* time) {
        std::string copy = text;
        char* at = copy.data();
        if (ConvertTextToTIMEDATE(settings, nullptr, &at, static_cast<WORD>(copy.size()), time) !=
            0) {
            EXPECT_EQ(at, copy.data());
            return -1;
        }
        return static_cast<int>(at - copy.data());
    }

    static std::string format(const void* settings, const TIMEDATE& time) {
        char buffer[80] = {};
        WORD length = 0;
        EXPECT_EQ(ConvertTIMEDATEToText(settings, nullptr, &time, buffer, 80, &length), 0);
        return {buffer, length};
    }

    INTLFORMAT intl = {};
};

TEST_F(Times, AreReadAndWrittenInTheOrderOfTheFlags) {
    struct {
        WORD flags;
        const char* separator;
        const char* text;
    } const cases[] = {{0x0020, "/", "03/05/2024 14:07:09"},
                       {0x0040, ".", "05.03.2024 14:07:09"},
                       {0x0080, "-", "2024-03-05 14:07:09"}};
    for (const auto& one : cases) {
        intl.Flags = one.flags;
        std::strcpy(intl.DateString, one.separator);
        TIMEDATE time = {};
        EXPECT_EQ(parse(&intl, one.text, &time), 19) << one.text;
        // 13:07:09 GMT; 5 March 2024 has the Julian day number 2460375.
        EXPECT_EQ(time.Innards[0], ((13U * 60 + 7) * 60 + 9) * 100);
        EXPECT_EQ(time.Innards[1] & 0xFFFFFF, 2460375U);
        EXPECT_EQ(format(&intl, time), one.text);
    }
}

TEST_F(Times, WithoutSettingsAreMonthDayYear) {
    TIMEDATE time = {};
    EXPECT_EQ(parse(nullptr, "01/15/2024 10:30", &time), 16);
    EXPECT_EQ(format(nullptr, time), "01/15/2024 10:30:00");
    EXPECT_EQ(parse(nullptr, "07/15/2024 10:30", &time), 16) << "summer time";
    EXPECT_EQ(time.Innards[0], (8U * 60 + 30) * 60 * 100);
    EXPECT_EQ(parse(nullptr, " 1/5/2024   9:05 pm  rest", &time), 21);
    EXPECT_EQ(format(nullptr, time), "01/05/2024 21:05:00");
    EXPECT_EQ(parse(nullptr, "02/29/2024", &time), 10);
    EXPECT_EQ(format(nullptr, time), "02/29/2024 00:00:00");
}

TEST_F(Times, ThatDoNotExistAreRefused) {
    TIMEDATE time = {{7, 7}};
    for (const char* text :
         {"", "x", "13/01/2024", "02/30/2024", "02/29/2023", "00/10/2024", "01/00/2024", "01/01",
          "01.01.2024", "01/01/2024 24:00", "01/01/2024 10:60", "01/01/2024 10:10:60",
          "01/01/2024 10", "01/01/2024 13:00 PM"}) {
        EXPECT_EQ(parse(nullptr, text, &time), -1) << text;
    }
    EXPECT_EQ(time.Innards[0], 7U);
}

TEST_F(Times, TextThatDoesNotFitIsAnError) {
    const TIMEDATE time = {{0, 2460375}};
    char buffer[20] = "#";
    WORD length = 9;
    EXPECT_NE(ConvertTIMEDATEToText(nullptr, nullptr, &time, buffer, 18, &length), 0);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(ConvertTIMEDATEToText(nullptr, nullptr, &time, buffer, 19, &length), 0);
    EXPECT_EQ(length, 19);
}

} // namespace
} // namespace simulator_tests
