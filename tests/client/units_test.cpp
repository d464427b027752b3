// What the client reads from people, servers and systems, where no command shows it.
#include "client/module_environment.h"
#include "client/notes_ini.h"
#include "client/text.h"

#include <gmock/gmock.h>

namespace qrtln {
namespace {

TEST(NotesIni, NamesIgnoreCaseAndTheLastValueCounts) {
    auto variables = parse_notes_ini("\xEF\xBB\xBF[Notes] =x\r\nDirectory=/other\r\n"
                                     "no equals sign\n DIRECTORY\t= /local/data \r\nA=b=c\n"
                                     "Empty=\nLast=1");
    EXPECT_EQ(variables["directory"], "/local/data");
    EXPECT_EQ(variables["a"], "b=c");
    EXPECT_EQ(variables["empty"], "");
    EXPECT_EQ(variables["last"], "1");
    EXPECT_EQ(variables.size(), 4U);
}

TEST(Text, BytesOfAnyEncodingBecomePrintable) {
    const struct {
        const char* bytes;
        const char* printable;
        const char* terminal;
    } cases[] = {
        {"gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F"},
        {"a\nb", "a\nb", "a\\x0ab"},
        {"\x1b[2J", "\x1b[2J", "\\x1b[2J"},
        {"\xC2\x9B", "\xC2\x9B", "\\xc2\\x9b"},
        {"gr\xFC", "gr\\xfc", "gr\\xfc"},
        {"\x7F\xE2\x80\xAE", "\x7F\xE2\x80\xAE", "\\x7f\\xe2\\x80\\xae"},
        {"\xC0\x80", "\\xc0\\x80", "\\xc0\\x80"},
        {"\xED\xA0\x80", "\\xed\\xa0\\x80", "\\xed\\xa0\\x80"},
    };
    for (const auto& [bytes, printable, terminal] : cases) {
        EXPECT_EQ(printable_utf8(bytes), printable);
        EXPECT_EQ(for_terminal(bytes), terminal);
    }
    EXPECT_EQ(json_for_terminal("{\n\"\xC2\x9B\x7F\xE2\x80\xAE\": \"\xF0\x9F\x93\xA7 \xC3\xBC\"}"),
              "{\n\"\\u009b\\u007f\\u202e\": \"\xF0\x9F\x93\xA7 \xC3\xBC\"}");
}

TEST(ModuleEnvironment, TheVeryFileOrSymbolThatIsMissingIsNamed) {
    NotesIni ini;
    ini.program_directory = "/";
    const std::string no_file = ": cannot open shared object file: No such file or directory";
    for (const auto& [text, hint] :
         {std::pair<std::string, const char*>{"cannot load the Notes C API: libx.so.1" + no_file,
                                              "libx.so.1 is missing in /"},
          {"cannot load the Notes C API: libnotes.so" + no_file, "there is no libnotes.so in /"},
          {"/p/libnotes.so: undefined symbol: OSNone",
           "no library has OSNone, which /p/libnotes.so wants"},
          {"the Notes C API that was loaded lacks 2 of the functions needed, the first is A",
           "has no A"}})
        EXPECT_THAT(loader_hint(text, ini), testing::HasSubstr(hint)) << text;
    EXPECT_EQ(loader_hint("Access to data denied.", ini), "");
}

} // namespace
} // namespace qrtln
