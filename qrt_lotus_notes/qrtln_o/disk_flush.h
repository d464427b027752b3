// Bringing what was written down to the disk.
#pragma once

// Flushes a file's bytes. Returns 0 or an error number.
int flushFile(const char* path);

// Flushes the entries of the directory that a path lies in. Returns 0 or an error number. Some
// network and user-space file systems cannot flush a directory: that is traced, and 0.
int flushDirectoryOf(const char* path);
