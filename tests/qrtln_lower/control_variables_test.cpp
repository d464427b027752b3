#include "qrt_lotus_notes/qrtln_u/control_variables.h"

#include <cstring>
#include <ctime>

#include "tests/qrtln_lower/operation_test.h"

namespace {

class ControlVariables : public OperationTest {
  protected:
    ControlVariables() { startAfresh("UTC"); }
    ~ControlVariables() override { setenv("TZ", "UTC", 1); }

    // Nothing is left of an operation before.
    static void startAfresh(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
        DestroyFIFOList(global.lhArgumentFileList);
        const auto trace = global.vpTraceFunc;
        global = {};
        global.vpTraceFunc = trace;
        global.LNDocRecoveryType = LNDocRecoveryType_non;
    }

    static int process(std::vector<std::string> variables) {
        DestroyFIFOList(global.lhArgumentFileList);
        global.lhArgumentFileList = nullptr;
        std::vector<char*> pointers;
        for (std::string& variable : variables) {
            pointers.push_back(variable.data());
        }
        pointers.push_back(nullptr);
        return ProcessCtrlVars(pointers.data());
    }
    // The record as a text: each field that is not as at the start of an operation.
    static std::string state() {
        const auto field = [](const char* name, const std::string& value) {
            return value.empty() ? "" : std::string(" ") + name + " " + value;
        };
        const std::string user = global.szDB_User;
        const int kind = global.LNDocRecoveryType;
        return field("user", user == "notes" ? "" : user) + field("tmp", global.szTmpDir) +
               field("ini", global.szDB_Notesini) + field("-R", global.szRelocationDir) +
               (global.bPlainRestore ? " plain" : "") + (global.bRecovery ? " recovery" : "") +
               (global.bNewDbiid ? " new" : "") + (global.bActivate ? " activate" : "") +
               (global.tSinceTime != 0 ? field("since", std::to_string(global.tSinceTime)) : "") +
               (kind == LNDocRecoveryType_del ? " deld" : "") +
               (kind == LNDocRecoveryType_chg ? " chgd" : "") + field("at", global.szPointInTime);
    }

    inline static QRTLN_Global& global = g_sQRTLN_Global;
};

TEST_F(ControlVariables, SetTheirFields) {
    const std::pair<const char*, const char*> cases[] = {
        {"ACTIVATE:YES", " activate"},
        // Of a switch the three capital letters count, and no separator is looked at.
        {"RECOVERY=YESNO", " recovery"},
        {"RECOVERY=yes", ""},
        {"SNC_TIME=20240715120000", " since 1721037600"},
        {"SNC_TIME=19700101005959", ""}, // the last second before 1970 UTC
        {"INFO=-R \"/r/s t\"", " -R /r/s t"},
        {"INFO=cmd -R  \"\"/r\" -R \"/second\"", " -R /r"},
        {"INFO=-R \"NOTES\"", ""},
        {"INFO=-R \"\\\"", ""},
        {"INFO=-R /no-closing quote", " -R /no-closing quote"},
        {"INFO=-o \"plain\"", " plain"},
        {"INFO=-o \"a,preserve\"", " plain"}, // any later option that begins with "p"
        {"INFO=-o \"a\" -o \"plain\"", ""},   // the first one counts
        {"INFO=-R \"/data-old\" -o \"plain\"", " -R /data-old"}, // be it within a path
        {"INFO=-o \"deld=202401151030\"", " deld at 202401151030"},
        {"INFO=-o \"CHGD=2\" -R \"/a=b\"", " -R /a=b chgd at 2"},
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
    startAfresh("UTC");
    process({"INFO=-o \"chgd\" -R \"\"", "DATABASE=x"});
    EXPECT_THAT(state(), testing::MatchesRegex(" chgd at 20[0-9]{10}")) << "the current minute";
}

TEST_F(ControlVariables, DefaultsComeBackButForWhatStaysForTheProcess) {
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

// The arguments come through one buffer: one that exists yields itself again and again, a directory
// without its trailing delimiter, until the whole system is named.
TEST_F(ControlVariables, ExistingArgumentHidesThoseAfterIt) {
    process({"DATABASE=first", "DATABASE=" + folder.path() + "/", "DATABASE=b.nsf",
             "DATABASE=c.nsf", "DATABASE=all", "DATABASE=d.nsf", "DATABASE=/", "DATABASE=e.nsf"});
    EXPECT_EQ(drain(global.lhArgumentFileList), "first @/ @ @ NOTES d.nsf / e.nsf");
}

// One table of clocks for both times: SNC_TIME is the earlier of two, ROLLFORWARD refuses what is
// not one.
TEST_F(ControlVariables, TimesThatAClockRepeatsOrSkipsAreTheEarlierOrRefused) {
    constexpr bool once = true, notOnce = false;
    const struct {
        std::string zone, time;
        time_t earliest;
        bool exists;
    } cases[] = {
        {"Europe/Berlin", "20240115123015", 1705318215, once},
        {"Europe/Berlin", "20240331023000", 1711845000, notOnce}, // skipped
        {"Europe/Berlin", "20240331030000", 1711846800, once},
        {"Europe/Berlin", "20241027015959", 1729987199, once},
        {"Europe/Berlin", "20241027020000", 1729987200, notOnce}, // repeated
        {"Europe/Berlin", "20241027030000", 1729994400, once},
        {"Europe/Berlin", "20400325023000", 2216248200, notOnce}, // behind 2038
        {"America/Santiago", "20240908003000", 1725766200, notOnce},
        {"America/Santiago", "20240406233000", 1712457000, notOnce},    // at midnight
        {"Australia/Lord_Howe", "20260405014500", 1775313900, notOnce}, // half an hour
        {"Australia/Lord_Howe", "20260405020000", 1775316600, once},
        {"Africa/Casablanca", "20260215023000", 1771119000, notOnce}, // in winter, back in spring
        {"Africa/Casablanca", "20260322023000", 1774143000, notOnce},
        {"Pacific/Kiritimati", "20260101000000", 1767175200, once},   // 14 hours east
        {"Pacific/Kiritimati", "19941231120000", 788824800, notOnce}, // moved: no such day
        {"Pacific/Kwajalein", "19690930120000", -8031600, notOnce},   // moved: this day twice
        {"Pacific/Kwajalein", "19691001000000", -7905600, once},
        {"UTC", "20240229000000", 1709164800, once},
    };
    for (const auto& [zone, time, earliest, exists] : cases) {
        SCOPED_TRACE(zone + " " + time);
        startAfresh(zone.c_str());
        global.eI_OperationType = DB_TYPE_RST;
        EXPECT_EQ(process({"SNC_TIME=" + time, "DATABASE=a.nsf"}), DB_NUM_I_OK);
        EXPECT_EQ(global.tSinceTime, earliest);
        EXPECT_EQ(process({"RECOVERY=YES", "ROLLFORWARD=" + time, "DATABASE=a.nsf"}),
                  exists ? DB_NUM_I_OK : DB_NUM_E_FAILED);
        EXPECT_EQ(global.sRecoveryChoices.bToMoment, exists);
        EXPECT_EQ(global.sRecoveryChoices.tMoment, exists ? earliest : 0);
    }
}

TEST_F(ControlVariables, RollForwardIsRefusedForWhatIsNeitherYesNorATime) {
    global.eI_OperationType = DB_TYPE_RST;
    for (const std::string refused :
         {"20230229000000", "20240115240000", "", "yes", "YES ", "202401151230150",
          "2024 115123015", "+2024011512301", "%s%n%s%n%s%n%s"}) {
        const std::string variable = "ROLLFORWARD=" + refused;
        EXPECT_EQ(process({"RECOVERY=YES", variable, "DATABASE=a.nsf"}), DB_NUM_E_FAILED);
        EXPECT_FALSE(global.sRecoveryChoices.bFindsPending) << refused;
        EXPECT_TRUE(takeErrorText().starts_with(variable + ": "));
        EXPECT_EQ(global.lhArgumentFileList, nullptr);
    }
}

TEST_F(ControlVariables, RollForwardIsForOneRecoveryAlone) {
    const std::string yes = "ROLLFORWARD=YES", recovery = "RECOVERY=YES", x = "DATABASE=x";
    const struct {
        DB_OPERATION_TYPE type;
        std::vector<std::string> variables;
        int result;
        bool chosen;
    } cases[] = {
        {DB_TYPE_RST, {yes, recovery, x}, 3000, true},
        {DB_TYPE_RST, {yes, x}, 3000, false}, // nothing is left of the operation before
        {DB_TYPE_RST, {recovery, x}, 3000, false},
        {DB_TYPE_BCK, {yes, recovery, x}, 3000, false},
        {DB_TYPE_RST, {recovery, yes, yes, x}, 1000, false},
    };
    for (const auto& c : cases) {
        global.eI_OperationType = c.type;
        EXPECT_EQ(process(c.variables), c.result);
        EXPECT_EQ(global.sRecoveryChoices.bSearchesForDatabases, c.chosen);
    }
}

TEST(IniValue, IsFoundInItsSectionAlone) {
    const TemporaryFolder folder;
    const std::string path = folder.write(
        "x.ini", "top = 1\n\n[One]\r\nKey\t= a = b \r\nno value\nlong=" + std::string(3000, 'l') +
                     "\n  [two] \nkey=2\nempty=\nlast=end");
    const struct {
        const char *section, *key;
        int result;
        std::string value;
    } cases[] = {
        {nullptr, "TOP", DB_NUM_I_OK, "1"},
        {nullptr, "key", DB_NUM_E_FAILED, ""}, // behind the next section
        {" [ONE] ", " key ", DB_NUM_I_OK, "a = b"},
        {"[one]", "long", DB_NUM_I_OK, std::string(1506, 'l')}, // lines are read 1511 at a time
        {"[Two]", "empty", DB_NUM_I_OK, ""},
        {"[two]", "last", DB_NUM_I_OK, "end"},
        {"two", "key", DB_NUM_E_FAILED, ""}, // the brackets belong to the name
    };
    for (const auto& c : cases) {
        char value[kMessageSize] = "";
        EXPECT_EQ(ini_get_value(path.c_str(), c.section, c.key, value), c.result) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    char value[kMessageSize] = "";
    EXPECT_EQ(ini_get_value(folder.file("missing").c_str(), nullptr, "k", value), DB_NUM_E_FAILED);
}

} // namespace
