// Runs of domino-sim: its commands, and tasks of a server that go on beside a test.
#pragma once

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

struct DominoSimRun {
    int exitCode;       // 1000 + signal when it was killed
    std::string output; // on both outputs
};

// Runs domino-sim with words as a shell reads them.
inline DominoSimRun runDominoSim(const std::string& words) {
    FILE* output = popen(("exec " QRTLN_DOMINO_SIM " " + words + " 2>&1").c_str(), "r");
    if (output == nullptr) {
        throw std::runtime_error("cannot run domino-sim");
    }
    std::string printed;
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) {
        printed += static_cast<char>(c);
    }
    const int status = pclose(output);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status), printed};
}

// The same where it must end with this code; what it printed.
inline std::string dominoSim(const std::string& words, int expectedExit = 0) {
    const DominoSimRun result = runDominoSim(words);
    if (result.exitCode != expectedExit) {
        throw std::runtime_error("domino-sim " + words.substr(0, 200) + " ended with " +
                                 std::to_string(result.exitCode) + ": " + result.output);
    }
    return result.output;
}

// A task of the server, until the object goes away: domino-sim with these words.
class ServerTask {
  public:
    explicit ServerTask(const std::string& words) {
        const std::string command = "exec " QRTLN_DOMINO_SIM " " + words;
        int output[2];
        EXPECT_EQ(pipe(output), 0);
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM); // a test that dies leaves nothing running
            dup2(output[1], STDOUT_FILENO);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        close(output[1]);
        char printed = 0; // once it is at work
        EXPECT_EQ(read(output[0], &printed, 1), 1) << words;
        close(output[0]);
    }
    ~ServerTask() {
        kill(m_process, SIGTERM);
        int status = -1;
        waitpid(m_process, &status, 0);
        EXPECT_EQ(status, 0);
    }
    ServerTask(const ServerTask&) = delete;
    ServerTask& operator=(const ServerTask&) = delete;

  private:
    pid_t m_process = -1;
};
