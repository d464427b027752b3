// Owner of a file-list queue that lives for one call.
#pragma once

#include <memory>

#include "common/non_copyable.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"

struct DestroyFifo {
    void operator()(LIST_INFO* list) const { DestroyFIFOList(list); }
};
using FifoList = std::unique_ptr<LIST_INFO, DestroyFifo>;

// Destroys the database arguments of the operation when the initialisation that consumes them ends,
// however it ends.
struct ArgumentListRelease : NonCopyable {
    ~ArgumentListRelease() {
        DestroyFIFOList(g_sQRTLN_Global.lhArgumentFileList);
        g_sQRTLN_Global.lhArgumentFileList = nullptr;
    }
};
