#include "qrt_lotus_notes/operation_state.h"

#include <atomic>

QRTLN_Global g_sQRTLN_Global;
char szCurrentOriginalDirectory[kPathSize];
int iCounter = 0;
BOOL bFileOpen = FALSE;

bool stopRequested() {
    return std::atomic_ref<BOOL>(g_sQRTLN_Global.bTerminate).load(std::memory_order_relaxed) !=
           FALSE;
}

void requestStop(bool stop) {
    std::atomic_ref<BOOL>(g_sQRTLN_Global.bTerminate)
        .store(stop ? TRUE : FALSE, std::memory_order_relaxed);
}
