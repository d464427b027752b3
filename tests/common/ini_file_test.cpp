#include "common/iniparser.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

using testing::Contains;
using testing::ElementsAre;

namespace {

struct Delete {
    void operator()(dictionary* d) const { dictionary_del(d); }
};
using Dictionary = std::unique_ptr<dictionary, Delete>;

using Entries = std::vector<std::string>;

// The entries in slot order as "key -> value"; "-" for an entry without a value.
Entries entriesOf(const dictionary* d) {
    Entries entries;
    for (int slot = 0; d != nullptr && slot < d->n; ++slot) {
        entries.push_back(std::string(d->key[slot]) + " -> " +
                          (d->val[slot] == nullptr ? "-" : d->val[slot]));
    }
    return entries;
}

std::string dump(const dictionary* d) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    iniparser_dump_ini(d, stream);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

Dictionary load(const TemporaryFolder& folder, const std::string& content) {
    return Dictionary(iniparser_load(folder.write("file.ini", content).c_str()));
}

struct LoadCase {
    const char* title;
    std::string content;
    Entries entries;
};

TEST(IniLoad, LinesBecomeEntriesByTheRules) {
    const TemporaryFolder folder;
    const LoadCase cases[] = {
        {"a section is an entry without value", "[DBIID]\n", {"DBIID -> -"}},
        {"case makes sections and keys differ",
         "[DBIID]\nA=1\na=1\n[dbiid]\n",
         {"DBIID -> -", "DBIID:A -> 1", "DBIID:a -> 1", "dbiid -> -"}},
        {"a key before any section has the empty one", "k = v\n", {":k -> v"}},
        {"a section's name ends at the first bracket, blanks kept",
         "[ a b ]] x\nk=1",
         {" a b  -> -", " a b :k -> 1"}},
        {"a section's bracket may be missing", "[open=x\nk=1", {"open=x -> -", "open=x:k -> 1"}},
        {"an empty section is no section",
         "[s]\n[]\n[]=x\nk=1\n",
         {"s -> -", "s:[] -> x", "s:k -> 1"}},
        {"quotes go, blanks inside stay", "k = 'a b'\nl='c' tail\n", {":k -> a b", ":l -> c"}},
        {"a closing quote may be missing", "k = 'a b", {":k -> a b"}},
        {"blanks at the end go, also inside quotes",
         "k = a b  \t\nl = 'x '\n",
         {":k -> a b", ":l -> x"}},
        {"empty quotes of both kinds are an empty value",
         "k = \"\"\nl = ''\nm='\"\"'\n",
         {":k -> ", ":l -> ", ":m -> "}},
        {"double quotes around text stay", "k = \"a\"\n", {":k -> \"a\""}},
        {"a lone quote and text behind empty quotes stand as written",
         "k='\nl=''x\n",
         {":k -> '", ":l -> ''x"}},
        {"a value may hold =", "k = a=b\n", {":k -> a=b"}},
        {"blanks around the key and = go", "  k \t =  v\nl=w\n", {":k -> v", ":l -> w"}},
        {"lines without key, = or value are ignored",
         "\n \nword\n= v\nk =\nk =   \nl=1",
         {":l -> 1"}},
        {"there are no comments", "; a = b\n# c = d\n", {":; a -> b", ":# c -> d"}},
        {"CRLF line ends go, one of each",
         "[s]\r\nk=v\r\nl = w\n",
         {"s -> -", "s:k -> v", "s:l -> w"}},
        {"a repeated key keeps its place and takes the last value",
         "a=1\nb=2\na=3\n",
         {":a -> 3", ":b -> 2"}},
        {"a repeated section goes on where it stands",
         "[s]\na=1\n[t]\n[s]\nb=2\n",
         {"s -> -", "s:a -> 1", "t -> -", "s:b -> 2"}},
        {"bytes above 127 are text", "k\xC3\xBC=\xFF\n", {":k\xC3\xBC -> \xFF"}},
        {"a NUL ends its line", std::string("a=1\0 2\nb=2\n", 11), {":a -> 1", ":b -> 2"}},
    };
    for (const LoadCase& expected : cases) {
        EXPECT_EQ(entriesOf(load(folder, expected.content).get()), expected.entries)
            << expected.title;
    }
}

TEST(IniLoad, LongLineIsReadInPiecesOf1023BytesEachALineOfItsOwn) {
    const TemporaryFolder folder;
    const std::string value(1021, 'v'); // "k=" and this fill the first piece
    EXPECT_EQ(entriesOf(load(folder, "k=" + value + "l=rest\nm=1\n").get()),
              (Entries{":k -> " + value, ":l -> rest", ":m -> 1"}));
    // One byte less and the line end alone is the second piece, which is ignored.
    EXPECT_EQ(entriesOf(load(folder, "k=" + value + "\nm=1\n").get()),
              (Entries{":k -> " + value, ":m -> 1"}));
    // A section of the full length is no more than the buffer holds.
    const std::string section(1022, 's');
    EXPECT_EQ(entriesOf(load(folder, "[" + section + "]\n").get()), Entries{section + " -> -"});
}

TEST(IniLoad, WhatHoldsNoLineOrCannotBeReadGivesNullAndSaysWhy) {
    MessageCapture messages;
    const TemporaryFolder folder;
    EXPECT_EQ(load(folder, ""), nullptr);
    EXPECT_EQ(errno, 0);
    EXPECT_THAT(messages.traces(), ElementsAre("iniparser_load: Empty input >> return NULL"));
    messages.clear();

    const std::string missing = folder.file("missing.ini");
    EXPECT_EQ(iniparser_load(missing.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(messages.traces(), ElementsAre("iniparser_load: Failed to open ini file name \"" +
                                               missing + "\" (" + std::to_string(ENOENT) + ")"));
    messages.clear();

    // A directory opens, but cannot be read.
    EXPECT_EQ(iniparser_load(folder.path().c_str()), nullptr);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_THAT(messages.traces(),
                ElementsAre("iniparser_load: Failed to read ini file name \"" + folder.path() +
                            "\" (" + std::to_string(EISDIR) + ")"));
}

TEST(IniLoad, DashReadsStandardInputAndLeavesItOpen) {
    MessageCapture messages;
    const TemporaryFolder folder;
    ASSERT_NE(freopen(folder.write("in", "k=v\n").c_str(), "r", stdin), nullptr);
    const Dictionary d(iniparser_load("-"));
    EXPECT_EQ(entriesOf(d.get()), Entries{":k -> v"});
    EXPECT_THAT(messages.traces(), Contains("iniparser_load: Got ini file name \"-\" ==>> read "
                                            "from stdin"));
    EXPECT_NE(freopen("/dev/null", "r", stdin), nullptr);
}

TEST(IniDump, SectionsAreWrittenWithTheirEntriesInSlotOrder) {
    const Dictionary d(dictionary_new(0));
    EXPECT_EQ(dump(d.get()), "");
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    iniparser_add_entry(d.get(), "DBIID", "a", "1");
    iniparser_add_entry(d.get(), "other", "early", "before its section");
    iniparser_add_entry(d.get(), "DBIID", "b:c", "2");
    EXPECT_EQ(dump(d.get()), "\n[DBIID]\na=1\nb:c=2\n\n");
    iniparser_add_entry(d.get(), "other", nullptr, nullptr);
    iniparser_add_entry(d.get(), "DBIID", "a", nullptr);
    EXPECT_EQ(dump(d.get()), "\n[DBIID]\na=\nb:c=2\n\n[other]\nearly=before its section\n\n");
    iniparser_dump_ini(nullptr, stdout);
    iniparser_dump_ini(d.get(), nullptr);
}

TEST(IniEntries, AreFoundByTheirFullKeyWhichIsCutAt2048Bytes) {
    const Dictionary d(dictionary_new(0));
    char def[] = "default";
    iniparser_add_entry(d.get(), "s", "k", "v");
    iniparser_add_entry(d.get(), "", "l", nullptr);
    EXPECT_EQ(dump(d.get()), "s:k = v\n:l = \n") << "without a section";
    EXPECT_EQ(iniparser_getstring(d.get(), "s:K", def), def);
    iniparser_add_entry(d.get(), "s", std::string(3000, 'x').c_str(), "long");
    EXPECT_STREQ(iniparser_getstr(d.get(), ("s:" + std::string(2046, 'x')).c_str()), "long");
    EXPECT_EQ(iniparser_getnsec(nullptr), -1);
    EXPECT_EQ(iniparser_getsecname(d.get(), 0), nullptr);
    EXPECT_EQ(iniparser_getsecname(nullptr, 0), nullptr);
}

class IniUpdate : public testing::Test {
  protected:
    // Sets an entry and brings the file up to date; it must be what a dump would have written.
    void set(const std::string& section, const std::string& key, const std::string& value) {
        iniparser_add_entry(d.get(), section.c_str(), key.c_str(), value.c_str());
        const IniDumpResult result =
            iniparser_update_dump(d.get(), (section + ":" + key).c_str(), path.c_str(), layout);
        ASSERT_EQ(result.error, 0) << result.call;
        ASSERT_EQ(folder.read("copy.ini"), dump(d.get()));
    }

    TemporaryFolder folder;
    std::string path = folder.file("copy.ini");
    Dictionary d{dictionary_new(0)};
    IniDumpLayout layout;
};

TEST_F(IniUpdate, FileIsWhatADumpWouldWriteAfterEachOfManyRandomChanges) {
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    std::mt19937 generator(3);
    const auto random = [&](unsigned int below) { return generator() % below; };
    for (int step = 0; step < 600; ++step) {
        // Some values change their length, some changes come from elsewhere.
        set("DBIID", "/data/" + std::to_string(random(150)),
            std::string(random(10) == 0 ? random(50) : 34, 'a' + static_cast<char>(random(26))));
        if (HasFatalFailure()) {
            return;
        }
        if (step % 100 == 75) {
            folder.write("copy.ini", "something else");
        }
    }
}

TEST_F(IniUpdate, OtherSectionsAndEntriesBeforeTheirSectionAreKept) {
    set("DBIID", "a", "1"); // no section yet
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    set("DBIID", "b", "2");
    set("DBIID", "c", "3");
    iniparser_add_entry(d.get(), "other", nullptr, nullptr);
    set("DBIID", "d", "4");
    set("other", "e", "5");
    set("DBIID", "a", "6");
    set("none", "f", "7"); // is not written
    EXPECT_STREQ(iniparser_getsecname(d.get(), 1), "other");
}

TEST_F(IniUpdate, FailureIsReportedAndTheNextCallWritesTheWhole) {
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    set("DBIID", "a", "1");
    const std::string elsewhere = folder.file("no/such/copy.ini");
    IniDumpResult result = iniparser_update_dump(d.get(), "DBIID:a", elsewhere.c_str(), layout);
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_STREQ(result.call, "fopen");

    // The disk is full: shown by the device that is.
    result = iniparser_update_dump(d.get(), "DBIID:a", "/dev/full", layout);
    EXPECT_EQ(result.error, ENOSPC);
    EXPECT_STREQ(result.call, "fwrite");
    set("DBIID", "b", "2");
}

// A limit on file sizes stands for the full disk.
TEST_F(IniUpdate, EntryThatDoesNotReachTheDiskIsReportedAndComesWithTheNext) {
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    set("DBIID", "a", std::string(1000, 'x'));
    struct rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t limit : {1100, 10}) { // within a new entry, before a changed one
        const char* const key = limit == 10 ? "a" : "b";
        iniparser_add_entry(d.get(), "DBIID", key, std::string(1000, 'y').c_str());
        const struct rlimit full = {limit, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        const IniDumpResult result = iniparser_update_dump(
            d.get(), (std::string("DBIID:") + key).c_str(), path.c_str(), layout);
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(result.error, EFBIG) << limit;
        EXPECT_STREQ(result.call, "fwrite");
        set("DBIID", "c" + std::to_string(limit), "3");
    }
}

} // namespace
