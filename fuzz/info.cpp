// INFO: the input is the value.
#include "fuzz/support.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"

void fuzz::runInput(std::string_view input) {
    clearRecord();
    g_sQRTLN_Global.LNDocRecoveryType = LNDocRecoveryType_non;
    Variables variables({"INFO=" + std::string(input), "DATABASE=NOTES"});
    const std::string value = variables.texts[0];
    require(ProcessCtrlVars(variables.array.data()) == DB_NUM_I_OK,
            "INFO alone never fails an operation");

    checkRecord();
    const QRTLN_Global& global = g_sQRTLN_Global;
    require(value.find(global.szRelocationDir) != std::string::npos, "what INFO names is in it");
    const std::string_view moment = global.szPointInTime;
    const bool isNow =
        moment.size() == 12 && moment.find_first_not_of("0123456789") == std::string_view::npos;
    require(isNow || value.find(moment) != std::string::npos, "a point in time is now or given");
    const bool isRestore =
        value.find("deld") != std::string::npos || value.find("DELD") != std::string::npos ||
        value.find("chgd") != std::string::npos || value.find("CHGD") != std::string::npos;
    require((global.LNDocRecoveryType != LNDocRecoveryType_non) == isRestore,
            "documents are restored where a keyword says so");
    DestroyFIFOList(global.lhArgumentFileList);
    g_sQRTLN_Global.lhArgumentFileList = nullptr;
}
