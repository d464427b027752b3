// Argument paths and patterns: the first line is the data directory ("" takes the target's own),
// the others are arguments, paths and patterns. Each goes through the path functions, and through
// what a backup and a recovery select with them.
#include <cstring>

#include "common/bounded_text.h"
#include "common/xutil.h"
#include "fuzz/support.h"
#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "qrt_lotus_notes/qrtln_f/file_discovery.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

using fuzz::require;

void checkPath(const std::string& text, const std::string& other) {
    char szName[kPathSize];
    std::memset(szName, 'x', sizeof szName);
    getFileName(text.c_str(), szName);
    require((text + "/").find(szName) != std::string::npos, "the name of a file is in its path");
    for (const int length : {-1, 0, 1, 1027, static_cast<int>(text.size())}) {
        require(OSStrnCmpDir(text.c_str(), text.c_str(), length) == 0, "a path is itself");
        OSStrnCmpDir(text.c_str(), other.c_str(), length);
    }
    AdaptDriveLetter(szName, text.c_str());
    IsValidPattern(text.c_str());
    x_Stat(text.c_str());
    isFileNotesDb(text.c_str());
}

void checkPatterns(const std::vector<std::string>& lines) {
    FifoList patterns(CreateFIFOList());
    for (const std::string& line : lines) {
        pushPath(patterns.get(), line.c_str(), DB_BACKUP_FILE_TYPE_DB);
    }
    fuzz::checkQueue(patterns.get());
    g_sQRTLN_Global.lhNotesFileList = patterns.get();
    for (const std::string& path : lines) {
        ifMatchPattern(path.c_str(), patterns.get());
        const int before = getFIFOItemNumber(patterns.get());
        const int found = isDatabaseForRecovery(path.c_str());
        require(getFIFOItemNumber(patterns.get()) == before - found, "a name is recovered once");
    }
    g_sQRTLN_Global.lhNotesFileList = nullptr;
}

// The text that an argument leaves is input of the next one.
void checkArguments(const std::vector<std::string>& lines) {
    char szOut[kPathSize] = "";
    FifoList arguments(CreateFIFOList());
    for (const std::string& line : lines) {
        require(handleRelativeArguments(line.c_str(), szOut) == 0, "handleRelativeArguments");
        require(std::memchr(szOut, '\0', sizeof szOut) != nullptr, "an argument ends");
        require(szOut[0] == '\0' || pushPath(arguments.get(), szOut, DB_BACKUP_FILE_TYPE_DB),
                "an argument fits");
    }
    fuzz::checkQueue(arguments.get());

    // What a backup selects with them: existing files alone, each with a whole path.
    const FifoList selected(CreateFIFOList());
    g_sQRTLN_Global.lhNotesFileList = selected.get();
    getParticularFileList(arguments.get());
    fuzz::checkQueue(selected.get());
    g_sQRTLN_Global.lhNotesFileList = nullptr;
}

} // namespace

void fuzz::runInput(std::string_view input) {
    prepareDataTree();
    clearRecord();
    std::vector<std::string> lines;
    for (const std::string_view line : split(input, '\n')) {
        lines.push_back(expanded(line));
    }
    lines.resize(std::min<std::size_t>(lines.size(), 64)); // every line meets every other one
    g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_FULL;
    copyText(g_sQRTLN_Global.szNotesDataDirectory,
             lines[0].empty() ? (folder() + "/data/").c_str() : lines[0].c_str());
    lines.erase(lines.begin());
    for (const std::string& line : lines) {
        checkPath(line, lines.back());
    }
    checkPatterns(lines);
    checkArguments(lines);
    require(!refusedChange() && closeLeftStreams() == 0, "a look changes nothing, leaves nothing");
}
