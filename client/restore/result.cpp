#include "client/restore/result.h"

#include "client/base/text.h"

namespace qrtln {

nlohmann::json failures_json(const std::vector<FailedRestore>& list) {
    nlohmann::json array = nlohmann::json::array();
    for (const FailedRestore& failed : list)
        array.push_back(
            {{"path", printable_utf8(failed.path)}, {"reason", printable_utf8(failed.reason)}});
    return array;
}

} // namespace qrtln
