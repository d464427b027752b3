// Putting a restored copy in the place of a live database.
#pragma once

// Takes the database of the file's name in the original directory offline where there is one,
// copies the restored file over it, deletes the restored file and brings the database online. 3000
// when it is in place and online, else 1000. The restored file stays unless the copy succeeded and
// is on disk; a database whose copy failed stays offline.
int QRTLN_Activate(const char* cpFile, const char* cpOriginalDirectory);
