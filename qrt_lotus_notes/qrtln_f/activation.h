// Putting a restored copy in the place of a live database.
#pragma once

// Copies the restored file over the database of that name in the original directory and brings it
// online. 3000 or 1000 (reported).
int QRTLN_Activate(const char* cpFile, const char* cpOriginalDirectory);
