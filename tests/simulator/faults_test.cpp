// Faults that a test sets.
#include "support.h"

#include <gtest/gtest.h>

namespace simulator_tests {
namespace {

TEST(Faults, HitTheNamedCallOnly) {
    const TestServer server;
    ASSERT_EQ(NotesSimSetFaults("NSFDbOpen#2=513,NSFDbClose=0x1FF"), 0);
    DBHANDLE db = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &db), 0);
    DBHANDLE second = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &second), 513);
    EXPECT_EQ(NSFDbOpen("names.nsf", &second), 0);
    EXPECT_EQ(NSFDbClose(db), 0x1FF);
    EXPECT_EQ(NSFDbClose(second), 0x1FF);
    EXPECT_EQ(NotesSimFaultsFired(), 3U);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_DATABASES), 2U) << "a failed call does nothing";
    EXPECT_EQ(NotesSimSetFaults(""), 0);
    EXPECT_EQ(NotesSimFaultsFired(), 0U);
}

TEST(Faults, WithWrongSyntaxChangeNothing) {
    const TestServer server;
    ASSERT_EQ(NotesSimSetFaults("NSFDbOpen=513"), 0);
    for (const char* text : {"NSFDbOpen", "NSFDbOpen=", "NSFDbOpen=x", "NSFDbOpen#0=5", "=5",
                             "NSFDbOpen=0", "NSFDbOpen=99999", "NSFDbOpen=5,", "NSF DbOpen=5"}) {
        EXPECT_NE(NotesSimSetFaults(text), 0) << text;
    }
    DBHANDLE db = 0;
    EXPECT_EQ(NSFDbOpen("names.nsf", &db), 513);
}

} // namespace
} // namespace simulator_tests
