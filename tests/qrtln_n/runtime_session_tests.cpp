// Start and end of the runtime, and the loading of its library.
#include "qrt_lotus_notes/qrtln_n/runtime_session.h"

#include <cstdlib>
#include <dlfcn.h>
#include <optional>

#include <gmock/gmock.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// Sets or (with no value) removes an environment variable for its lifetime.
class EnvironmentVariable {
  public:
    EnvironmentVariable(const char* name, const char* value) : m_name(name) {
        if (const char* former = std::getenv(name)) {
            m_former = former;
        }
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~EnvironmentVariable() { m_former ? setenv(m_name, m_former->c_str(), 1) : unsetenv(m_name); }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  private:
    const char* m_name;
    std::optional<std::string> m_former;
};

// What the help says in the environment of HelpEnvironment.
constexpr char kHelp[] = R"help(
Ensure that the following environment variables are set and exported:
* LANG environment variable is correctly set to your proper locale, e.g. "C"
  LANG="C.UTF-8"
* LOTUS is set to your lotus directory, e.g. "/opt/lotus"
  LOTUS="(null)"
* Notes_ExecDirectory is set to specify the Notes executable directory, e.g. "/opt/lotus/notes/latest/linux"
  Notes_ExecDirectory="/no/such/%s/directory"
* PATH is set to include the following directories:
  ** Notes Resource directory, e.g. "$LOTUS/notes/latest/linux/res[/$LANG]"
  ** Lotus executable directory: $Notes_ExecDirectory
  ** Notes data directory (locates notes.ini file), e.g. "/home/notes/notesdata"
  PATH="/bin"
* LD_LIBRARY_PATH is set to include the following directory: $Notes_ExecDirectory and other product library directories
  LD_LIBRARY_PATH=""
)help";

struct HelpEnvironment {
    EnvironmentVariable lang{"LANG", "C.UTF-8"};
    EnvironmentVariable lotus{"LOTUS", nullptr};
    EnvironmentVariable directory{"Notes_ExecDirectory", "/no/such/%s/directory"};
    EnvironmentVariable path{"PATH", "/bin"};
    EnvironmentVariable libraries{"LD_LIBRARY_PATH", ""};
};

class RuntimeSessionTest : public NotesFloorTest {
  protected:
    RuntimeSessionTest() { g_sQRTLN_Global.bNotesInitialized = FALSE; }
};

TEST_F(RuntimeSessionTest, WithoutANotesIniTheRuntimeGetsTheProgramNameAlone) {
    script.play({{"NotesInitExtended 1 qrtln"}, {"NotesTerm"}});
    EXPECT_EQ(startNotesOperation(), 3000);
    EXPECT_TRUE(g_sQRTLN_Global.bNotesInitialized);
    EXPECT_TRUE(messages.hasTrace("Call NotesInitExtended( 1, qrtln )"));
    EXPECT_TRUE(messages.logs().empty());

    EXPECT_EQ(terminateNotesOperation(), 3000);
    EXPECT_FALSE(g_sQRTLN_Global.bNotesInitialized);
    EXPECT_THAT(messages.logs(), ElementsAre("Call NotesTerm()"));
    EXPECT_EQ(takeErrorText(), "");

    EXPECT_EQ(terminateNotesOperation(), 1000);
    EXPECT_EQ(takeErrorText(), "The Notes runtime system is not initialized!");
    EXPECT_TRUE(messages.hasLog("Skip NotesTerm()"));
}

TEST_F(RuntimeSessionTest, AFailedStartExplainsItselfToTheClientAndOnStandardError) {
    const struct {
        STATUS status;
        const char* text;
    } rows[] = {
        {272, "Notes API NotesInitExtended() failed: (STATUS 0X110) Access to data denied."},
        {499, "Notes API NotesInitExtended() failed: (STATUS 0X1F3) Invalid directory name or "
              "device not ready."},
        {259, "Notes API NotesInitExtended() failed: (STATUS 0X103) !"},
        {0x8103, "Notes API NotesInitExtended() failed: (STATUS 0X8103) !"},
    };
    const HelpEnvironment environment;
    for (const auto& row : rows) {
        script.play({{"NotesInitExtended 1 qrtln", {.status = row.status}}});
        testing::internal::CaptureStderr();
        EXPECT_EQ(startNotesOperation(), 1000);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), kHelp);
        EXPECT_EQ(takeErrorText(), row.text);
        EXPECT_FALSE(g_sQRTLN_Global.bNotesInitialized);
    }
}

TEST_F(RuntimeSessionTest, TheDirectoriesComeFromTheRuntimeAndItsNotesIni) {
    g_sQRTLN_Global.bNotesInitialized = TRUE;
    char data[kPathSize] = "";
    char program[kPathSize] = "";
    const Step dataDirectory = {"OSGetDataDirectory", {.text = "/local/data"}};
    script.play(
        {dataDirectory, {"OSGetEnvironmentString NotesProgram 1028", {.text = "/opt/bin"}}});
    EXPECT_EQ(getNotesDirectories(data, program, sizeof program), 3000);
    EXPECT_EQ(takeErrorText(), "");
    EXPECT_STREQ(data, "/local/data");
    EXPECT_STREQ(program, "/opt/bin");
    // Either failure is reported in the same words.
    script.play(
        {{"OSGetDataDirectory"}, dataDirectory, {"OSGetEnvironmentString NotesProgram 1028"}});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(getNotesDirectories(data, program, sizeof program), 1000);
        EXPECT_EQ(takeErrorText(), "Notes API OSGetDataDirectory() failure");
    }
}

TEST_F(RuntimeSessionTest, AStatusIsLookedUpWithoutItsFlags) {
    EXPECT_STREQ(getLotusNotesApiError(0xC000 | 259, FALSE), "Notes text 259");
    EXPECT_TRUE(messages.hasTrace("Got Notes error: Notes text 259 (259)"));
    EXPECT_TRUE(messages.logs().empty());

    // A "%" of the server's text is not a format.
    notes_api.OSLoadString = [](HMODULE, STATUS, char* text, WORD size) -> WORD {
        return static_cast<WORD>(std::snprintf(text, size, "%s", "100%s of %n"));
    };
    EXPECT_STREQ(getLotusNotesApiError(1, TRUE), "100%s of %n");
    EXPECT_THAT(messages.logs(), ElementsAre("100%s of %n"));
}

TEST_F(RuntimeSessionTest, NamesForMessagesAreConvertedAndCutAtTheirLimit) {
    g_sQRTLN_Global.bNotesInitialized = TRUE;
    EXPECT_STREQ(getUTF8FileName("/a/b.nsf"), "U:L:/a/b.nsf");
    EXPECT_EQ(std::strlen(getUTF8FileName(std::string(300, 'x').c_str())), 256u);
    EXPECT_EQ(std::strlen(getUTF8FileName("")), 4u);

    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_STREQ(getUTF8FileName("/a/b.nsf"), "/a/b.nsf");
    EXPECT_EQ(std::strlen(getUTF8FileName(std::string(300, 'x').c_str())), 256u);
}

TEST_F(RuntimeSessionTest, ATranslatedPathThatWasCutIsRefused) {
    const struct {
        std::size_t length; // of the path; the translation of the script adds 2
        bool whole;
    } rows[] = {{0, true}, {26, true}, {27, false}, {29, false}, {30, false}, {100, false}};
    for (const auto& row : rows) {
        char target[32];
        EXPECT_EQ(translateToLmbcs(std::string(row.length, 'x').c_str(), target), row.whole)
            << row.length;
        EXPECT_LT(std::strlen(target), sizeof target);
    }
    // A translation that changes nothing may fill the buffer to the last byte.
    notes_api.OSTranslate = [](WORD, const char* in, WORD, char* out, WORD size) -> WORD {
        std::strncpy(out, in, size);
        return 0;
    };
    char target[32];
    EXPECT_TRUE(translateToLmbcs(std::string(31, 'x').c_str(), target));
    EXPECT_FALSE(translateToLmbcs(std::string(32, 'x').c_str(), target));
    EXPECT_FALSE(translateToLmbcs((std::string(29, 'x') + "\xC3\xA4").c_str(), target));
}

// What follows changes state that lasts as long as the process: each test has one of its own.

int exitCode() {
    return testing::Test::HasFailure() ? 1 : 0;
}

void checkNotesIni() {
    g_sQRTLN_Global = {};
    const TemporaryFolder folder;
    const MessageCapture messages;
    ScriptedNotesApi script;
    const std::string file = folder.file("notes.ini");
    copyText(g_sQRTLN_Global.szDB_Notesini, file.c_str());

    // It is missing: no call is made.
    EXPECT_EQ(startNotesOperation(), 1000);
    TYPE_DB_Error error;
    takeError(&error);
    EXPECT_EQ(error.szDBErrorMsg, "Notes ini file [" + file + "] does not exist!");
    EXPECT_TRUE(messages.hasTrace("startNotesOperation(): ERROR: Notes ini file [" + file +
                                  "] is misssing."));

    // It is there; the longest path is passed whole.
    folder.write("notes.ini");
    script.play({{"NotesInitExtended 2 qrtln =" + file, {.status = 0}}});
    EXPECT_EQ(startNotesOperation(), 3000);
    EXPECT_TRUE(messages.hasLog("Call NotesInitExtended( 2, qrtln, =" + file + " )"));

    // It was found once: it is not looked for again.
    const std::string longest = "/" + std::string(kPathSize - 2, 'x');
    copyText(g_sQRTLN_Global.szDB_Notesini, longest.c_str());
    script.play({{"NotesInitExtended 2 qrtln =" + longest}});
    EXPECT_EQ(startNotesOperation(), 3000);
    EXPECT_TRUE(script.done());
    std::exit(exitCode());
}

// Fills in the error of a start without a library, which has nothing to call.
std::string failingStart(const MessageCapture& messages) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(startNotesOperation(), 1000);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), StartsWith("\nEnsure that"));
    TYPE_DB_Error error;
    takeError(&error);
    for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
        EXPECT_EQ(slot->address(), nullptr) << slot->name();
    }
    EXPECT_FALSE(g_sQRTLN_Global.bNotesInitialized);
    EXPECT_FALSE(messages.hasTrace("Call NotesInitExtended( 1, qrtln )"));
    return error.szDBErrorMsg;
}

void loadLibraries() {
    g_sQRTLN_Global = {};
    const MessageCapture messages;
    {
        const EnvironmentVariable none("Notes_ExecDirectory", "/no/such/directory");
        EXPECT_THAT(failingStart(messages),
                    StartsWith("cannot load the Notes C API: libnotes.so: cannot open"));
    }
    {
        // A library that lacks functions: the first in the message, all of them in the log.
        const EnvironmentVariable directory("Notes_ExecDirectory", QRTLN_INCOMPLETE_LIBRARY);
        const std::string text = "the Notes C API that was loaded lacks 2 of the functions needed, "
                                 "the first is NSFDbClose";
        EXPECT_EQ(failingStart(messages), text);
        EXPECT_TRUE(messages.hasLog("startNotesOperation(): the Notes C API lacks NSFDbClose"));
        EXPECT_TRUE(messages.hasLog("startNotesOperation(): the Notes C API lacks NSFBackupStart"));
    }
    {
        // A file of that name that is no library is not passed over for another one.
        const TemporaryFolder folder;
        folder.write("libnotes.so", "text");
        const EnvironmentVariable directory("Notes_ExecDirectory", folder.path().c_str());
        EXPECT_THAT(failingStart(messages), HasSubstr(folder.file("libnotes.so")));
    }
    {
        // A slot that was filled before stays as it is, whether the load fails or not.
        notes_api.NSFDbClose = [](DBHANDLE) -> STATUS { return 77; };
        const EnvironmentVariable none("Notes_ExecDirectory", "");
        EXPECT_THAT(loadNotesApi().error, Not(""));
        EXPECT_EQ(notes_api.NSFDbClose(0), 77);
        EXPECT_EQ(notes_api.NSFDbOpen.address(), nullptr);

        // The failures before do not stand in the way of the whole library.
        const EnvironmentVariable directory("Notes_ExecDirectory", QRTLN_COMPLETE_LIBRARY);
        EXPECT_EQ(startNotesOperation(), 3000);
        EXPECT_EQ(notes_api.NSFDbClose(0), 77);
        EXPECT_EQ(notes_api.NSFDbOpen("", nullptr), 0);
    }
    std::exit(exitCode());
}

void findLoadedLibrary() {
    g_sQRTLN_Global = {};
    const EnvironmentVariable none("Notes_ExecDirectory", "/no/such/directory");
    void* library = dlopen(QRTLN_COMPLETE_LIBRARY "/libhost_notes.so", RTLD_NOW | RTLD_GLOBAL);
    EXPECT_NE(library, nullptr);
    EXPECT_EQ(startNotesOperation(), 3000);
    EXPECT_EQ(notes_api.NotesInitExtended.address(), dlsym(library, "NotesInitExtended"));
    std::exit(exitCode());
}

TEST(RuntimeSessionDeathTest, ANotesIniIsCheckedOnceAndPassedBehindAnEqualsSign) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(checkNotesIni(), testing::ExitedWithCode(0), "");
}

TEST(RuntimeSessionDeathTest, ALibraryIsLoadedWholeOrNotAtAllAndTheLoadCanBeTriedAgain) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(loadLibraries(), testing::ExitedWithCode(0), "");
}

TEST(RuntimeSessionDeathTest, ALibraryThatTheProcessHasAlreadyIsUsed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(findLoadedLibrary(), testing::ExitedWithCode(0), "");
}

} // namespace
