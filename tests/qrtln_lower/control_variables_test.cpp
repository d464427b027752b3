#include "qrt_lotus_notes/qrtln_u/control_variables.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

using testing::ElementsAre;

namespace {

class ControlVariables : public testing::Test {
  protected:
    ControlVariables() { startAfresh("UTC"); }
    ~ControlVariables() override { startAfresh("UTC"); }

    // Nothing is left of an operation before.
    static void startAfresh(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global = {};
        g_sQRTLN_Global.LNDocRecoveryType = LNDocRecoveryType_non;
    }

    static int process(std::vector<std::string> variables) {
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global.lhArgumentFileList = nullptr;
        std::vector<char*> pointers;
        for (std::string& variable : variables) {
            pointers.push_back(variable.data());
        }
        pointers.push_back(nullptr);
        return ProcessCtrlVars(pointers.data());
    }
    static std::vector<std::string> arguments() {
        std::vector<std::string> texts;
        char item[kPathSize];
        unsigned int size = 0;
        while (ListFIFOItem(g_sQRTLN_Global.lhArgumentFileList, item, &size)) {
            texts.emplace_back(item);
        }
        return texts;
    }
    static std::string error() {
        TYPE_DB_Error error = {};
        takeError(&error);
        return error.szDBErrorMsg;
    }

    // The record as a text: each field that is not as at the start of an operation.
    static std::string state() {
        const auto field = [](const char* name, const std::string& value) {
            return value.empty() ? "" : std::string(" ") + name + " " + value;
        };
        const QRTLN_Global& record = g_sQRTLN_Global;
        const std::string user = record.szDB_User;
        const int kind = record.LNDocRecoveryType;
        return field("user", user == "notes" ? "" : user) + field("tmp", record.szTmpDir) +
               field("ini", record.szDB_Notesini) + field("-R", record.szRelocationDir) +
               (record.bPlainRestore ? " plain" : "") + (record.bRecovery ? " recovery" : "") +
               (record.bNewDbiid ? " new" : "") + (record.bActivate ? " activate" : "") +
               (record.tSinceTime != 0 ? field("since", std::to_string(record.tSinceTime)) : "") +
               (kind == LNDocRecoveryType_del ? " deld" : "") +
               (kind == LNDocRecoveryType_chg ? " chgd" : "") + field("at", record.szPointInTime);
    }

    QRTLN_Global& global = g_sQRTLN_Global;
};

TEST_F(ControlVariables, SetTheirFields) {
    const std::pair<const char*, const char*> cases[] = {
        {"DBUSER=unknown", ""},
        {"database=unknown", ""},
        {"", ""},
        {"DB_USER=admin", " user admin"},
        {"TMP_DIR=/tmp/x", " tmp /tmp/x"},
        {"NOTESINI=/n/notes.ini", " ini /n/notes.ini"},
        {"NEWDBIID=YES", " new"},
        {"ACTIVATE:YES", " activate"},
        // Of a switch the three capital letters count, and no separator is looked at.
        {"RECOVERY=YESNO", " recovery"},
        {"RECOVERYxYES", " recovery"},
        {"RECOVERY=NO", ""},
        {"RECOVERY=yes", ""},
        {"RECOVERY=YE", ""},
        {"RECOVERY", ""},
        // Local time, with daylight saving where it applies.
        {"SNC_TIME=20240715120000", " since 1721037600"},
        {"SNC_TIME=20240115120000", " since 1705316400"},
        {"SNC_TIME=yesterday", ""},
        {"SNC_TIME=2024", ""},
        {"SNC_TIME=19700101005959", ""}, // the last second before 1970 UTC
        {"INFO=-R \"/r/s t\"", " -R /r/s t"},
        {"INFO=-R/r\"", " -R /r"},
        {"INFO=cmd -R  \"\"/r\" -R \"/second\"", " -R /r"},
        {"INFO=-R \"all\"", ""},
        {"INFO=-R \"NOTES\"", ""},
        {"INFO=-R \"notes\"", " -R notes"},
        {"INFO=-R \"/\"", ""},
        {"INFO=-R \"\\\"", ""},
        {"INFO=-R \"\\\\\"", " -R \\\\"},
        {"INFO=-R \"", ""},
        {"INFO=-R /no-closing quote", " -R /no-closing quote"},
        {"INFO=-o \"plain\"", " plain"},
        {"INFO=-o \"p", " plain"},
        {"INFO=-o \"pl\"", ""},
        {"INFO=-o \"a,preserve\"", " plain"}, // any later option that begins with "p"
        {"INFO=-o \"a,Plain\"", ""},
        {"INFO=-o \"a\" -o \"plain\"", ""},                      // the first one counts
        {"INFO=-R \"/data-old\" -o \"plain\"", " -R /data-old"}, // be it within a path
        {"INFO=-o \"deld=202401151030\"", " deld at 202401151030"},
        {"INFO=-o \"CHGD=2\" -R \"/a=b\"", " -R /a=b chgd at 2"},
        {"INFO=-o \"Deld=1\"", ""},
        {"INFO=deld=", " deld"},
        // The first search that finds something gives the position: "deld" before "chgd". The kind
        // goes by either spelling anywhere.
        {"INFO=\"chgd=1\" \"deld=2\"", " deld at 2"},
        {"INFO=\"DELD=1\" \"chgd=2\"", " deld at 2"},
    };
    for (const auto& [variable, expected] : cases) {
        startAfresh("CET-1CEST,M3.5.0,M10.5.0/3");
        EXPECT_EQ(process({variable, "DATABASE=x"}), DB_NUM_I_OK);
        EXPECT_EQ(state(), expected) << variable;
    }
    // Without a point in time it is the current minute.
    const auto now = [] {
        char text[32];
        const time_t time = std::time(nullptr);
        std::strftime(text, sizeof text, " chgd at %Y%m%d%H%M", std::localtime(&time));
        return std::string(text);
    };
    startAfresh("UTC");
    const std::string before = now();
    process({"INFO=-o \"chgd\" -R \"\"", "DATABASE=x"});
    EXPECT_TRUE(before <= state() && state() <= now()) << state();
}

TEST_F(ControlVariables, DefaultsComeBackButForWhatStaysForTheProcess) {
    const MessageCapture messages;
    process({"DB_USER=admin", "TMP_DIR=/t", "NOTESINI=/n", "RECOVERY=YES", "RECOVERY=NO",
             "NEWDBIID=YES", "ACTIVATE=YES", "SNC_TIME=20240115103000",
             "INFO=-R \"/r\" -o \"x,plain,deld=2024\"", "DATABASE=x"});
    EXPECT_EQ(state(), " user admin tmp /t ini /n -R /r plain recovery new activate since "
                       "1705314600 deld at 2024");
    process({"ACTIVATE=NO", "DATABASE=x"});
    EXPECT_EQ(state(), " ini /n activate deld at 2024");
    EXPECT_STREQ(global.szDB_SinceTime, "20240115103000");
    process({"SNC_TIME=20240115103000", "SNC_TIME=x", "DBUSER=x", "DATABASE=x"});
    EXPECT_EQ(global.tSinceTime, 0);
    // What the trace is read for: what came, and what became of it.
    for (const char* told :
         {"maximal size 1028", "Relocation Directory = [/r].", "PLAIN RESTORE operation.",
          "Processing control argument: DBUSER=x", "Unrecognizable control variable: DBUSER=x",
          "Could not convert [x] to a valid tm structure."}) {
        EXPECT_TRUE(messages.hasTrace(std::string("ProcessCtrlVars(): ") + told)) << told;
    }
}

TEST_F(ControlVariables, WithoutAnArgumentTheOperationFails) {
    // A database path is never cut: it would name another one.
    for (const std::string& variable :
         {std::string("TMP_DIR=/x"), "DATABASE=" + std::string(1028, 'x')}) {
        EXPECT_EQ(process({variable}), DB_NUM_E_FAILED);
        EXPECT_EQ(global.lhArgumentFileList, nullptr);
        EXPECT_EQ(error(), "There is no database file arguments");
    }
    EXPECT_EQ(ProcessCtrlVars(nullptr), DB_NUM_E_FAILED);
}

// The arguments come through one buffer: one that exists yields itself again and again, a directory
// without its trailing delimiter, until the whole system is named.
TEST_F(ControlVariables, ExistingArgumentHidesThoseAfterIt) {
    const TemporaryFolder folder;
    process({"DATABASE=first", "DATABASE=" + folder.path() + "/", "DATABASE=b.nsf",
             "DATABASE=c.nsf", "DATABASE=all", "DATABASE=d.nsf", "DATABASE=/", "DATABASE=e.nsf"});
    EXPECT_THAT(arguments(), ElementsAre("first", folder.path() + "/", folder.path(), folder.path(),
                                         "NOTES", "d.nsf", "/", "e.nsf"));
}

TEST_F(ControlVariables, ValuesTooLongForTheirFieldAreCut) {
    const MessageCapture messages;
    const std::string value(5000, 'v');
    EXPECT_EQ(
        process({"DB_USER=" + value, "TMP_DIR=" + value, "NOTESINI=" + value, "SNC_TIME=" + value,
                 "INFO=-R \"" + value + "\"", "INFO=deld=" + value, "DATABASE=x"}),
        DB_NUM_I_OK);
    EXPECT_EQ(global.szDB_User, value.substr(0, 127));
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): Value of DB_USER is longer than 127 bytes "
                                  "and is cut to [" +
                                  value.substr(0, 127) + "]."));
    EXPECT_EQ(global.szDB_SinceTime, value.substr(0, 31));
    EXPECT_EQ(global.szPointInTime, value.substr(0, 31));
    for (const char* path : {global.szTmpDir, global.szDB_Notesini, global.szRelocationDir}) {
        EXPECT_EQ(path, value.substr(0, 1027));
    }
}

TEST_F(ControlVariables, RollForwardIsYesOrATimeThatExistsOnce) {
    // The rules of 2024 for Berlin, and for Santiago, where the skipped and the repeated hour lie
    // at midnight. -1: refused; 0: to the end of the logs.
    const std::string berlin = "CET-1CEST,M3.5.0,M10.5.0/3 ";
    const std::string santiago = "CLT4CLST,M9.1.6/24,M4.1.6/24 ";
    std::vector<std::pair<std::string, time_t>> cases = {
        {berlin + "YES", 0},
        {berlin + "20240115123015", 1705318215},
        {berlin + "20240331015959", 1711846799},
        {berlin + "20240331020000", -1}, // skipped
        {berlin + "20240331025959", -1},
        {berlin + "20240331030000", 1711846800},
        {berlin + "20241027015959", 1729987199},
        {berlin + "20241027020000", -1}, // repeated
        {berlin + "20241027025959", -1},
        {berlin + "20241027030000", 1729994400},
        {santiago + "20240908003000", -1},
        {santiago + "20240406233000", -1},
        {santiago + "20240407003000", 1712464200},
        {"UTC 20240229000000", 1709164800},
    };
    for (const char* refused :
         {"20230229000000", "20241301000000", "20240100000000", "20240115240000", "20240115126000",
          "20240115123060", "", "yes", "YES ", "202401151230150", "2024 115123015",
          "+2024011512301", "%s%n%s%n%s%n%s"}) {
        cases.emplace_back(std::string("UTC ") + refused, -1);
    }
    for (const auto& [zoneAndValue, moment] : cases) {
        SCOPED_TRACE(zoneAndValue);
        const std::size_t blank = zoneAndValue.find(' ');
        startAfresh(zoneAndValue.substr(0, blank).c_str());
        global.eI_OperationType = DB_TYPE_RST;
        const std::string variable = "ROLLFORWARD=" + zoneAndValue.substr(blank + 1);
        EXPECT_EQ(process({"RECOVERY=YES", variable, "DATABASE=a.nsf"}),
                  moment < 0 ? DB_NUM_E_FAILED : DB_NUM_I_OK);
        EXPECT_EQ(global.sRecoveryChoices.bFindsPending, moment >= 0);
        EXPECT_EQ(global.sRecoveryChoices.bToMoment, moment > 0);
        EXPECT_EQ(global.sRecoveryChoices.tMoment, moment < 0 ? 0 : moment);
        EXPECT_EQ(error().starts_with(variable + ": "), moment < 0);
        EXPECT_EQ(global.lhArgumentFileList == nullptr, moment < 0);
    }
}

TEST_F(ControlVariables, RollForwardIsForOneRecoveryAlone) {
    const std::string yes = "ROLLFORWARD=YES", recovery = "RECOVERY=YES";
    const struct {
        DB_OPERATION_TYPE type;
        std::vector<std::string> variables;
        int result;
        bool chosen;
    } cases[] = {
        {DB_TYPE_RST, {yes, recovery}, 3000, true},
        {DB_TYPE_RST, {yes}, 3000, false}, // nothing is left of the operation before
        {DB_TYPE_RST, {recovery}, 3000, false},
        {DB_TYPE_BCK, {yes, recovery}, 3000, false},
        {DB_TYPE_RST, {recovery, yes, yes}, 1000, false},
    };
    for (const auto& c : cases) {
        global.eI_OperationType = c.type;
        std::vector<std::string> variables = c.variables;
        variables.emplace_back("DATABASE=a.nsf");
        EXPECT_EQ(process(variables), c.result);
        EXPECT_EQ(global.sRecoveryChoices.bSearchesForDatabases, c.chosen);
    }
}

TEST(IniValue, IsFoundInItsSectionAlone) {
    const TemporaryFolder folder;
    const std::string path = folder.write(
        "x.ini", "top = 1\n\n[One]\r\nKey\t= a = b \r\nno value\nlong=" + std::string(3000, 'l') +
                     "\n  [two] \nkey=2\nempty=\nlast=end");
    struct Case {
        const char *section, *key;
        int result;
        std::string value;
    };
    const Case cases[] = {
        {nullptr, "TOP", DB_NUM_I_OK, "1"},
        {nullptr, "key", DB_NUM_E_FAILED, ""}, // behind the next section
        {" [ONE] ", " key ", DB_NUM_I_OK, "a = b"},
        {"[one]", "long", DB_NUM_I_OK, std::string(1506, 'l')}, // lines are read 1511 at a time
        {"[one]", "last", DB_NUM_E_FAILED, ""},
        {"[Two]", "key", DB_NUM_I_OK, "2"},
        {"[two]", "empty", DB_NUM_I_OK, ""},
        {"[two]", "last", DB_NUM_I_OK, "end"},
        {"two", "key", DB_NUM_E_FAILED, ""}, // the brackets belong to the name
        {"[three]", "key", DB_NUM_E_FAILED, ""},
    };
    for (const Case& c : cases) {
        char value[kMessageSize] = "";
        EXPECT_EQ(ini_get_value(path.c_str(), c.section, c.key, value), c.result) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    char value[kMessageSize] = "";
    EXPECT_EQ(ini_get_value(folder.file("missing").c_str(), nullptr, "k", value), DB_NUM_E_FAILED);
}

} // namespace
