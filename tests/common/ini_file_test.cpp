// The dictionary, and the ini files that it is read from and written to.
#include "common/iniparser.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

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

TEST(IniLoad, LinesBecomeEntriesByTheRules) {
    const TemporaryFolder folder;
    const std::pair<std::string, Entries> cases[] = {
        {"k = v\n[S]\nA=1\na=1\n[s]\n", {":k -> v", "S -> -", "S:A -> 1", "S:a -> 1", "s -> -"}},
        // A section's name ends at the first bracket, which may be missing; an empty one is none.
        {"[ a ]] x\nk=1\n[open=x\nk=1\n[]\nl=2",
         {" a  -> -", " a :k -> 1", "open=x -> -", "open=x:k -> 1", "open=x:l -> 2"}},
        // Quotes go, and what is behind them; blanks inside stay but for those at the end.
        {"  k \t = 'a b'\nl='c' tail\nm='x '\nn = 'a b\no=\"a\"\np='\nq=''x\nr= \"\"\ns=''\n",
         {":k -> a b", ":l -> c", ":m -> x", ":n -> a b", ":o -> \"a\"", ":p -> '", ":q -> ''x",
          ":r -> ", ":s -> "}},
        // A line needs a key, "=" and a value; no line is a comment.
        {"\n \nword\n= v\nk =   \n;a = b=c\r\nb=2\n;a=3\n", {":;a -> 3", ":b -> 2"}},
        {std::string("a=1\0 2\nb=\xFF\n", 11), {":a -> 1", ":b -> \xFF"}}, // a NUL ends its line
        // A long line is read in pieces of 1023 bytes, each a line of its own.
        {"k=" + std::string(1021, 'v') + "l=rest\nm=1",
         {":k -> " + std::string(1021, 'v'), ":l -> rest", ":m -> 1"}},
    };
    for (const auto& [content, entries] : cases) {
        const Dictionary d(iniparser_load(folder.write("file.ini", content).c_str()));
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(entriesOf(d.get()), entries) << content;
    }
    const Dictionary two(iniparser_load(folder.write("f", "[a]\nk=1\n[b]\n").c_str()));
    EXPECT_STREQ(iniparser_getsecname(two.get(), 1), "b");
    EXPECT_EQ(iniparser_getsecname(two.get(), 2), nullptr);
    EXPECT_EQ(iniparser_getsecname(nullptr, 0), nullptr);
    EXPECT_EQ(iniparser_load(folder.file("missing.ini").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_NE(freopen(folder.write("in", "k=v\n").c_str(), "r", stdin), nullptr);
    const Dictionary d(iniparser_load("-"));
    EXPECT_EQ(entriesOf(d.get()), Entries{":k -> v"});
}

class IniUpdate : public testing::Test {
  protected:
    IniUpdate() { iniparser_add_entry(d.get(), "DBIID", nullptr, nullptr); }

    IniDumpResult update(const char* section, const char* key, const std::string& value) {
        iniparser_add_entry(d.get(), section, key, value.c_str());
        return iniparser_update_dump(d.get(), (section + std::string(":") + key).c_str(),
                                     folder.file("copy.ini").c_str(), layout);
    }

    const TemporaryFolder folder;
    const Dictionary d = Dictionary(dictionary_new(0));
    IniDumpLayout layout;
};

// When whole files have cost enough, what fits neither in its place nor at the end follows there
// all the same: of equal entries readers take the last.
TEST_F(IniUpdate, CostsTheEntryNotTheFile) {
    iniparser_add_entry(d.get(), "last", nullptr, nullptr);
    EXPECT_EQ(update("DBIID", "a", "1").error, 0);
    layout.wholes = 1 << 30;
    for (const char* value : {"22", "33", "4"}) {
        EXPECT_EQ(update("DBIID", "a", value).error, 0);
    }
    EXPECT_EQ(folder.read("copy.ini"), "\n[DBIID]\na=1\n\n[last]\n\n[DBIID]\na=33\na=4\n\n");
}

// A limit on file sizes stands for the full disk.
TEST_F(IniUpdate, EntryThatDoesNotReachTheDiskIsReportedAndComesWithTheNext) {
    const auto filled = [](char value) { return std::string(1000, value); };
    EXPECT_EQ(update("DBIID", "a", filled('x')).error, 0);
    struct rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t limit : {1100, 10}) { // within a new entry, before a changed one
        const struct rlimit full = {limit, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        const IniDumpResult result = update("DBIID", limit == 10 ? "a" : "b", filled('y'));
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(result.error, EFBIG) << limit;
        EXPECT_STREQ(result.call, "fwrite");
        EXPECT_EQ(update("DBIID", "c", filled('1')).error, 0);
        EXPECT_EQ(folder.read("copy.ini"), dump(d.get())) << "the whole";
    }
    // The whole again: somebody changed the file, or the entry's section is none.
    folder.write("copy.ini", "somebody else's");
    EXPECT_EQ(update("DBIID", "c", filled('2')).error, 0);
    EXPECT_EQ(update("none", "k", "v").error, 0);
    EXPECT_EQ(folder.read("copy.ini"), dump(d.get()));
}

} // namespace
