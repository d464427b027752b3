#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// The cursor of ListFIFOItem: the number of the record that comes next. There is one for all
// queues, and only a call that reports the end sets it back: a walk over one queue that stops early
// makes the next walk, over any queue, start in the middle.
int iItemAt = 1;

// The record found last and its number, so that a step of a walk need not start at the head again.
// Nothing but a short way: it is forgotten when a record of its queue goes away.
struct Place {
    const LIST_INFO* queue;
    LIST_ITEM* item;
    int number;
};
Place s_lastPlace = {};

void forgetPlaceIn(const LIST_INFO* queue) {
    if (s_lastPlace.queue == queue) {
        s_lastPlace = {};
    }
}

void* allocate(const char* function, std::size_t size) {
    void* const block = std::malloc(size);
    if (block == nullptr) {
        std::fprintf(stderr, "In %s: %s \n", function, "malloc returned NULL");
        std::exit(-1);
    }
    return block;
}

void freeItem(LIST_ITEM* item) {
    std::free(item->vpData);
    std::free(item);
}

bool isEmpty(const LIST_INFO* queue) {
    return queue == nullptr || queue->spFirstItem == nullptr;
}

bool hasNumber(const LIST_INFO* queue, int number) {
    return !isEmpty(queue) && number >= 1 && number <= queue->iItemCount;
}

// The record of a number that the queue has.
LIST_ITEM* itemAt(const LIST_INFO* queue, int number) {
    Place place = {queue, queue->spFirstItem, 1};
    if (s_lastPlace.queue == queue && s_lastPlace.number <= number) {
        place = s_lastPlace;
    }
    for (; place.number < number; ++place.number) {
        place.item = place.item->spNextItem;
    }
    s_lastPlace = place;
    return place.item;
}

// The text at the start of a payload, which need not be terminated.
std::string textOf(const void* data, std::size_t size) {
    const char* const text = static_cast<const char*>(data);
    return {text, strnlen(text, size)};
}

} // namespace

LIST_INFO* CreateFIFOList() {
    auto* const queue = static_cast<LIST_INFO*>(allocate("CreateFIFOList", sizeof(LIST_INFO)));
    *queue = {};
    return queue;
}

BOOL PushFIFOItemLN(LIST_INFO* hListHandle, const void* vpItemData, unsigned int uiItemDataSize,
                    DB_BACKUP_FILE_TYPE _e_BackupFileType) {
    if (hListHandle == nullptr || uiItemDataSize >= INT_MAX) {
        return FALSE;
    }
    DB_TraceExt("PushFIFOItemLN: %s.", getUTF8FileName(textOf(vpItemData, uiItemDataSize).c_str()));
    auto* const item = static_cast<LIST_ITEM*>(allocate("PushFIFOItemLN", sizeof(LIST_ITEM)));
    auto* const data = static_cast<char*>(allocate("PushFIFOItemLN", uiItemDataSize + 1U));
    if (uiItemDataSize > 0) {
        std::memcpy(data, vpItemData, uiItemDataSize);
    }
    data[uiItemDataSize] = static_cast<char>(_e_BackupFileType);
    *item = {data, static_cast<int>(uiItemDataSize), nullptr};
    (isEmpty(hListHandle) ? hListHandle->spFirstItem : hListHandle->spLastItem->spNextItem) = item;
    hListHandle->spLastItem = item;
    ++hListHandle->iItemCount;
    return TRUE;
}

BOOL PullFIFOItemLN(LIST_INFO* hListHandle, void* vpItemData, unsigned int* uipItemDataSize,
                    DB_BACKUP_FILE_TYPE* ep_BackupFileType) {
    if (isEmpty(hListHandle)) {
        return FALSE;
    }
    LIST_ITEM* const head = hListHandle->spFirstItem;
    const auto size = static_cast<unsigned int>(head->iDataSize);
    std::memcpy(vpItemData, head->vpData, size);
    *uipItemDataSize = size;
    *ep_BackupFileType =
        static_cast<DB_BACKUP_FILE_TYPE>(static_cast<const signed char*>(head->vpData)[size]);
    return DeleteFIFOItemAt(hListHandle, 1);
}

BOOL PullFIFOItemAt(LIST_INFO* hListHandle, int iNumber, void* vpItemData,
                    unsigned int* uipItemDataSize) {
    if (!hasNumber(hListHandle, iNumber)) {
        return FALSE;
    }
    const LIST_ITEM* const item = itemAt(hListHandle, iNumber);
    std::memcpy(vpItemData, item->vpData, static_cast<std::size_t>(item->iDataSize));
    *uipItemDataSize = static_cast<unsigned int>(item->iDataSize);
    return TRUE;
}

BOOL ListFIFOItem(LIST_INFO* hListHandle, void* vpItemData, unsigned int* uipItemDataSize) {
    if (!PullFIFOItemAt(hListHandle, iItemAt, vpItemData, uipItemDataSize)) {
        iItemAt = 1;
        return FALSE;
    }
    ++iItemAt;
    return TRUE;
}

BOOL FIFOItemExists(LIST_INFO* hListHandle, const char* cpItem) {
    // As every walk this one starts at the shared cursor and ends at the end, which sets it back.
    // The records are looked at in place: one may be larger than any buffer here.
    BOOL bExists = FALSE;
    for (; hasNumber(hListHandle, iItemAt); ++iItemAt) {
        const LIST_ITEM* const item = itemAt(hListHandle, iItemAt);
        if (textOf(item->vpData, static_cast<std::size_t>(item->iDataSize)) == cpItem) {
            bExists = TRUE;
        }
    }
    iItemAt = 1;
    return bExists;
}

BOOL DeleteFIFOItemAt(LIST_INFO* hListHandle, int iNumber) {
    if (!hasNumber(hListHandle, iNumber)) {
        return FALSE;
    }
    LIST_ITEM* const predecessor = iNumber == 1 ? nullptr : itemAt(hListHandle, iNumber - 1);
    LIST_ITEM* const removed =
        predecessor == nullptr ? hListHandle->spFirstItem : predecessor->spNextItem;
    forgetPlaceIn(hListHandle);
    (predecessor == nullptr ? hListHandle->spFirstItem : predecessor->spNextItem) =
        removed->spNextItem;
    if (hListHandle->spLastItem == removed) {
        hListHandle->spLastItem = predecessor;
    }
    freeItem(removed);
    --hListHandle->iItemCount;
    return TRUE;
}

int getFIFOItemNumber(LIST_INFO* hListHandle) {
    int number = 0;
    if (hListHandle != nullptr) {
        for (const LIST_ITEM* item = hListHandle->spFirstItem; item != nullptr;
             item = item->spNextItem) {
            ++number;
        }
    }
    return number;
}

void DestroyFIFOList(LIST_INFO* hListHandle) {
    if (hListHandle == nullptr) {
        return;
    }
    // A new queue may be given the same address.
    forgetPlaceIn(hListHandle);
    for (LIST_ITEM* item = hListHandle->spFirstItem; item != nullptr;) {
        LIST_ITEM* const next = item->spNextItem;
        freeItem(item);
        item = next;
    }
    std::free(hListHandle);
}

BOOL pushPath(LIST_INFO* hListHandle, const char* path, DB_BACKUP_FILE_TYPE kind) {
    const std::size_t size = std::strlen(path) + 1;
    if (size > kPathSize) {
        DB_LogExt("the path is longer than %d bytes and is skipped: %s",
                  static_cast<int>(kPathSize - 1), path);
        return FALSE;
    }
    return PushFIFOItemLN(hListHandle, path, static_cast<unsigned int>(size), kind);
}

bool pullPath(LIST_INFO* hListHandle, char (&szPath)[kPathSize]) {
    unsigned int uiSize = 0;
    DB_BACKUP_FILE_TYPE eKind = DB_BACKUP_FILE_TYPE_DB;
    return PullFIFOItemLN(hListHandle, szPath, &uiSize, &eKind) != FALSE;
}
