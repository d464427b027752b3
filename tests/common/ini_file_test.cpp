// The dictionary, and the ini files that it is read from and written to.
#include "common/iniparser.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "tests/support/message_capture.h"
#include "tests/support/temporary_folder.h"

namespace {

struct Delete {
    void operator()(dictionary* d) const { dictionary_del(d); }
};
using Dictionary = std::unique_ptr<dictionary, Delete>;
using Entries = std::vector<std::string>;

// The entries in slot order as "key -> value"; "-" for an entry without a value.
Entries entriesOf(const dictionary* d) {
    Entries entries;
    for (int slot = 0; slot < d->n; ++slot) {
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

// Measured in processor time, which other load does not change: linear cost takes a few tenths of a
// second here, a cost that grows with the square of the entries takes most of a minute.
TEST(Dictionary, ManyEntriesKeepTheirSlotsAndCostNoMoreThanTheirNumber) {
    constexpr int kEntries = 100000;
    const std::clock_t start = std::clock();
    const Dictionary d(dictionary_new(0));
    const auto key = [](int i) { return "DBIID:/data/mail/" + std::to_string(i) + ".nsf"; };
    for (int i = 0; i < kEntries; ++i) {
        dictionary_set(d.get(), key(i).c_str(), std::to_string(i).c_str());
    }
    for (int i = 0; i < kEntries; ++i) {
        ASSERT_EQ(d->key[i], key(i));
        ASSERT_EQ(d->hash[i], dictionary_hash(d->key[i]));
        ASSERT_EQ(dictionary_get(d.get(), d->key[i], nullptr), std::to_string(i));
    }
    EXPECT_EQ(d->n, kEntries);
    dictionary_set(d.get(), d->key[0], d->val[7777] + 3); // of the dictionary's own text
    EXPECT_STREQ(d->val[0], "7");
    // One-at-a-time in 32 bits, in which bytes above 127 are negative.
    EXPECT_EQ(dictionary_hash("The quick brown fox jumps over the lazy dog"), 0x519E91F5U);
    EXPECT_EQ(dictionary_hash("\x80"), 0xC31D4E27U);
    EXPECT_LT(std::clock() - start, 10 * CLOCKS_PER_SEC);
}

TEST(IniLoad, LinesBecomeEntriesByTheRules) {
    const TemporaryFolder folder;
    const std::string long1021(1021, 'v'); // with "k=" it fills the first piece of a long line
    const std::string long1022(1022, 's');
    const std::pair<std::string, Entries> cases[] = {
        // Case makes sections and keys differ.
        {"[DBIID]\nA=1\na=1\n[dbiid]\n",
         {"DBIID -> -", "DBIID:A -> 1", "DBIID:a -> 1", "dbiid -> -"}},
        {"k = v\n", {":k -> v"}}, // before any section
        // A section's name ends at the first bracket, which may be missing; blanks are kept.
        {"[ a b ]] x\nk=1", {" a b  -> -", " a b :k -> 1"}},
        {"[open=x\nk=1", {"open=x -> -", "open=x:k -> 1"}},
        {"[s]\n[]\n[]=x\nk=1\n", {"s -> -", "s:[] -> x", "s:k -> 1"}}, // an empty one is none
        // Quotes go, and what is behind them; blanks inside stay but for those at the end.
        {"k = 'a b'\nl='c' tail\nm='x '\nn = 'a b",
         {":k -> a b", ":l -> c", ":m -> x", ":n -> a b"}},
        {"k = \"\"\nl = ''\nm='\"\"'\n", {":k -> ", ":l -> ", ":m -> "}},
        {"k = \"a\"\nl='\nm=''x\n", {":k -> \"a\"", ":l -> '", ":m -> ''x"}},
        {"  k \t =  v  \t\nl=a=b\n", {":k -> v", ":l -> a=b"}},
        {"\n \nword\n= v\nk =\nk =   \nl=1", {":l -> 1"}},  // neither key, "=" nor value
        {"; a = b\n# c = d\n", {":; a -> b", ":# c -> d"}}, // no comments
        {"[s]\r\nk=v\r\nl = w\n", {"s -> -", "s:k -> v", "s:l -> w"}},
        {"a=1\nb=2\na=3\n", {":a -> 3", ":b -> 2"}},
        {"[s]\na=1\n[t]\n[s]\nb=2\n", {"s -> -", "s:a -> 1", "t -> -", "s:b -> 2"}},
        {"k\xC3\xBC=\xFF\n", {":k\xC3\xBC -> \xFF"}},
        {std::string("a=1\0 2\nb=2\n", 11), {":a -> 1", ":b -> 2"}}, // a NUL ends its line
        // A long line is read in pieces of 1023 bytes, each a line of its own.
        {"k=" + long1021 + "l=rest\nm=1\n", {":k -> " + long1021, ":l -> rest", ":m -> 1"}},
        {"k=" + long1021 + "\nm=1\n", {":k -> " + long1021, ":m -> 1"}},
        {"[" + long1022 + "]\n", {long1022 + " -> -"}},
    };
    for (const auto& [content, entries] : cases) {
        const Dictionary d(iniparser_load(folder.write("file.ini", content).c_str()));
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(entriesOf(d.get()), entries) << content;
    }
}

TEST(IniLoad, WhatHoldsNoLineOrCannotBeReadGivesNullWithTheReason) {
    const TemporaryFolder folder;
    const MessageCapture messages;
    const std::pair<std::string, int> cases[] = {{folder.write("empty.ini"), 0},
                                                 {folder.file("missing.ini"), ENOENT},
                                                 {folder.path(), EISDIR}}; // opens all the same
    for (const auto& [path, error] : cases) {
        errno = -1;
        EXPECT_EQ(iniparser_load(path.c_str()), nullptr) << path;
        EXPECT_EQ(errno, error) << path;
    }
    EXPECT_EQ(messages.traces().size(), std::size(cases)) << "each reason";
}

TEST(IniLoad, DashReadsStandardInputAndLeavesItOpen) {
    const TemporaryFolder folder;
    ASSERT_NE(freopen(folder.write("in", "k=v\n").c_str(), "r", stdin), nullptr);
    const Dictionary d(iniparser_load("-"));
    EXPECT_EQ(entriesOf(d.get()), Entries{":k -> v"});
    EXPECT_NE(freopen("/dev/null", "r", stdin), nullptr);
}

TEST(IniDump, SectionsAreWrittenWithTheirEntriesInSlotOrder) {
    const Dictionary d(dictionary_new(0));
    char def[] = "default";
    EXPECT_EQ(dump(d.get()), "");
    iniparser_add_entry(d.get(), "DBIID", "a", "1");
    iniparser_add_entry(d.get(), "", "l", nullptr);
    EXPECT_EQ(dump(d.get()), "DBIID:a = 1\n:l = \n") << "without a section";
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    iniparser_add_entry(d.get(), "other", "early", "before its section");
    iniparser_add_entry(d.get(), "DBIID", "b:c", "2");
    EXPECT_EQ(dump(d.get()), "\n[DBIID]\na=1\nb:c=2\n\n");
    iniparser_add_entry(d.get(), "other", nullptr, nullptr);
    iniparser_add_entry(d.get(), "DBIID", "a", nullptr);
    EXPECT_EQ(dump(d.get()), "\n[DBIID]\na=\nb:c=2\n\n[other]\nearly=before its section\n\n");
    EXPECT_EQ(iniparser_getstring(d.get(), "DBIID:A", def), def);
    EXPECT_STREQ(iniparser_getsecname(d.get(), 1), "other");
    EXPECT_EQ(iniparser_getsecname(d.get(), 2), nullptr);
    // A full key is cut at 2048 bytes.
    iniparser_add_entry(d.get(), "s", std::string(3000, 'x').c_str(), "long");
    EXPECT_STREQ(iniparser_getstr(d.get(), ("s:" + std::string(2046, 'x')).c_str()), "long");
}

// A limit on file sizes stands for the full disk.
TEST(IniUpdate, EntryThatDoesNotReachTheDiskIsReportedAndComesWithTheNext) {
    const TemporaryFolder folder;
    const Dictionary d(dictionary_new(0));
    IniDumpLayout layout;
    iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr);
    const auto update = [&](const char* key, char value) {
        iniparser_add_entry(d.get(), "DBIID", key, std::string(1000, value).c_str());
        return iniparser_update_dump(d.get(), (std::string("DBIID:") + key).c_str(),
                                     folder.file("copy.ini").c_str(), layout);
    };
    EXPECT_EQ(update("a", 'x').error, 0);
    struct rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t limit : {1100, 10}) { // within a new entry, before a changed one
        const struct rlimit full = {limit, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        const IniDumpResult result = update(limit == 10 ? "a" : "b", 'y');
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(result.error, EFBIG) << limit;
        EXPECT_STREQ(result.call, "fwrite");
        for (const char value : {'1', '2'}) { // the whole, and in its place
            EXPECT_EQ(update("c", value).error, 0);
            EXPECT_EQ(folder.read("copy.ini"), dump(d.get()));
        }
        // The whole again: somebody changed the file, or the entry's section is none.
        folder.write("copy.ini", "somebody else's");
        EXPECT_EQ(update("c", '3').error, 0);
        iniparser_add_entry(d.get(), "none", "k", "v");
        EXPECT_EQ(
            iniparser_update_dump(d.get(), "none:k", folder.file("copy.ini").c_str(), layout).error,
            0);
        EXPECT_EQ(folder.read("copy.ini"), dump(d.get()));
    }
}

} // namespace
