// What the end of an item brings with it: copies removed, databases put in place, documents
// restored.
#pragma once

#include "qrt_lotus_notes/operation_state.h"

// Ends an item that the client has stored or written whole. 3000 or 1000; in a document restore the
// result of that. REQUIRES: the runtime is up.
int finishSuccessful(const s_CurrentItem& item);

// Ends an item that failed or that the client left out. 3000 or 1000. REQUIRES: the runtime is up.
int finishUnsuccessful(const s_CurrentItem& item, DB_ITEM_RESULT e_ItemFinishStatus);
