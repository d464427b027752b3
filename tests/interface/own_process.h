// A test case in a process of its own: several states of the module last as long as the process.
#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

// Of the leak checker, where that is part of the program.
extern "C" [[gnu::weak]] int __lsan_do_recoverable_leak_check();

// The failures of the running test so far.
inline int failedParts() {
    const ::testing::TestResult* result =
        ::testing::UnitTest::GetInstance()->current_test_info()->result();
    int failed = 0;
    for (int i = 0; i < result->total_part_count(); ++i) {
        failed += result->GetTestPartResult(i).failed() ? 1 : 0;
    }
    return failed;
}

// Runs the body in a forked child, which prints its failed expectations itself. Passes when the
// child ended by itself, met all of them and, under the address sanitizer, leaked nothing.
inline void inOwnProcess(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int inherited = failedParts();
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        bool passed = failedParts() == inherited;
        if (__lsan_do_recoverable_leak_check != nullptr) {
            passed = __lsan_do_recoverable_leak_check() == 0 && passed;
        }
        std::fflush(nullptr);
        _exit(passed ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "the process was ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see the failures above";
}

// A test of a fixture that lives in a process of its own.
#define TEST_IN_OWN_PROCESS(Fixture, name)                                                         \
    struct Fixture##_##name : Fixture {                                                            \
        void run();                                                                                \
    };                                                                                             \
    TEST(Fixture, name) {                                                                          \
        inOwnProcess([] { Fixture##_##name().run(); });                                            \
    }                                                                                              \
    void Fixture##_##name::run()
