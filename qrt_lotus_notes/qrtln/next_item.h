// What a backup hands out next.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Takes the next item to save from the queue and, after the last one, from the transaction logs.
// 3000 with its path in cpFileName (1028 bytes) and its record but for the name in `item`; 3001
// when there is nothing more; 1000 (reported or logged). REQUIRES: a backup is open.
int nextItem(char* cpFileName, s_CurrentItem& item);
