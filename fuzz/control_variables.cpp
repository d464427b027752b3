// Control variables: one byte for the operation's type, one for the time zone, then one variable a
// line.
#include <array>
#include <cstdlib>
#include <ctime>

#include "common/bounded_text.h"
#include "fuzz/support.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"

namespace {

using fuzz::require;

constexpr std::array kZones = {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                               "LHST-10:30LHDT-11,M10.1.0,M4.1.0"};

// A moment is the one that the value names, in this time zone.
void checkRollForward(const std::vector<std::string>& values) {
    const RecoveryChoices& choices = g_sQRTLN_Global.sRecoveryChoices;
    const bool isRecovery =
        g_sQRTLN_Global.eI_OperationType == DB_TYPE_RST && g_sQRTLN_Global.bRecovery != FALSE;
    require(values.size() <= 1, "ROLLFORWARD twice is refused");
    require((choices.bFindsPending != FALSE) == (isRecovery && !values.empty()),
            "ROLLFORWARD chooses for a recovery that asks for it");
    require((choices.bToMoment != FALSE) == (choices.bFindsPending != FALSE && values[0] != "YES"),
            "a moment is chosen for fourteen digits alone");
    if (choices.bToMoment != FALSE) {
        struct tm local;
        char text[32];
        require(localtime_r(&choices.tMoment, &local) != nullptr &&
                    strftime(text, sizeof text, "%Y%m%d%H%M%S", &local) != 0 && values[0] == text,
                "the moment is the one that was given");
    }
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
    const QRTLN_Global& global = g_sQRTLN_Global;
    g_sQRTLN_Global.eI_OperationType = static_cast<DB_OPERATION_TYPE>(input[0] & 3);
    copyText(g_sQRTLN_Global.szNotesDataDirectory, (folder() + "/data/").c_str());

    constexpr std::string_view kRollForward = "ROLLFORWARD";
    Variables variables(split(input.substr(2), '\n'));
    std::vector<std::string> moments;
    for (const std::string& variable : variables.texts) {
        if (variable.starts_with(kRollForward)) {
            moments.push_back(variable.substr(std::min(variable.size(), kRollForward.size() + 1)));
        }
    }
    const int result = ProcessCtrlVars(variables.array.data());
    checkRecord();
    if (result == DB_NUM_I_OK) {
        checkQueue(global.lhArgumentFileList);
        require(getFIFOItemNumber(global.lhArgumentFileList) > 0, "a queue of the arguments");
        checkRollForward(moments);
    } else {
        require(result == DB_NUM_E_FAILED, "3000 or 1000");
        require(global.lhArgumentFileList == nullptr, "a failure leaves no queue");
        require(global.ulDBErrorCode != 0, "a failure is reported");
    }
    DestroyFIFOList(global.lhArgumentFileList);
    g_sQRTLN_Global.lhArgumentFileList = nullptr;
    require(!refusedChange(), "control variables change nothing on the disk");
}
