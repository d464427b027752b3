// The records of the items that were handed out or announced and are not yet finished, oldest
// first.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// The item that DB_ItemFinishStatus finished last and keeps as an anchor in
// LL_CurrentItemList; NULL when there is none. Reset with the list.
extern s_CurrentItem* psCurrentListItem;

// Appends a copy of a record to a list; false when it could not.
bool appendRecord(t_LL list, const s_CurrentItem& item);

// Reports that a list took no record, under the name of a function that clients' readers of logs
// know. Returns 1000. REQUIRES: errno is the list's.
int reportNoRecord(const char* cpFunction);

// Moves the cursor to the oldest unfinished record; nullptr when there is none. The record that was
// kept as an anchor leaves the list here, so that no batch of later items meets it again.
s_CurrentItem* nextUnfinished();

// Takes the record under the cursor out of the list, but for the last one, which stays as an
// anchor. `item` is a copy of it. REQUIRES: nextUnfinished has just answered with it.
void leaveFinished(const s_CurrentItem& item);
