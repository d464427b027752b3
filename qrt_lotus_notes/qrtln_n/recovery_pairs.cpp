#include "qrt_lotus_notes/qrtln_n/recovery_pairs.h"

#include <algorithm>
#include <cstring>

#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/copy_path.h"
#include "qrt_lotus_notes/qrtln_n/offline_databases.h"

namespace {

bool splitEntry(const char* cpEntry, RecoveryPair& pair) {
    const char* separator = std::strstr(cpEntry, kRecoverySeparator);
    if (separator == nullptr) {
        // Not run by a test: the caller has refused such a path, or built it so that it fits.
        return false;
    }
    pair.restored.assign(cpEntry, separator);
    pair.original = separator + sizeof kRecoverySeparator - 1;
    pair.bInPlace =
        pair.restored == pair.original || isSameFile(pair.restored.c_str(), pair.original.c_str());
    return true;
}

} // namespace

std::vector<RecoveryPair> readPairs(LIST_INFO* _lhRecoveryList) {
    std::vector<RecoveryPair> pairs;
    char szEntry[kPathSize];
    unsigned int uiSize = 0;
    while (ListFIFOItem(_lhRecoveryList, szEntry, &uiSize)) {
        RecoveryPair pair;
        if (splitEntry(szEntry, pair)) {
            pairs.push_back(pair);
        }
    }
    return pairs;
}

OfflineOriginals::~OfflineOriginals() {
    if (recoveryChoices().bBringsBackOnline) {
        for (const std::string& original : m_originals) {
            BringDbsOnline(original.c_str());
        }
    }
}

void OfflineOriginals::release(const std::string& original) {
    m_originals.erase(std::remove(m_originals.begin(), m_originals.end(), original),
                      m_originals.end());
}
