// What the targets of the module check and prepare.
#pragma once

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"

namespace fuzz {

// Empties the operation record, with callbacks that check each message. REQUIRES: it owns nothing.
void clearRecord();

// Every text of the record is terminated within its buffer, every switch a truth value.
void checkRecord();

// The queue is whole, and each of its records a terminated path.
void checkQueue(const LIST_INFO* queue);

// Makes folder()/data, a small server's files, at the first call.
void prepareDataTree();

// A callback for trace and log.
void checkMessage(const char* text);

} // namespace fuzz
