// Control variables: one byte for the operation's type, one for the time zone, then one variable a
// line. Checked against a model of the plain keywords; the buffers and the queue by their rules.
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "fuzz/support/confinement.h"
#include "fuzz/support/module_checks.h"
#include "fuzz/support/target.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"

namespace {

using fuzz::require;

constexpr std::array kZones = {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                               "LHST-10:30LHDT-11,M10.1.0,M4.1.0"};

// In the order in which they are tried.
constexpr std::array<std::string_view, 10> kKeywords = {
    "DB_USER",  "TMP_DIR",  "RECOVERY", "NEWDBIID", "ACTIVATE",
    "NOTESINI", "SNC_TIME", "INFO",     "DATABASE", "ROLLFORWARD"};

// What the plain keywords come to.
struct Model {
    std::string user = "notes";
    std::string temporaryDirectory;
    std::string notesIni;
    std::string since;
    bool recovery = false;
    bool newDbiid = false;
    bool activate = false;
    int databases = 0;
    int rollForwards = 0;
    std::string rollForward;

    void take(const std::string& variable) {
        for (const std::string_view keyword : kKeywords) {
            if (variable.starts_with(keyword)) {
                apply(keyword, variable.size() > keyword.size()
                                   ? variable.substr(keyword.size() + 1)
                                   : std::string());
                return;
            }
        }
    }

    void apply(std::string_view keyword, const std::string& value) {
        const bool yes = value.starts_with("YES");
        if (keyword == "DB_USER") {
            user = value.substr(0, 127);
        } else if (keyword == "TMP_DIR") {
            temporaryDirectory = value.substr(0, kPathSize - 1);
        } else if (keyword == "NOTESINI") {
            notesIni = value.substr(0, kPathSize - 1);
        } else if (keyword == "SNC_TIME") {
            since = value.substr(0, 31);
        } else if (keyword == "RECOVERY") {
            recovery = recovery || yes;
        } else if (keyword == "NEWDBIID") {
            newDbiid = newDbiid || yes;
        } else if (keyword == "ACTIVATE") {
            activate = activate || yes;
        } else if (keyword == "DATABASE") {
            ++databases;
        } else if (keyword == "ROLLFORWARD") {
            ++rollForwards;
            rollForward = value;
        }
    }
};

// A moment is the one that the value names, in this time zone.
void checkRollForward(const Model& model) {
    const RecoveryChoices& choices = g_sQRTLN_Global.sRecoveryChoices;
    const bool isRecovery = g_sQRTLN_Global.eI_OperationType == DB_TYPE_RST && model.recovery;
    require((choices.bFindsPending != FALSE) == (isRecovery && model.rollForwards == 1),
            "ROLLFORWARD chooses for a recovery that asks for it");
    require((choices.bToMoment != FALSE) ==
                (choices.bFindsPending != FALSE && model.rollForward != "YES"),
            "a moment is chosen for fourteen digits alone");
    if (choices.bToMoment != FALSE) {
        struct tm local;
        char text[32];
        require(localtime_r(&choices.tMoment, &local) != nullptr, "the moment has a local time");
        std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        require(model.rollForward == text, "the moment is the one that was given");
    }
}

void check(const Model& model, int result) {
    const QRTLN_Global& global = g_sQRTLN_Global;
    fuzz::checkRecord();
    require(model.user == global.szDB_User, "szDB_User");
    require(model.temporaryDirectory == global.szTmpDir, "szTmpDir");
    require(model.notesIni == global.szDB_Notesini, "szDB_Notesini");
    require(model.since == global.szDB_SinceTime, "szDB_SinceTime");
    require(model.recovery == (global.bRecovery != FALSE), "bRecovery");
    require(model.newDbiid == (global.bNewDbiid != FALSE), "bNewDbiid");
    require(model.activate == (global.bActivate != FALSE), "bActivate");
    if (result != DB_NUM_I_OK) {
        require(result == DB_NUM_E_FAILED, "3000 or 1000");
        require(global.lhArgumentFileList == nullptr, "a failure leaves no queue");
        require(global.ulDBErrorCode != 0, "a failure is reported");
        return;
    }
    require(model.rollForwards <= 1, "ROLLFORWARD twice is refused");
    fuzz::checkQueue(global.lhArgumentFileList);
    const int queued = getFIFOItemNumber(global.lhArgumentFileList);
    require(queued > 0 && queued <= model.databases, "a queue of the arguments");
    checkRollForward(model);
}

} // namespace

void fuzz::runInput(std::string_view input) {
    if (input.size() < 2) {
        return;
    }
    prepareDataTree();
    setenv("TZ", kZones[static_cast<unsigned char>(input[1]) % kZones.size()], 1);
    tzset();
    clearRecord();
    g_sQRTLN_Global.eI_OperationType = static_cast<DB_OPERATION_TYPE>(input[0] & 3);
    const std::string data = folder() + "/data/";
    std::memcpy(g_sQRTLN_Global.szNotesDataDirectory, data.c_str(), data.size() + 1);

    Model model;
    std::vector<std::string> variables;
    for (const std::string_view line : split(input.substr(2), '\n')) {
        variables.push_back(expanded(line));
        model.take(variables.back());
    }
    std::vector<char*> array;
    for (std::string& variable : variables) {
        array.push_back(variable.data());
    }
    array.push_back(nullptr);
    const int result = ProcessCtrlVars(array.data());
    check(model, result);
    DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
    g_sQRTLN_Global.lhArgumentFileList = nullptr;
    require(!refusedChange(), "control variables change nothing on the disk");
}
