// What the fuzz targets share: their one entry, the folder that they work in and are kept in, and
// what holds for the module after any input.
//
// The linker sends the calls that open, create, rename and remove (-Wl,--wrap) through here: what
// lies outside the folder answers "permission denied", so that no input reads the disk of the
// machine, waits for a device, or harms anything.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "qrt_lotus_notes/operation_state.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "tests/support/temporary_folder.h"

namespace fuzz {

// Runs one input: each target has its own. A fault ends the process.
void runInput(std::string_view input);

// Ends the process with the text unless the condition holds.
void require(bool condition, const char* what);

// The target's own folder, and its path. It is the current directory, too, so libFuzzer needs
// absolute paths.
const TemporaryFolder& files();
const std::string& folder();

// Replaces "$B" by folder(), "$D" by its "data", "$T" by its "tmp"; and the bytes 0x1E, n, c by 8*n
// times c, so that a short input can hold long texts. Bytes NUL become "0".
std::string expanded(std::string_view text);

// The parts between the delimiters; one empty part for an empty text.
std::vector<std::string_view> split(std::string_view text, char delimiter);

// Control variables, expanded, and the array that a host hands over.
struct Variables {
    explicit Variables(const std::vector<std::string_view>& parts) {
        for (const std::string_view part : parts) {
            texts.push_back(expanded(part));
        }
        for (std::string& text : texts) {
            array.push_back(text.data());
        }
        array.push_back(nullptr);
    }
    std::vector<std::string> texts;
    std::vector<char*> array;
};

// Whether the path, as a text, lies in folder().
bool isInside(std::string_view path);

// Whether the text can name nothing outside folder(), wherever a path begins in it.
bool isTame(std::string_view text);

// Called with the path of every change of the file system, before it happens.
extern std::function<void(const std::string&)> onChange;

// Whether a change outside the folder was refused during this input.
bool refusedChange();

// Closes the streams that the module opened and did not close; their number.
int closeLeftStreams();

// Whether each text ends within its buffer.
template <std::size_t... sizes>
bool areTerminated(const char (&... texts)[sizes]) {
    return ((std::memchr(texts, '\0', sizes) != nullptr) && ...);
}

// A callback for trace and log.
void checkMessage(const char* text);

// Empties the operation record, with callbacks that check each message. REQUIRES: it owns nothing.
void clearRecord();

// Every text of the record is terminated within its buffer, every switch a truth value.
void checkRecord();

// The queue is whole, and each of its records a terminated path.
void checkQueue(const LIST_INFO* queue);

// Makes folder()/data, a small server's files, at the first call.
void prepareDataTree();

} // namespace fuzz
