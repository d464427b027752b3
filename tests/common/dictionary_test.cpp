#include "common/dictionary.h"

#include <gmock/gmock.h>

#include <ctime>
#include <map>
#include <memory>
#include <string>

namespace {

struct Delete {
    void operator()(dictionary* d) const { dictionary_del(d); }
};
using Dictionary = std::unique_ptr<dictionary, Delete>;

TEST(Dictionary, ChangedValueKeepsItsSlotAndMayBeNullOrItsOwnOldText) {
    const Dictionary d(dictionary_new(0));
    char absent[] = "absent";
    dictionary_set(d.get(), "first", "1");
    dictionary_set(d.get(), "second", nullptr);
    dictionary_set(d.get(), "first", "changed");
    EXPECT_EQ(d->n, 2);
    EXPECT_STREQ(d->key[0], "first");
    EXPECT_STREQ(dictionary_get(d.get(), "first", absent), "changed");
    EXPECT_EQ(dictionary_get(d.get(), "first", absent), d->val[0]);
    // A key without a value is there: its value is no default.
    EXPECT_EQ(dictionary_get(d.get(), "second", absent), nullptr);
    EXPECT_EQ(dictionary_get(d.get(), "First", absent), absent);
    dictionary_set(d.get(), "first", d->val[0] + 3);
    EXPECT_STREQ(dictionary_get(d.get(), "first", absent), "nged");
    dictionary_set(d.get(), "first", nullptr);
    EXPECT_EQ(dictionary_get(d.get(), "first", absent), nullptr);
    dictionary_set(d.get(), nullptr, "value");
    EXPECT_EQ(d->n, 2);
    EXPECT_EQ(dictionary_get(nullptr, "first", absent), absent);
    dictionary_del(nullptr);
}

// Against the obvious model: a map, and the order of first appearance.
TEST(Dictionary, BehavesLikeAMapOverRandomSetsWithStableSlots) {
    unsigned int seed = 20240229;
    const auto random = [&](unsigned int below) {
        seed = seed * 1664525U + 1013904223U;
        return (seed >> 8) % below;
    };
    const Dictionary d(dictionary_new(0));
    std::map<std::string, std::pair<int, std::string>> model;
    for (int step = 0; step < 20000; ++step) {
        const std::string key = "DBIID:/data/" + std::to_string(random(3000)) + ".nsf";
        const std::string value = std::to_string(random(1000000));
        dictionary_set(d.get(), key.c_str(), value.c_str());
        const int slot = static_cast<int>(model.size());
        model.try_emplace(key, slot, "").first->second.second = value;
    }
    ASSERT_EQ(static_cast<std::size_t>(d->n), model.size());
    // One-at-a-time in 32 bits, in which bytes above 127 are negative.
    EXPECT_EQ(dictionary_hash("The quick brown fox jumps over the lazy dog"), 0x519E91F5U);
    EXPECT_EQ(dictionary_hash("\x80"), 0xC31D4E27U);
    for (const auto& [key, entry] : model) {
        ASSERT_EQ(d->key[entry.first], key);
        ASSERT_EQ(d->hash[entry.first], dictionary_hash(key.c_str()));
        ASSERT_EQ(dictionary_get(d.get(), key.c_str(), nullptr), entry.second);
    }
}

// Measured in processor time, which other load does not change: linear cost takes a few tenths of a
// second here, a cost that grows with the square of the entries takes most of a minute.
TEST(Dictionary, ManyEntriesCostNoMoreThanTheirNumber) {
    constexpr int kEntries = 400000;
    const std::clock_t start = std::clock();
    const Dictionary d(dictionary_new(0));
    int found = 0;
    for (int i = 0; i < kEntries; ++i) {
        const std::string key = "DBIID:/data/mail/" + std::to_string(i) + ".nsf";
        dictionary_set(d.get(), key.c_str(), "x");
        found += dictionary_get(d.get(), key.c_str(), nullptr) != nullptr ? 1 : 0;
    }
    EXPECT_EQ(found, kEntries);
    EXPECT_LT(std::clock() - start, 10 * CLOCKS_PER_SEC);
}

} // namespace
