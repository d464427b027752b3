// INFO: the input is the value. What ProcessCtrlVars makes of it is compared with a model that
// follows the description of the three searches, written for being plain and not for being fast.
#include <cstring>
#include <optional>
#include <strings.h>

#include "fuzz/support/module_checks.h"
#include "fuzz/support/target.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"

namespace {

using fuzz::require;

// From the first blank or quote on that is neither, to the next quote or the end.
std::optional<std::string> textOfOption(const std::string& value, const std::string& option) {
    std::size_t at = value.find(option);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    at += option.size();
    while (at < value.size() && (value[at] == ' ' || value[at] == '"')) {
        ++at;
    }
    std::string text;
    while (at < value.size() && value[at] != '"') {
        text += value[at++];
    }
    return text;
}

std::string relocation(const std::string& value) {
    const std::optional<std::string> text = textOfOption(value, "-R");
    if (!text || *text == "NOTES" || strcasecmp(text->c_str(), "all") == 0 || *text == "/" ||
        *text == "\\") {
        return "";
    }
    return text->substr(0, kPathSize - 1);
}

bool isPlain(const std::string& value) {
    const std::string text = textOfOption(value, "-o").value_or("");
    return text == "plain" || text == "p" || text.find(",p") != std::string::npos;
}

struct DocumentRestore {
    e_LNDocRecoveryType kind = LNDocRecoveryType_non;
    bool isNow = false; // no point in time was given
    std::string pointInTime;
};

DocumentRestore documentRestore(const std::string& value) {
    DocumentRestore result;
    std::size_t at = std::string::npos;
    for (const char* keyword : {"deld", "chgd", "DELD", "CHGD"}) {
        at = value.find(keyword);
        if (at != std::string::npos) {
            break;
        }
    }
    if (at == std::string::npos) {
        return result;
    }
    const bool deleted =
        value.find("deld") != std::string::npos || value.find("DELD") != std::string::npos;
    result.kind = deleted ? LNDocRecoveryType_del : LNDocRecoveryType_chg;
    const std::size_t quote = value.find('"', at);
    const std::string rest = value.substr(at, quote == std::string::npos ? quote : quote - at);
    const std::size_t equals = rest.find('=');
    result.isNow = equals == std::string::npos;
    if (!result.isNow) {
        result.pointInTime = rest.substr(equals + 1).substr(0, 31);
    }
    return result;
}

} // namespace

void fuzz::runInput(std::string_view input) {
    clearRecord();
    g_sQRTLN_Global.LNDocRecoveryType = LNDocRecoveryType_non;
    const std::string value = expanded(input);
    std::string info = "INFO=" + value;
    std::string database = "DATABASE=NOTES";
    char* variables[] = {info.data(), database.data(), nullptr};
    require(ProcessCtrlVars(variables) == DB_NUM_I_OK, "INFO alone never fails an operation");

    checkRecord();
    const QRTLN_Global& global = g_sQRTLN_Global;
    require(relocation(value) == global.szRelocationDir, "szRelocationDir");
    require(isPlain(value) == (global.bPlainRestore != FALSE), "bPlainRestore");
    const DocumentRestore documents = documentRestore(value);
    require(documents.kind == global.LNDocRecoveryType, "LNDocRecoveryType");
    const std::string_view moment = global.szPointInTime;
    require(documents.isNow ? moment.size() == 12 &&
                                  moment.find_first_not_of("0123456789") == std::string_view::npos
                            : moment == documents.pointInTime,
            "szPointInTime");
    DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
    g_sQRTLN_Global.lhArgumentFileList = nullptr;
}
