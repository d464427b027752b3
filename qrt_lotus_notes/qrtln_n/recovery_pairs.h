// The databases of one recovery: restored copies and the originals whose place they take.
#pragma once

#include <string>
#include <vector>

#include "common/non_copyable.h"
#include "qrt_lotus_notes/operation_state.h"

// Stands between the two paths of an entry of the recovery list: the restored copy and the original
// whose place it is to take. Equal paths: the database is recovered where it lies.
inline constexpr char kRecoverySeparator[] = "[?]";

// An entry of the recovery list.
struct RecoveryPair {
    std::string restored;
    std::string original;
    bool bInPlace; // one file, by whatever spelling: it must be neither copied nor deleted
};

// The entries of the recovery list (restored path, kRecoverySeparator, original), in its order. The
// list stays as it is.
std::vector<RecoveryPair> readPairs(LIST_INFO* _lhRecoveryList);

// What this recovery does beyond what the old control variables ask for.
inline const RecoveryChoices& recoveryChoices() {
    return g_sQRTLN_Global.sRecoveryChoices;
}

// The originals that were taken offline. Where the choices say so they are brought online again at
// the end of scope, but for those that the recovery itself has brought online.
class OfflineOriginals : NonCopyable {
  public:
    ~OfflineOriginals();

    void add(const std::string& original) { m_originals.push_back(original); }
    void release(const std::string& original);

  private:
    std::vector<std::string> m_originals;
};
