// Processes of this program that are started anew by exec, so that what they load finds their own
// environment, and that serve the one process that started them.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/domino/server_user.h"
#include "client/module/frames.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace qrtln {

// How a process ends whose libraries cannot be loaded.
inline constexpr int loader_failed = 127;

struct OwnProcessStart {
    const char* word = ""; // the first on its command line; the second is the number of its socket
    std::vector<std::pair<std::string, std::string>> environment; // beside the inherited
    int death_signal = 0;     // sent to it when its parent dies; 0: it notices by itself
    bool tells_lines = false; // it gets memory for them, the third on its command line
    int output = -1;          // its standard output and error; -1: they are inherited
    // Called in its place where it cannot be started, with its end of the socket and the reason.
    void (*cannot_start)(int socket, const std::string& reason) = nullptr;
};

struct OwnProcess {
    pid_t pid = -1;
    FileDescriptor socket;
    FileDescriptor lines; // if it tells any
};

// Starts one, with the interrupting signals blocked: in a terminal they come to both. Throws
// ClientError(failed).
OwnProcess start_own_process(const OwnProcessStart& start);

// Whether the command line is that of such a process.
bool is_own_process(const char* word, int argc, char** argv);

// In such a process: its socket, made by its parent; -1 after an error message when there is none.
// `lines` gets the memory for lines, and is nullptr where it has none.
int inherited_socket(int argc, char** argv, int* lines = nullptr);

// In such a process: what it starts itself must not keep the client's locks, nor the socket.
void close_on_exec();

// Likewise: nothing can be read from standard input, and standard output is standard error, as what
// a library writes must not mix with the client's own document.
void redirect_standard_streams();

// Whom to become, in a message.
void write_user(FrameWriter& frame, const std::optional<ServerUser>& user);
std::optional<ServerUser> read_user(FrameReader& frame);

} // namespace qrtln
