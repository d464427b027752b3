// A dictionary of strings. It owns copies of every key and value; keys are case-sensitive.
//
// Slots are filled from the lowest on and nothing is ever removed, so slot order is insertion
// order. An index beside the arrays finds a key in constant time; the arrays may be read by anybody
// but are changed by dictionary_set alone. Memory running out throws std::bad_alloc.
#pragma once

struct DictionaryIndex;

struct _dictionary_ {
    int n;                  // entries in use: slots 0 to n - 1
    int size;               // slots in each of the three arrays
    char** val;             // value of each slot; NULL for an entry without one, as sections are
    char** key;             // key of each slot; NULL marks a free slot
    unsigned int* hash;     // dictionary_hash of the key; 0 in a free slot
    DictionaryIndex* index; // finds the slot of a key; internal
};
using dictionary = _dictionary_;

// Returns an empty dictionary of `size` slots, at least 128; release it with dictionary_del.
dictionary* dictionary_new(int size);

// Frees everything. NULL is ignored.
void dictionary_del(dictionary* d);

// The one-at-a-time hash over the bytes of the key, each taken as a signed char.
unsigned int dictionary_hash(const char* key);

// Returns the stored value (not a copy; NULL for an entry without one), valid until it is replaced;
// `def` when the key is not there or d is NULL.
char* dictionary_get(const dictionary* d, const char* key, char* def);

// Replaces the value of a key, which keeps its slot, or adds it in the next slot; a NULL val is
// stored as such. Full arrays double. Nothing happens when d or key is NULL.
void dictionary_set(dictionary* d, const char* key, const char* val);

// Returns the slot of a key, or -1.
int dictionary_slot(const dictionary* d, const char* key);

// Returns a block of 2 x size bytes with the first `size` bytes of ptr, the rest zero; frees ptr.
// REQUIRES: ptr comes from malloc and has `size` bytes.
void* mem_double(void* ptr, int size);
