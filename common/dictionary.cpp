#include "common/dictionary.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <unordered_map>

namespace {

constexpr int kMinimalSlots = 128;
// mem_double takes the bytes of an array as int: more slots than this cannot be doubled.
constexpr int kMaximalSlots = INT_MAX / static_cast<int>(sizeof(char*));

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};
using OwnedText = std::unique_ptr<char, FreeBlock>;

template <typename Element>
Element* newArray(int slots) {
    auto* const array =
        static_cast<Element*>(std::calloc(static_cast<std::size_t>(slots), sizeof(Element)));
    if (array == nullptr) {
        throw std::bad_alloc();
    }
    return array;
}

// A copy that the caller owns; empty for NULL.
OwnedText copyOf(const char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    OwnedText copy(strdup(text));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

template <typename Element>
void doubleArray(Element*& array, int slots) {
    array = static_cast<Element*>(mem_double(array, slots * static_cast<int>(sizeof(Element))));
}

} // namespace

// Slots by key. The views look at the keys that the dictionary owns and never frees before its end.
struct DictionaryIndex {
    struct KeyHash {
        std::size_t operator()(std::string_view key) const { return dictionary_hash(key.data()); }
    };
    std::unordered_map<std::string_view, int, KeyHash> slots;
};

dictionary* dictionary_new(int size) {
    auto d = std::make_unique<dictionary>();
    d->size = size < kMinimalSlots ? kMinimalSlots : size;
    auto index = std::make_unique<DictionaryIndex>();
    std::unique_ptr<char*, FreeBlock> values(newArray<char*>(d->size));
    std::unique_ptr<char*, FreeBlock> keys(newArray<char*>(d->size));
    d->hash = newArray<unsigned int>(d->size);
    d->val = values.release();
    d->key = keys.release();
    d->index = index.release();
    return d.release();
}

void dictionary_del(dictionary* d) {
    if (d == nullptr) {
        return;
    }
    for (int slot = 0; slot < d->n; ++slot) {
        std::free(d->key[slot]);
        std::free(d->val[slot]);
    }
    std::free(d->val);
    std::free(d->key);
    std::free(d->hash);
    delete d->index;
    delete d;
}

unsigned int dictionary_hash(const char* key) {
    unsigned int hash = 0;
    for (; *key != '\0'; ++key) {
        // Bytes above 127 add a negative value on every platform.
        hash += static_cast<unsigned int>(static_cast<signed char>(*key));
        hash += hash << 10;
        hash ^= hash >> 6;
    }
    hash += hash << 3;
    hash ^= hash >> 11;
    hash += hash << 15;
    return hash;
}

int dictionary_slot(const dictionary* d, const char* key) {
    if (d == nullptr || key == nullptr) {
        // Not run by a test: the module passes no nullptr here.
        return -1;
    }
    const auto found = d->index->slots.find(key);
    return found == d->index->slots.end() ? -1 : found->second;
}

char* dictionary_get(const dictionary* d, const char* key, char* def) {
    const int slot = dictionary_slot(d, key);
    return slot < 0 ? def : d->val[slot];
}

void dictionary_set(dictionary* d, const char* key, const char* val) {
    if (d == nullptr || key == nullptr) {
        // Not run by a test: the module passes no nullptr here.
        return;
    }
    // The copy comes first: val may be the very value that is replaced.
    OwnedText value = copyOf(val);
    if (const int slot = dictionary_slot(d, key); slot >= 0) {
        std::free(d->val[slot]);
        d->val[slot] = value.release();
        return;
    }
    if (d->n == d->size) {
        if (d->size > kMaximalSlots / 2) {
            // Not run by a test: it would take more than 2^27 slots.
            throw std::bad_alloc();
        }
        doubleArray(d->val, d->size);
        doubleArray(d->key, d->size);
        doubleArray(d->hash, d->size);
        d->size *= 2;
    }
    OwnedText name = copyOf(key);
    d->index->slots.emplace(name.get(), d->n);
    d->hash[d->n] = dictionary_hash(name.get());
    d->key[d->n] = name.release();
    d->val[d->n] = value.release();
    ++d->n;
}

void* mem_double(void* ptr, int size) {
    const auto bytes = static_cast<std::size_t>(size);
    void* const doubled = std::calloc(2, bytes);
    if (doubled == nullptr) {
        // Not run by a test: it would take more than 2^27 slots.
        throw std::bad_alloc();
    }
    std::memcpy(doubled, ptr, bytes);
    std::free(ptr);
    return doubled;
}
