// The file-list queue: first in, first out, of byte records with a one-byte item kind. The names of
// the files that an operation handles are queued here, each with its terminating NUL.
//
// The queue owns its records; a caller's buffer is copied on push and copied out on pull or list. A
// NULL queue is tolerated by every operation. Memory running out ends the process, by policy.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

struct _LIST_ITEM {
    void* vpData;           // iDataSize bytes as pushed, then one byte with the item kind; owned
    int iDataSize;          // payload length in bytes
    _LIST_ITEM* spNextItem; // the next newer record, NULL at the end
};
using LIST_ITEM = _LIST_ITEM;

struct _LIST_INFO {
    int iItemCount;         // number of records
    LIST_ITEM* spFirstItem; // oldest record, NULL when empty
    LIST_ITEM* spLastItem;  // newest record, NULL when empty
};

// Returns a new empty queue; release it with DestroyFIFOList.
LIST_INFO* CreateFIFOList();

// Appends a copy of uiItemDataSize bytes with their kind. FALSE for a NULL queue.
BOOL PushFIFOItemLN(LIST_INFO* hListHandle, const void* vpItemData, unsigned int uiItemDataSize,
                    DB_BACKUP_FILE_TYPE _e_BackupFileType);

// Removes the oldest record into vpItemData, its size and its kind. FALSE, the outputs untouched,
// for a NULL or empty queue. REQUIRES: vpItemData has room for the record (a path: 1028 bytes).
BOOL PullFIFOItemLN(LIST_INFO* hListHandle, void* vpItemData, unsigned int* uipItemDataSize,
                    DB_BACKUP_FILE_TYPE* ep_BackupFileType);

// Copies record number iNumber (1 is the oldest) without removing it, despite the name. FALSE for
// an index outside 1 to iItemCount.
BOOL PullFIFOItemAt(LIST_INFO* hListHandle, int iNumber, void* vpItemData,
                    unsigned int* uipItemDataSize);

// Copies the next record of a walk, in constant time. There is one cursor for all queues: it starts
// at the first record, and again only after a call has reported the end (FALSE).
BOOL ListFIFOItem(LIST_INFO* hListHandle, void* vpItemData, unsigned int* uipItemDataSize);

// TRUE if some record equals the text cpItem. Always walks to the end, which resets the cursor.
BOOL FIFOItemExists(LIST_INFO* hListHandle, const char* cpItem);

// Removes record number iNumber (1-based). FALSE for an index outside 1 to iItemCount.
BOOL DeleteFIFOItemAt(LIST_INFO* hListHandle, int iNumber);

// The number of records, 0 for a NULL queue.
int getFIFOItemNumber(LIST_INFO* hListHandle);

// Frees the queue and every record.
void DestroyFIFOList(LIST_INFO* hListHandle);

// Pushes a path with its terminating NUL. A path that would not fit a path buffer is skipped with a
// log line that names it, and FALSE returned.
BOOL pushPath(LIST_INFO* hListHandle, const char* path, DB_BACKUP_FILE_TYPE kind);

// Removes the oldest record of a queue of paths. FALSE as PullFIFOItemLN.
bool pullPath(LIST_INFO* hListHandle, char (&szPath)[kPathSize]);
