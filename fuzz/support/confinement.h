// Keeps the module inside the target's folder.
//
// The linker sends the module's calls that open, create, rename and remove (-Wl,--wrap) through
// here: what lies outside the folder answers "permission denied", so that no input reads the disk
// of the machine, waits for a device, or harms anything. What was refused can be asked for.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace fuzz {

// Whether the path, as a text, lies in folder().
bool isInside(std::string_view path);

// Whether the text can name nothing outside folder(), wherever a path begins in it.
bool isTame(std::string_view text);

// Called with the path of every change of the file system, before it happens.
using ChangeObserver = void (*)(const std::string& path);
void observeChanges(ChangeObserver observer);

// Forgets what was refused.
void forgetRefusals();
// Whether a change outside the folder was refused since then.
bool refusedChange();

// Closes the streams that the module opened and did not close; their number.
int closeLeftStreams();

} // namespace fuzz
