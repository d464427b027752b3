// Putting a restored database over another one.
#pragma once

// Copies a file over the target as SysFileCopy does, and the target and its directory's entry down
// to the disk: the source is deleted next, and a power cut must not take both. False when any of it
// failed; the target may hold a part then. `function` opens the trace of a failed flush.
bool copyToDisk(const char* function, const char* cpSource, const char* cpTarget);

// Whether a copy would create its target: nothing is there for certain, not even a link. What a
// copy that failed has left may be deleted then.
bool isVacant(const char* cpTarget);
