// Which notes a user has not read.
#pragma once

#include "notes_api/types.h"

// Marks a note of an open database as unread for the user under whom the module runs. 3000, or 1000
// (only traced). REQUIRES: the runtime is up; hDb is open, and stays so.
int setNotesAsUnread(DHANDLE hDb, NOTEID NotedId);
