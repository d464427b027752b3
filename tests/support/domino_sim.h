// Runs of domino-sim: its commands, and tasks of a server that go on beside a test.
#pragma once

#include "tests/support/program.h"

#include <csignal>
#include <gtest/gtest.h>
#include <stdexcept>
#include <unistd.h>

// The words of a program that runs domino-sim with words as a shell reads them.
inline qrtln::test::Words dominoSimWords(const std::string& words) {
    return {"/bin/sh", "-c", "exec " QRTLN_DOMINO_SIM " " + words + " 2>&1"};
}

// Runs it to an end with this code; what it printed.
inline std::string dominoSim(const std::string& words, int expectedExit = 0) {
    const qrtln::test::Outcome result = qrtln::test::Program(dominoSimWords(words)).wait();
    if (result.exit_code != expectedExit) {
        throw std::runtime_error("domino-sim " + words.substr(0, 200) + " ended with " +
                                 std::to_string(result.exit_code) + ": " + result.output);
    }
    return result.output;
}

// A task of the server, until the object goes away: domino-sim with these words.
class ServerTask {
  public:
    explicit ServerTask(const std::string& words) : m_program(dominoSimWords(words)) {
        while (m_program.printed().output.empty() && !m_program.ended()) {
            usleep(200); // once it is at work, it says so
        }
        EXPECT_NE(m_program.printed().output, "") << words;
    }
    ~ServerTask() {
        kill(m_program.pid(), SIGTERM);
        EXPECT_EQ(m_program.wait().exit_code, 0);
    }
    ServerTask(const ServerTask&) = delete;
    ServerTask& operator=(const ServerTask&) = delete;

  private:
    qrtln::test::Program m_program;
};
