// Directories: creating a branch, and the kind of a path.
#pragma once

enum ENUM_STAT {
    X_STAT_ERROR = 0, // does not exist, cannot be examined, or is of no kind below
    X_STAT_FILE = 1,  // a regular file
    X_STAT_DIR = 2,   // a directory, or a symbolic link whatever it points to
    X_STAT_DRIVE = 3, // a drive root: accepted, never produced on this platform
};

// Creates every missing directory along a path, mode 0775. 0, or -1 with errno when one could not
// be created. The buffer is written to while the function runs and is whole again on success; on
// failure it stays cut behind the directory that could not be created.
int x_MakeDirBranch(char* I_cpDir);

// Creates one directory with mode 0775, whatever the process's creation mask. 0, or -1 with errno.
int x_CreateDir(const char* path);

// Classifies a path; links are not followed.
ENUM_STAT x_Stat(const char* path);
