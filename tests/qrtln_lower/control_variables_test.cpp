#include "qrt_lotus_notes/qrtln_u/control_variables.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

class ControlVariables : public testing::Test {
  protected:
    ControlVariables() {
        setenv("TZ", "UTC", 1);
        tzset();
        release();
    }
    ~ControlVariables() override {
        release();
        unsetenv("TZ");
        tzset();
    }

    static void release() {
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        const auto traceFunc = g_sQRTLN_Global.vpTraceFunc;
        const auto logFunc = g_sQRTLN_Global.vpLogFunc;
        g_sQRTLN_Global = {};
        g_sQRTLN_Global.LNDocRecoveryType = LNDocRecoveryType_non;
        g_sQRTLN_Global.vpTraceFunc = traceFunc;
        g_sQRTLN_Global.vpLogFunc = logFunc;
    }

    // Each variable lies in a block of its exact size: reading past its end is found.
    static int process(const std::vector<std::string>& variables) {
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global.lhArgumentFileList = nullptr;
        std::vector<std::unique_ptr<char[]>> blocks;
        std::vector<char*> pointers;
        for (const std::string& variable : variables) {
            blocks.push_back(std::make_unique<char[]>(variable.size() + 1));
            std::memcpy(blocks.back().get(), variable.c_str(), variable.size() + 1);
            pointers.push_back(blocks.back().get());
        }
        pointers.push_back(nullptr);
        return ProcessCtrlVars(pointers.data());
    }

    static std::vector<std::string> arguments() {
        std::vector<std::string> texts;
        char item[kPathSize];
        unsigned int size = 0;
        while (ListFIFOItem(g_sQRTLN_Global.lhArgumentFileList, item, &size)) {
            EXPECT_EQ(size, std::strlen(item) + 1);
            texts.emplace_back(item);
        }
        return texts;
    }

    QRTLN_Global& global = g_sQRTLN_Global;
    MessageCapture messages;
};

TEST_F(ControlVariables, SetTheirFieldsAndQueueTheArguments) {
    EXPECT_EQ(process({"DB_USER=admin", "TMP_DIR=/tmp/x", "NOTESINI=/n/notes.ini", "RECOVERY=YES",
                       "NEWDBIID=YESTERDAY", "ACTIVATE:YES", "SNC_TIME=20240115103000",
                       "DATABASE=none.nsf"}),
              DB_NUM_I_OK);
    EXPECT_STREQ(global.szDB_User, "admin");
    EXPECT_STREQ(global.szTmpDir, "/tmp/x");
    EXPECT_STREQ(global.szDB_Notesini, "/n/notes.ini");
    EXPECT_TRUE(global.bRecovery && global.bNewDbiid && global.bActivate);
    EXPECT_STREQ(global.szDB_SinceTime, "20240115103000");
    EXPECT_EQ(global.tSinceTime, 1705314600);
    EXPECT_THAT(arguments(), ElementsAre("none.nsf"));
    DB_BACKUP_FILE_TYPE kind = DB_BACKUP_FILE_TYPE_LOG;
    char item[kPathSize];
    unsigned int size = 0;
    ASSERT_TRUE(PullFIFOItemLN(global.lhArgumentFileList, item, &size, &kind));
    EXPECT_EQ(kind, DB_BACKUP_FILE_TYPE_DB);
}

TEST_F(ControlVariables, DefaultsComeBackButWhatStaysForTheProcessStays) {
    process({"DB_USER=admin", "TMP_DIR=/t", "NOTESINI=/n", "RECOVERY=YES", "NEWDBIID=YES",
             "ACTIVATE=YES", "SNC_TIME=20240115103000", "INFO=-R \"/r\" -o \"p,deld=2024\"",
             "DATABASE=x"});
    EXPECT_EQ(process({"ACTIVATE=NO", "DATABASE=x"}), DB_NUM_I_OK);
    EXPECT_STREQ(global.szDB_User, "notes");
    EXPECT_STREQ(global.szTmpDir, "");
    EXPECT_STREQ(global.szRelocationDir, "");
    EXPECT_FALSE(global.bRecovery || global.bNewDbiid || global.bPlainRestore);
    EXPECT_EQ(global.tSinceTime, 0);
    EXPECT_TRUE(global.bActivate);
    EXPECT_STREQ(global.szDB_Notesini, "/n");
    EXPECT_STREQ(global.szDB_SinceTime, "20240115103000");
    EXPECT_STREQ(global.szPointInTime, "2024");
}

TEST_F(ControlVariables, SwitchesCountTheThreeCapitalLettersAlone) {
    const std::pair<const char*, bool> cases[] = {{"RECOVERY=NO", false},   {"RECOVERY=yes", false},
                                                  {"RECOVERY=YE", false},   {"RECOVERY=", false},
                                                  {"RECOVERY", false},      {"RECOVERY=YES", true},
                                                  {"RECOVERY=YESNO", true}, {"RECOVERYxYES", true}};
    for (const auto& [variable, expected] : cases) {
        process({variable, "DATABASE=x"});
        EXPECT_EQ(global.bRecovery != FALSE, expected) << variable;
    }
    // A second variable does not take the first one back.
    process({"RECOVERY=YES", "RECOVERY=NO", "DATABASE=x"});
    EXPECT_TRUE(global.bRecovery);
}

TEST_F(ControlVariables, WithoutAnArgumentTheOperationFails) {
    for (const std::vector<std::string>& variables :
         {std::vector<std::string>{"TMP_DIR=/x"}, std::vector<std::string>{},
          std::vector<std::string>{"DATABASE=" + std::string(1028, 'x')}}) {
        EXPECT_EQ(process(variables), DB_NUM_E_FAILED);
        EXPECT_EQ(global.lhArgumentFileList, nullptr);
        TYPE_DB_Error error;
        takeError(&error);
        EXPECT_STREQ(error.szDBErrorMsg, "There is no database file arguments");
    }
    EXPECT_EQ(ProcessCtrlVars(nullptr), DB_NUM_E_FAILED);
}

TEST_F(ControlVariables, UnknownOnesAreTracedAndSkipped) {
    EXPECT_EQ(process({"DBUSER=admin", "database=x", "", "DATABASE=x"}), DB_NUM_I_OK);
    EXPECT_STREQ(global.szDB_User, "notes");
    EXPECT_THAT(messages.traces()[0], "ProcessCtrlVars(): maximal size 1028");
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): Processing control argument: DBUSER=admin"));
    for (const char* variable : {"DBUSER=admin", "database=x", ""}) {
        EXPECT_TRUE(messages.hasTrace(
            std::string("ProcessCtrlVars(): Unrecognizable control variable: ") + variable));
    }
    EXPECT_THAT(arguments(), ElementsAre("x"));
}

TEST_F(ControlVariables, ExistingArgumentHidesThoseAfterIt) {
    const TemporaryFolder folder;
    const std::string existing = folder.write("a.nsf");
    process({"DATABASE=first", "DATABASE=" + existing, "DATABASE=b.nsf", "DATABASE=all",
             "DATABASE=c.nsf"});
    EXPECT_THAT(arguments(), ElementsAre("first", existing, existing, "NOTES", "c.nsf"));
}

TEST_F(ControlVariables, ValuesTooLongForTheirFieldAreCutAndTraced) {
    const std::string longValue(5000, 'v');
    EXPECT_EQ(process({"DB_USER=" + longValue, "TMP_DIR=" + longValue, "NOTESINI=" + longValue,
                       "SNC_TIME=20240115103000" + longValue, "INFO=-R \"" + longValue + "\"",
                       "INFO=deld=" + longValue + "\"", "DATABASE=" + longValue, "DATABASE=x"}),
              DB_NUM_I_OK);
    EXPECT_EQ(std::strlen(global.szDB_User), 127U);
    EXPECT_EQ(std::strlen(global.szTmpDir), 1027U);
    EXPECT_EQ(std::strlen(global.szDB_Notesini), 1027U);
    EXPECT_EQ(std::strlen(global.szDB_SinceTime), 31U);
    EXPECT_EQ(global.tSinceTime, 1705314600);
    EXPECT_EQ(std::strlen(global.szRelocationDir), 1027U);
    EXPECT_EQ(std::strlen(global.szPointInTime), 31U);
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): Value of DB_USER is longer than 127 bytes "
                                  "and is cut to [" +
                                  std::string(127, 'v') + "]."));
    // A database path is never cut: it would name another one.
    EXPECT_THAT(arguments(), ElementsAre("x"));
    EXPECT_EQ(messages.logs().size(), 1U);
}

TEST_F(ControlVariables, SinceTimeThatCannotBeReadIsTracedAndLeftZero) {
    for (const char* text : {"yesterday", "2024", "20241301000000", ""}) {
        messages.clear();
        // Also after a good one.
        process({"SNC_TIME=20240115103000", std::string("SNC_TIME=") + text, "DATABASE=x"});
        EXPECT_EQ(global.tSinceTime, 0) << text;
        EXPECT_TRUE(messages.hasTrace(std::string("ProcessCtrlVars(): Could not convert [") + text +
                                      "] to a valid tm structure."));
    }
    messages.clear();
    process({"SNC_TIME=19691231235959", "DATABASE=x"});
    EXPECT_EQ(global.tSinceTime, 0);
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): Could not convert [19691231235959] to a "
                                  "valid time_t calendar time."));
}

// In summer the local clock is ahead of winter's; whoever writes the time need not say so.
TEST_F(ControlVariables, SinceTimeIsLocalWithDaylightSavingWhereItApplies) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    process({"SNC_TIME=20240715120000", "DATABASE=x"});
    EXPECT_EQ(global.tSinceTime, 1721037600);
    process({"SNC_TIME=20240115120000", "DATABASE=x"});
    EXPECT_EQ(global.tSinceTime, 1705316400);
}

TEST_F(ControlVariables, RestoreOptionsAreFoundInTheCommandLine) {
    const struct {
        std::string info;
        std::string relocation;
        bool plain;
    } cases[] = {
        {"", "", false},
        {"-R \"/r/s t\"", "/r/s t", false},
        {"-R/r\"", "/r", false},
        {"cmd -R  \"\"/r\" -R \"/second\"", "/r", false},
        {"-R \"all\"", "", false},
        {"-R \"NOTES\"", "", false},
        {"-R \"notes\"", "notes", false},
        {"-R \"/\"", "", false},
        {"-R \"\\\"", "", false},
        {"-R \"\\\\\"", "\\\\", false},
        {"-R \"", "", false},
        {"-R /no-closing quote", "/no-closing quote", false},
        {"-o \"plain\"", "", true},
        {"-o \"p", "", true},
        {"-o \"pl\"", "", false},
        {"-o \"overwrite,plain\"", "", true},
        {"-o \"a,preserve\"", "", true}, // any later option that begins with "p"
        {"-o \"a,Plain\"", "", false},
        {"-o \"a\" -o \"plain\"", "", false},                  // the first one counts
        {"-R \"/data-old\" -o \"plain\"", "/data-old", false}, // "-o" within the path is the first
    };
    for (const auto& expected : cases) {
        process({"INFO=" + expected.info, "DATABASE=x"});
        EXPECT_EQ(std::string(global.szRelocationDir), expected.relocation) << expected.info;
        EXPECT_EQ(global.bPlainRestore != FALSE, expected.plain) << expected.info;
    }
    messages.clear();
    process({"INFO=-R \"all\"", "DATABASE=x"});
    process({"INFO=-R \"/r\" -o \"p\"", "DATABASE=x"});
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): Got [all] set Relocation Directory to []."));
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): Relocation Directory = [/r]."));
    EXPECT_TRUE(messages.hasTrace("ProcessCtrlVars(): PLAIN RESTORE operation."));
}

TEST_F(ControlVariables, DocumentRestoreTakesItsKindAndPointInTime) {
    const struct {
        const char* info;
        e_LNDocRecoveryType type;
        const char* pointInTime; // "now": the current minute
    } cases[] = {
        {"-o \"x\"", LNDocRecoveryType_non, ""},
        {"-o \"Deld=1\"", LNDocRecoveryType_non, ""},
        {"-o \"deld=202401151030\"", LNDocRecoveryType_del, "202401151030"},
        {"-o \"chgd=202401151030\" -R \"/r\"", LNDocRecoveryType_chg, "202401151030"},
        {"-o \"DELD=1\"", LNDocRecoveryType_del, "1"},
        {"-o \"CHGD=2\"", LNDocRecoveryType_chg, "2"},
        {"-o \"deld\"", LNDocRecoveryType_del, "now"},
        {"-o \"chgd\"", LNDocRecoveryType_chg, "now"},
        {"deld=5", LNDocRecoveryType_del, "5"},
        {"deld=", LNDocRecoveryType_del, ""},
        {"-o \"deld\" -R \"/a=b\"", LNDocRecoveryType_del, "now"},
        // The first search that finds something gives the position: "deld" before "chgd".
        {"\"chgd=1\" \"deld=2\"", LNDocRecoveryType_del, "2"},
        // The kind goes by either spelling anywhere, the position by the order of the searches.
        {"\"DELD=1\" \"chgd=2\"", LNDocRecoveryType_del, "2"},
    };
    for (const auto& expected : cases) {
        release();
        process({std::string("INFO=") + expected.info, "DATABASE=x"});
        EXPECT_EQ(global.LNDocRecoveryType, expected.type) << expected.info;
        if (std::strcmp(expected.pointInTime, "now") == 0) {
            EXPECT_THAT(global.szPointInTime, MatchesRegex("2[0-9]{11}")) << expected.info;
        } else {
            EXPECT_STREQ(global.szPointInTime, expected.pointInTime) << expected.info;
        }
    }
}

// Free-form input from the client's command line; the sanitizers watch every read.
TEST_F(ControlVariables, AnyValueIsReadWithinItsBounds) {
    unsigned int seed = 42;
    const auto random = [&](unsigned int below) {
        seed = seed * 1664525U + 1013904223U;
        return (seed >> 8) % below;
    };
    const char* const keywords[] = {"INFO",     "DB_USER",  "TMP_DIR",  "RECOVERY", "NEWDBIID",
                                    "ACTIVATE", "NOTESINI", "SNC_TIME", "DATABASE"};
    std::vector<std::string> pieces = {" ", "\t", std::string(300, 'x')};
    std::istringstream words(
        "-R -o \" deld chgd DELD CHGD = ,p all NOTES / \\ * %s%n YES 20240101 \xFF .");
    for (std::string word; words >> word;) {
        pieces.push_back(word);
    }
    for (int round = 0; round < 20000; ++round) {
        std::vector<std::string> variables;
        for (unsigned int count = random(3); count > 0; --count) {
            std::string variable = keywords[round % 3 == 0 ? random(9) : 0];
            for (unsigned int length = random(10); length > 0; --length) {
                variable += pieces[random(static_cast<unsigned int>(pieces.size()))];
            }
            variables.push_back(variable);
        }
        messages.clear();
        const int result = process(variables);
        ASSERT_EQ(result == DB_NUM_I_OK, global.lhArgumentFileList != nullptr);
        ASSERT_EQ(std::string(global.szRelocationDir).find('"'), std::string::npos);
        ASSERT_LT(std::strlen(global.szPointInTime), sizeof global.szPointInTime);
    }
}

TEST(TextOfValues, StripAndUpperChangeWhatTheyShould) {
    const std::vector<std::vector<std::string>> cases = {
        // source, result, source afterwards
        {"  abc \r\n", "abc", "  abc"}, {"   ", "", ""}, {"\t a b\t", "a b", "\t a b"},
        {"\r\n x", "\r\n x", "\r\n x"}, {"", "", ""},
    };
    for (const auto& expected : cases) {
        char source[32], result[32] = "before";
        copyText(source, expected[0].c_str());
        EXPECT_EQ(str_strip(result, source), result);
        EXPECT_EQ(result, expected[1]);
        EXPECT_EQ(source, expected[2]);
    }
    char text[] = "aZ9\xE4";
    EXPECT_EQ(str_upper(text), text);
    EXPECT_STREQ(text, "AZ9\xE4");
    EXPECT_EQ(SetOsPath(text), DB_NUM_I_OK);
}

TEST(IniValue, IsFoundInItsSectionAlone) {
    const TemporaryFolder folder;
    const std::string path =
        folder.write("x.ini", "top = 1\n\n[One]\r\nKey\t= a = b \r\n"
                              "no value\nlong=" +
                                  std::string(3000, 'l') + "\n  [two] \nkey=2\nempty=\nlast=end");
    struct Case {
        const char *section, *key;
        int result;
        std::string value;
    };
    const Case cases[] = {
        {nullptr, "TOP", DB_NUM_I_OK, "1"},
        {nullptr, "key", DB_NUM_E_FAILED, ""}, // behind the next section
        {"[one]", " key ", DB_NUM_I_OK, "a = b"},
        {" [ONE] ", "KEY", DB_NUM_I_OK, "a = b"},
        {"[one]", "long", DB_NUM_I_OK, std::string(1506, 'l')}, // lines are read 1511 at a time
        {"[one]", "last", DB_NUM_E_FAILED, ""},
        {"[Two]", "key", DB_NUM_I_OK, "2"},
        {"[two]", "empty", DB_NUM_I_OK, ""},
        {"[two]", "last", DB_NUM_I_OK, "end"},
        {"[two]", "none", DB_NUM_E_FAILED, ""},
        {"two", "key", DB_NUM_E_FAILED, ""}, // the brackets belong to the name
        {"[three]", "key", DB_NUM_E_FAILED, ""},
    };
    for (const Case& expected : cases) {
        char value[kMessageSize] = "";
        EXPECT_EQ(ini_get_value(path.c_str(), expected.section, expected.key, value),
                  expected.result)
            << expected.key;
        EXPECT_EQ(value, expected.value) << expected.key;
    }
    char value[kMessageSize] = "";
    EXPECT_EQ(ini_get_value(folder.file("missing").c_str(), nullptr, "k", value), DB_NUM_E_FAILED);
}

// Chile's clocks skip the hour after 23:59:59 on 7 September 2024 and repeat the one before
// midnight on 6 April; Samoa skipped a whole day.
TEST_F(ControlVariables, RollForwardIsYesOrATimeThatExistsOnce) {
    struct Case {
        const char* zone;
        const char* value;
        time_t moment; // 0: to the end of the logs, -1: refused
    };
    // The rules of 2024 for Berlin, and for Santiago, where the hours lie at midnight.
    constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
    constexpr char kSantiago[] = "CLT4CLST,M9.1.6/24,M4.1.6/24";
    const Case cases[] = {
        {kBerlin, "YES", 0},
        {kBerlin, "20240115123015", 1705318215},
        {kBerlin, "20240229000000", 1709161200},
        {kBerlin, "20240331015959", 1711846799},
        {kBerlin, "20240331020000", -1}, // skipped
        {kBerlin, "20240331025959", -1},
        {kBerlin, "20240331030000", 1711846800},
        {kBerlin, "20241027015959", 1729987199},
        {kBerlin, "20241027020000", -1}, // repeated
        {kBerlin, "20241027025959", -1},
        {kBerlin, "20241027030000", 1729994400},
        {kSantiago, "20240908003000", -1},
        {kSantiago, "20240406233000", -1},
        {kSantiago, "20240407003000", 1712464200},
        {"UTC", "20241027023000", 1729996200},
        {"UTC", "20230229000000", -1},
        {"UTC", "20240231000000", -1},
        {"UTC", "20241301000000", -1},
        {"UTC", "20240100000000", -1},
        {"UTC", "20240115240000", -1},
        {"UTC", "20240115126000", -1},
        {"UTC", "20240115123060", -1},
        {"UTC", "", -1},
        {"UTC", "NO", -1},
        {"UTC", "yes", -1},
        {"UTC", "YES ", -1},
        {"UTC", "202401151230", -1},
        {"UTC", "202401151230150", -1},
        {"UTC", " 20240115123015", -1},
        {"UTC", "2024 115123015", -1},
        {"UTC", "2024-01-15 12:", -1},
        {"UTC", "+2024011512301", -1},
        {"UTC", "%s%n%s%n%s%n%s", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.zone) + " " + c.value);
        setenv("TZ", c.zone, 1);
        global.eI_OperationType = DB_TYPE_RST;
        const int result =
            process({"RECOVERY=YES", std::string("ROLLFORWARD=") + c.value, "DATABASE=a.nsf"});
        EXPECT_EQ(result, c.moment < 0 ? DB_NUM_E_FAILED : DB_NUM_I_OK);
        EXPECT_EQ(global.sRecoveryChoices.bFindsPending, c.moment >= 0);
        EXPECT_EQ(global.sRecoveryChoices.bToMoment, c.moment > 0);
        EXPECT_EQ(global.sRecoveryChoices.tMoment, c.moment < 0 ? 0 : c.moment);
        TYPE_DB_Error error = {};
        takeError(&error);
        EXPECT_EQ(std::string(error.szDBErrorMsg)
                      .starts_with(std::string("ROLLFORWARD=") + c.value + ": "),
                  c.moment < 0)
            << error.szDBErrorMsg;
        EXPECT_EQ(global.lhArgumentFileList == nullptr, c.moment < 0);
    }
}

TEST_F(ControlVariables, RollForwardIsForOneRecoveryAlone) {
    struct Case {
        DB_OPERATION_TYPE type;
        std::vector<std::string> variables;
        int result;
        bool chosen;
    };
    const Case cases[] = {
        {DB_TYPE_RST, {"ROLLFORWARD=YES", "RECOVERY=YES"}, 3000, true},
        {DB_TYPE_RST, {"RECOVERY=YES"}, 3000, false}, // nothing is left of the operation before
        {DB_TYPE_RST, {"ROLLFORWARD=YES"}, 3000, false},
        {DB_TYPE_BCK, {"ROLLFORWARD=YES", "RECOVERY=YES"}, 3000, false},
        {DB_TYPE_RST, {"ROLLFORWARD=NO"}, 1000, false},
        {DB_TYPE_RST, {"RECOVERY=YES", "ROLLFORWARD=YES", "ROLLFORWARD=YES"}, 1000, false},
    };
    for (Case c : cases) {
        global.eI_OperationType = c.type;
        c.variables.emplace_back("DATABASE=a.nsf");
        EXPECT_EQ(process(c.variables), c.result);
        EXPECT_EQ(global.sRecoveryChoices.bSearchesForDatabases, c.chosen);
    }
}

} // namespace
