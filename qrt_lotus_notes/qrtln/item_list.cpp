#include "qrt_lotus_notes/qrtln/item_list.h"

#include <cerrno>

#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "qrt_lotus_notes/syserrtxt.h"

s_CurrentItem* psCurrentListItem = nullptr;

bool appendRecord(t_LL list, const s_CurrentItem& item) {
    return list != nullptr && InsLastLLf(list, sizeof item, &item) != nullptr;
}

// Not run by a test: the lists end the process before they return nothing.
int reportNoRecord(const char* cpFunction) {
    const int error = errno;
    DB_LogExt("%s: InsLastLL returned malloc error (%d): %s", cpFunction, error,
              getSysMsg(static_cast<unsigned int>(error)));
    DB_ErrHandler(static_cast<unsigned long>(error), kErrorKindErrno, "malloc failed");
    return DB_NUM_E_FAILED;
}

s_CurrentItem* nextUnfinished() {
    t_LL list = g_sQRTLN_Global.LL_CurrentItemList;
    if (psCurrentListItem != nullptr) {
        void* next = NextElmLL(psCurrentListItem);
        if (!IsElmLL(next)) {
            return nullptr;
        }
        DelElmLL(psCurrentListItem);
        psCurrentListItem = static_cast<s_CurrentItem*>(next);
    } else if (list != nullptr && !IsEmptyLL(list)) {
        psCurrentListItem = static_cast<s_CurrentItem*>(FirstElmLL(list));
    }
    return psCurrentListItem;
}

void leaveFinished(const s_CurrentItem& item) {
    // The last element stays, with the cursor on it: the way to an item that DB_GetItem appends
    // later leads through it.
    if (!IsElmLL(NextElmLL(psCurrentListItem))) {
        DB_TraceExt("Keep last element [%s]", getUTF8FileName(item.szCurrentListItem));
    } else {
        DB_TraceExt("Delete element from list [%s]", getUTF8FileName(item.szCurrentListItem));
        DelElmLL(psCurrentListItem);
        psCurrentListItem = nullptr;
    }
}
