// What every fuzz target shares: its one entry, its checks, and the folder that it works in.
//
// A target defines runInput. Everything else is in target.cpp: it calls runInput for each input,
// measures it, and prints the slowest one at the end, which `fuzz/run` puts into its table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Runs one input. A fault ends the process: by a sanitizer, by require, by a signal.
void runInput(std::string_view input);

// Whether an input runs now.
bool isRunning();

// Where libFuzzer writes inputs that failed; empty when it was not told.
const std::string& artifactPrefix();

// Ends the process with the text unless the condition holds.
void require(bool condition, const char* what);

// The target's own folder, without a trailing "/": made at the first call, removed at the end of
// the process. The current directory is the folder, too, so libFuzzer needs absolute paths.
const std::string& folder();

// Replaces "$B" by folder(), "$D" by its "data", "$T" by its "tmp"; and the bytes 0x1E, n, c by 8*n
// times c, so that a short input can hold long texts. Bytes NUL become "0".
std::string expanded(std::string_view text);

// The parts between the delimiters; one empty part for an empty text.
std::vector<std::string_view> split(std::string_view text, char delimiter);

// Writes a file, its content replaced; the folders above it are there.
void writeFile(const std::string& path, std::string_view content);

// The file's content, empty when it cannot be read.
std::string readFile(const std::string& path);

} // namespace fuzz
