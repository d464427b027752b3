// The calls on files that the module makes, each with the errors that it can answer, and wrappers
// that answer them. What a failing call leaves behind is what the system leaves: a stream whose
// close fails is closed and has lost what was not written yet, a short write has written a half.
#pragma once

#include <string>
#include <vector>

#include "tests/torture/module_calls.h"

// Stand among the errors of a write: for one that writes a half, and for a disk that is full from
// then on. Both are ENOSPC to the caller.
inline constexpr int kShortWrite = 1000;
inline constexpr int kDiskFull = 1001;

std::vector<ModuleCall>& fileCalls();

// Calls on files for which there is no wrapper: a module that makes one is not tortured as it
// should be.
bool isUnwrappedFileCall(const std::string& symbol);

// What the call that failed was about: a path, "" before it.
const std::string& failedPath();

// The text of an error of a file call.
std::string fileErrorText(int error);
