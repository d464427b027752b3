// Where sets are kept. A store holds objects, each the content of one item under the SHA-256 of its
// plain bytes, and manifests, each the description of one set under the set's name.
#pragma once

#include "client/base/file_io.h"
#include "client/base/process_note.h"
#include "client/store/compression.h"
#include "client/store/content_map.h"
#include "client/store/store_place.h"
#include "client/store/wrapped_key.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct StoredObject {
    // SHA-256 of the plain bytes, lower-case hexadecimal; of a content in blocks its ContentName.
    std::string hash;
    std::uint64_t size = 0;        // plain bytes
    std::uint64_t stored_size = 0; // bytes in the store; of a content in blocks known at the end
    bool added = false;            // false: the store had it already
    // --- of a content in blocks
    std::uint64_t changed_size = 0;         // plain bytes of the blocks that are new
    MapPlace map = {};                      // of one that is as its earlier version
    std::optional<std::size_t> number = {}; // of any other, whose place is known at the end
    std::string warning = {};               // the earlier version could not be used; else empty
};

struct FinishedContents {
    struct Content {
        MapPlace place = {};           // of its map
        std::uint64_t stored_size = 0; // bytes of its new blocks
    };
    std::vector<Content> contents; // by their numbers
    std::uint64_t stored_size = 0; // bytes that they added to the store, with what describes them
};

// Where a content of the store is that was made of blocks.
struct BlockContent {
    std::string name;
    MapPlace map;
};

// Takes the content of one object. Destroyed without finish(), it leaves nothing behind.
class ObjectWriter {
  public:
    virtual ~ObjectWriter() = default;
    // Throws ClientError when the store cannot take the bytes.
    virtual void write(Bytes bytes) = 0;
    // Makes the object part of the store, durable after the store's next flush().
    virtual StoredObject finish() = 0;
};

struct ObjectCheck {
    std::string problem; // empty: the object is whole
    std::uint64_t size = 0;
};

// What can stand beside a set's manifest.
enum class SetNote {
    proof, // what became of a try to recover from it
    index, // the index of database instances as it left it
};

class PackFolder;
struct Reclaimed;
struct StoredFile;
struct StoreUse;

class Store {
  public:
    virtual ~Store() = default;

    // The place in words, for messages.
    virtual std::string description() const = 0;
    // Where it is: an absolute path. Of one that lies elsewhere that of its folder on this machine.
    virtual std::string location() const = 0;
    // The same as it is given to --store: "rclone:REMOTE:PATH" of one that lies elsewhere.
    virtual std::string address() const = 0;
    // In blocks of which size it stores contents; 0: it has no packs, only whole objects.
    virtual std::uint32_t block_size() const = 0;
    // Gives it packs with blocks of this size; earlier releases refuse it from then on. Throws
    // ClientError. REQUIRES: it has none, and is locked for writing.
    virtual void add_packs(std::uint32_t block_size) = 0;
    // Made by chance when the store was; empty for stores of earlier releases.
    virtual std::string id() const = 0;
    // Whether its files are sealed with a key.
    virtual bool is_encrypted() const = 0;
    // The keys of an encrypted store, the oldest first; those that are damaged go to `problems`, a
    // line each, if given.
    virtual std::vector<WrappedKey> keys(std::vector<std::string>* problems = nullptr) = 0;
    // Gives it another key, and returns its id; or takes one away, but never the last one. Throw
    // ClientError. REQUIRES: it is encrypted, and locked for writing.
    virtual std::string add_key(const Secret& secret, const std::string& label) = 0;
    virtual void remove_key(const std::string& id) = 0;
    // The folder of the run-time data of this run: the module's, and what a command has under way.
    // An absolute path on this machine; in the store, or where it is opened with a folder for
    // state, in that.
    virtual std::string runtime_directory() const = 0;
    // The one in the store, always: until use_runtime_directory() the one of the server which used
    // it first.
    virtual std::string stored_runtime_directory() const = 0;
    // Chooses another one. `choose` gets that first one, and whether the store is opened for
    // writing, so that what is missing is to be made; what it throws comes through.
    using RuntimeChoice = std::function<std::string(const std::string& first, bool makes)>;
    virtual void use_runtime_directory(const RuntimeChoice& choose) = 0;

    // --- objects. REQUIRES for everything that writes: the store was opened for writing.
    virtual std::unique_ptr<ObjectWriter> create_object() = 0;
    // Likewise for a content that is stored in blocks, of which those are new that `earlier`, the
    // version of it that is nearest, has not in the same place. One at a time.
    virtual std::unique_ptr<ObjectWriter>
    create_content(const std::optional<BlockContent>& earlier) = 0;
    // Makes those that were written since the last time part of the store, durable after its next
    // flush(). Throws ClientError.
    virtual FinishedContents finish_contents() = 0;
    // The packs and maps that such contents lie in.
    virtual const PackFolder& packs() const = 0;
    // Reads such a content into `sink`, and compares every block before that.
    virtual ObjectCheck read_content(const BlockContent& content,
                                     const std::function<void(Bytes)>& sink) = 0;
    // Decompresses an object into `sink` and compares it with its hash; `sink` has seen the bytes
    // before the check is complete.
    virtual ObjectCheck read_object(const std::string& hash,
                                    const std::function<void(Bytes)>& sink) = 0;
    // Whether an object lies there with this many bytes, and is not known to be damaged; they are
    // not looked at.
    virtual bool has_object(const std::string& hash, std::uint64_t stored_size) = 0;
    // Notes that it is damaged, or no more. Returns 0 or the errno.
    virtual int note_object_damage(const std::string& hash, bool damaged) = 0;
    virtual bool is_noted_damaged(const std::string& hash) = 0;
    // Removes an object that this run added and that nothing is to refer to; any other stays.
    virtual void discard_object(const std::string& hash) noexcept = 0;
    // The hashes of all objects, sorted; names that are no object go to `foreign` if given. Throws
    // ClientError when they cannot be listed.
    virtual std::vector<std::string> objects(std::vector<std::string>* foreign = nullptr) = 0;

    // --- files of objects, packs and maps, not sealed, for a copy of the store elsewhere. All
    // throw ClientError.
    virtual bool has_file(FileKind kind, const std::string& id) = 0;
    // Throws PackDamage, too.
    virtual StoredFile open_file(FileKind kind, const std::string& id) = 0;
    // Gets one of another store, in the place of the one that it has, once `check` has not thrown
    // for what was written. It is durable after the next flush, and stays whatever becomes of the
    // run.
    virtual void take_in(FileKind kind, const std::string& id, const StoredFile& file,
                         const std::function<void(const StoredFile&)>& check) = 0;

    // Who said that it writes to it, where that is elsewhere and cannot be locked. Throws
    // ClientError.
    virtual std::optional<ProcessNote> claimed_by() const = 0;

    // --- manifests
    // The names of all sets, oldest first; files that are of no set go to `foreign` if given.
    // Throws ClientError when they cannot be listed.
    virtual std::vector<std::string> set_names(std::vector<std::string>* foreign = nullptr) = 0;
    // The sets that have a note beside them, whether or not they are there.
    virtual std::vector<std::string> noted_sets() = 0;
    // The sets that are not there on purpose, with the server that each was of, empty where that is
    // not known: they were forgotten, or are in another store, which others were copied from.
    // Throws ClientError when that cannot be read.
    struct AbsentSets {
        std::map<std::string, std::string> forgotten = {};
        std::map<std::string, std::string> not_copied = {};
        std::map<std::string, std::string> all() const {
            auto sets = forgotten;
            sets.insert(not_copied.begin(), not_copied.end());
            return sets;
        }
    };
    virtual AbsentSets absent_sets() = 0;
    // Writes down which ones were not copied, in the place of those of before.
    virtual void note_not_copied(const std::map<std::string, std::string>& sets) = 0;
    // Writes down that the set is forgotten, flushed, then removes its manifest and notes, as far
    // as they are there. Its objects stay. Throws ClientError.
    virtual void forget_set(const std::string& set, const std::string& server) = 0;
    // From here on, until this store is closed, nobody forgets these sets. For who reads contents
    // of a store that is not opened for writing. Throws ClientError(failed) for a set that somebody
    // forgets, or that is gone.
    virtual void hold_sets(const std::vector<std::string>& sets) = 0;
    // Whether nobody holds a set, nor will, until this store is closed.
    virtual bool take_set(const std::string& set) = 0;
    // The bytes of a manifest, or nothing with `problem` set. This and everything else that reads
    // throws ClientError(no_permission) for what this user may not read: that is no damage.
    virtual std::optional<std::string> read_manifest(const std::string& set,
                                                     std::string& problem) = 0;
    // Stores the manifest of a new set so that a crash leaves nothing or the whole, flushed to
    // disk. Throws ClientError; then the set is not there. One that is there is never replaced.
    virtual void write_manifest(const std::string& set, const std::string& bytes) = 0;
    // Gives a set that this run wrote another manifest, likewise: a crash leaves one of both.
    virtual void rewrite_manifest(const std::string& set, const std::string& bytes) = 0;

    // The bytes of a note beside a set; nothing, without a problem, when there is none. Written as
    // manifests are, also with a folder for state, in that. Returns the file's full path.
    virtual std::optional<std::string> read_note(const std::string& set, SetNote note,
                                                 std::string& problem) = 0;
    virtual std::string write_note(const std::string& set, SetNote note,
                                   const std::string& bytes) = 0;

    // Removes every object, pack and map that `use` does not name, and writes packs anew that are
    // mostly unused; with `dry_run` says what that would be. `between` is called now and then, and
    // ends it by throwing: nothing that is used is lost by that. REQUIRES: as for writing.
    virtual Reclaimed reclaim(const StoreUse& use, bool dry_run,
                              const std::function<void()>& between) = 0;

    // --- the run
    // How strongly what is stored from here on is compressed, if not as usual.
    virtual void compress_at(CompressionLevel level) = 0;
    // Flushes every folder that a finished object went to. Throws ClientError.
    virtual void flush() = 0;
    // Takes back every object that was added since the opening, and what else this run created:
    // a store that was new and has no set is removed. Goes on after failures.
    virtual void discard_added() noexcept = 0;
    // From here on nothing is taken back: a manifest refers to it.
    virtual void keep_added() noexcept = 0;
};

// Whether a set can have this name: "YYYYMMDDThhmmssZ-", a time that is one, and a level.
bool is_set_name(const std::string& name);

enum class StoreAccess {
    read,
    read_damaged, // as read, but a damaged store.json is reported by damage(), not thrown
    write,        // locked against other writers; created when missing or an empty folder
    change,       // locked likewise, but never created
    create,       // as write, but refused where there is one
};

// Of a store that is made.
struct NewStore {
    // In bytes; of no other than that a store has that is there. 0: the usual one, and any.
    std::uint32_t block_size = 0;
    bool encrypted = false; // with what opens the first of the keys of this run
    std::string label = {}; // of its first key
};

// Opens the store in the folder `directory`, or that elsewhere. Throws ClientError: no_store,
// locked, no_permission, remote_failed, failed. Warns when this user writes to the store of
// another. In `damage`, when given, read_damaged leaves what is wrong with store.json. An encrypted
// store is opened with the keys of this run, and no other where it has any: what was encrypted is
// not to be replaced unseen by what is not.
std::unique_ptr<Store> open_directory_store(const std::string& directory, StoreAccess access,
                                            std::string* damage = nullptr,
                                            const NewStore& made = {});

// The id of the store in a folder, or of that with this store.json; empty where there is none, or
// it has none. And one for a store that is made, by chance.
std::string store_id_at(const std::string& directory);
std::string store_id_in(const std::string& format_document);
std::string new_store_id();
struct StateRequest;

// What --store says, as Store::address() has it; and whether that is elsewhere.
std::string store_address(const std::string& given);
bool is_elsewhere(const std::string& store);

// Opens a store for reading that may be used by others, or be on a medium that can only be read;
// what must be written, notes and run-time data, goes to a folder elsewhere. Throws as
// open_directory_store and StateFolder do.
std::unique_ptr<Store> open_store_with_state(const StateRequest& request);
// What to do when the store that this process opened last cannot be reached any more: its folder is
// gone, or empty, as where a disk is not mounted any more. Empty while it is there.
std::string vanished_store_hint();

} // namespace qrtln
