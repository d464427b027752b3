// Start and end of the runtime, and the loading of its library.
#include "qrt_lotus_notes/qrtln_n/runtime_session.h"

#include <cstdlib>
#include <dlfcn.h>

#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class RuntimeSessionTest : public NotesFloorTest {
  protected:
    // A start that fails tells the administrator what the environment lacks. Returns the error.
    std::string failingStart() const {
        testing::internal::CaptureStderr();
        EXPECT_EQ(startNotesOperation(), 1000);
        EXPECT_THAT(
            testing::internal::GetCapturedStderr(),
            testing::AllOf(StartsWith("\nEnsure that the following environment variables"),
                           HasSubstr("\n  LOTUS=\"(null)\"\n"), HasSubstr("\n  PATH=\"/bin\"\n"),
                           HasSubstr("\n  Notes_ExecDirectory=\"" +
                                     std::string(std::getenv("Notes_ExecDirectory")) + "\"\n")));
        EXPECT_FALSE(g_sQRTLN_Global.bNotesInitialized);
        return takeErrorText();
    }
    static void useEnvironment(const char* execDirectory) {
        g_sQRTLN_Global.bNotesInitialized = FALSE;
        setenv("PATH", "/bin", 1);
        unsetenv("LOTUS");
        setenv("Notes_ExecDirectory", execDirectory, 1);
    }
};

TEST_F(RuntimeSessionTest, AFailedStartExplainsItselfToTheClientAndOnStandardError) {
    inOwnProcess([this] {
        useEnvironment("/no/such/%s/directory");
        for (const auto& [status, text] :
             {std::pair{272, "0X110) Access to data denied."},
              {499, "0X1F3) Invalid directory name or device not ready."},
              {0x8103, "0X8103) !"}}) {
            script.play({{"NotesInitExtended 1 qrtln", {.status = static_cast<STATUS>(status)}}});
            EXPECT_EQ(failingStart(),
                      std::string("Notes API NotesInitExtended() failed: (STATUS ") + text);
        }
    });
}

TEST_F(RuntimeSessionTest, TheDirectoriesComeFromTheRuntimeAndItsNotesIni) {
    char data[kPathSize] = "";
    char program[kPathSize] = "";
    const Step dataDirectory = {"OSGetDataDirectory", {.text = "/local/data"}};
    const std::string variable = "OSGetEnvironmentString NotesProgram 1028";
    script.play({dataDirectory, {variable, {.text = "/opt/bin"}}});
    EXPECT_EQ(getNotesDirectories(data, program, sizeof program), 3000);
    EXPECT_STREQ(data, "/local/data");
    EXPECT_STREQ(program, "/opt/bin");
    // Either failure is reported in the same words.
    script.play({{"OSGetDataDirectory"}, dataDirectory, {variable}});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(getNotesDirectories(data, program, sizeof program), 1000);
        EXPECT_EQ(takeErrorText(), "Notes API OSGetDataDirectory() failure");
    }
}

TEST_F(RuntimeSessionTest, AStatusIsLookedUpWithoutItsFlags) {
    EXPECT_STREQ(getLotusNotesApiError(0xC000 | 259, FALSE), "Notes text 259");
    EXPECT_TRUE(said("Got Notes error: Notes text 259 (259)"));
    EXPECT_TRUE(messages.logs().empty());
    // A "%" of the server's text is not a format.
    notes_api.OSLoadString = [](HMODULE, STATUS, char* text, WORD size) -> WORD {
        return static_cast<WORD>(std::snprintf(text, size, "%s", "100%s of %n"));
    };
    EXPECT_STREQ(getLotusNotesApiError(1, TRUE), "100%s of %n");
    EXPECT_TRUE(messages.hasLog("100%s of %n"));
    notes_api.OSLoadString = [](HMODULE, STATUS, char*, WORD) -> WORD { return 0; };
    EXPECT_STREQ(getLotusNotesApiError(259, FALSE), "Notes status 259");
}

TEST_F(RuntimeSessionTest, NamesAreConvertedAndCutForMessagesAndRefusedForTheServer) {
    for (const bool initialised : {true, false}) {
        g_sQRTLN_Global.bNotesInitialized = initialised;
        EXPECT_STREQ(getUTF8FileName("/a/b.nsf"), initialised ? "U:L:/a/b.nsf" : "/a/b.nsf");
        EXPECT_EQ(std::strlen(getUTF8FileName(std::string(300, 'x').c_str())), 256u);
    }
    char target[32];
    for (const std::size_t length : {0, 26, 27, 30, 100}) { // the translation adds 2
        EXPECT_EQ(translateToLmbcs(std::string(length, 'x').c_str(), target), length <= 26);
    }
    // A translation that changes nothing may fill the buffer to the last byte.
    notes_api.OSTranslate = [](WORD, const char* in, WORD, char* out, WORD size) -> WORD {
        std::strncpy(out, in, size);
        return 0;
    };
    EXPECT_TRUE(translateToLmbcs(std::string(31, 'x').c_str(), target));
    EXPECT_FALSE(translateToLmbcs(std::string(32, 'x').c_str(), target));
    EXPECT_FALSE(translateToLmbcs((std::string(29, 'x') + "\xC3\xA4").c_str(), target));
}

TEST_F(RuntimeSessionTest, ANotesIniIsCheckedOnceAndPassedBehindAnEqualsSign) {
    inOwnProcess([this] { // that it was found lasts as long as the process
        script.play({{"NotesInitExtended 1 qrtln"}, {"NotesTerm"}});
        EXPECT_EQ(startNotesOperation(), 3000) << "without one";
        EXPECT_EQ(terminateNotesOperation(), 3000);
        EXPECT_EQ(terminateNotesOperation(), 1000);
        EXPECT_TRUE(said("Skip NotesTerm()"));
        EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);

        const std::string file = folder.file("notes.ini");
        copyText(g_sQRTLN_Global.szDB_Notesini, file.c_str());
        EXPECT_EQ(startNotesOperation(), 1000) << "without a call";
        EXPECT_EQ(takeErrorText(), "Notes ini file [@/notes.ini] does not exist!");
        folder.write("notes.ini");
        script.play({{"NotesInitExtended 2 qrtln =" + file}});
        EXPECT_EQ(startNotesOperation(), 3000);
        const std::string longest = "/" + std::string(kPathSize - 2, 'x');
        copyText(g_sQRTLN_Global.szDB_Notesini, longest.c_str());
        script.play({{"NotesInitExtended 2 qrtln =" + longest}});
        EXPECT_EQ(startNotesOperation(), 3000);
        EXPECT_TRUE(messages.hasLog("Call NotesInitExtended( 2, qrtln, =" + longest + " )"));
        script.expectPlayed();
    });
}

TEST_F(RuntimeSessionTest, ALibraryIsLoadedWholeOrNotAtAllAndTheLoadCanBeTriedAgain) {
    for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
        slot->setAddress(nullptr);
    }
    // Libraries stay loaded as long as the process.
    inOwnProcess([this] {
        useEnvironment("/no/such/directory");
        EXPECT_THAT(failingStart(),
                    StartsWith("cannot load the Notes C API: libnotes.so: cannot open"));
        // A library that lacks functions: the first in the message, all of them in the log.
        useEnvironment(QRTLN_INCOMPLETE_LIBRARY);
        EXPECT_THAT(failingStart(),
                    testing::EndsWith(" of the functions needed, the first is NotesTerm"));
        EXPECT_TRUE(messages.hasLog("startNotesOperation(): the Notes C API lacks NSFBackupStart"));
        // A file of that name that is no library is not passed over for another one.
        folder.write("libnotes.so", "text");
        useEnvironment(folder.path().c_str());
        EXPECT_THAT(failingStart(), HasSubstr("@/libnotes.so"));
        EXPECT_EQ(notes_api.NotesInitExtended.address(), nullptr);

        // A slot that was filled before stays as it is. The failures do not stand in the way.
        notes_api.NSFDbClose = [](DBHANDLE) -> STATUS { return 77; };
        useEnvironment(QRTLN_COMPLETE_LIBRARY);
        EXPECT_EQ(loadNotesApi().error, "");
        EXPECT_EQ(notes_api.NSFDbClose(0), 77);
        EXPECT_NE(notes_api.NSFDbOpen.address(), nullptr);
    });
    inOwnProcess([] { // one that the process has already is used
        useEnvironment("/no/such/directory");
        void* library = dlopen(QRTLN_COMPLETE_LIBRARY "/libnotes.so", RTLD_NOW | RTLD_GLOBAL);
        EXPECT_EQ(loadNotesApi().error, "");
        EXPECT_EQ(notes_api.NotesInitExtended.address(), dlsym(library, "NotesInitExtended"));
    });
}

} // namespace
