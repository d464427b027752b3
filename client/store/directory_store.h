// The store in a folder: the folder itself, its lock, its format, and the run-time data. Objects
// and sets are kept by parts of it. docs/store-format.md describes its files.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/content_writer.h"
#include "client/store/folder_lock.h"
#include "client/store/key_folder.h"
#include "client/store/mirror.h"
#include "client/store/new_packs.h"
#include "client/store/object_folder.h"
#include "client/store/object_writer.h"
#include "client/store/pack_folder.h"
#include "client/store/reader_locks.h"
#include "client/store/reclaim.h"
#include "client/store/set_folder.h"
#include "client/store/state_folder.h"
#include "client/store/store.h"
#include "client/store/store_place.h"
#include "client/store/stored_file.h"

#include <optional>
#include <set>

namespace qrtln {

class DirectoryStore final : public Store {
  public:
    // Opens it as open_directory_store() says.
    DirectoryStore(const std::string& directory, StoreAccess access, std::string* damage,
                   const NewStore& made, std::unique_ptr<Mirror> mirror = nullptr);

    // From here on notes and run-time data go there. REQUIRES: it was opened for reading.
    void keep_state_in(const StateRequest& request) { m_state.emplace(request); }
    // What this user's writing to it leads to; empty: nothing unusual.
    const std::string& warning() const { return m_warning; }

    std::string description() const override { return m_place.description(); }
    std::string location() const override { return m_place.directory(); }
    std::string address() const override {
        return m_mirror ? m_mirror->place() : m_place.directory();
    }
    std::uint32_t block_size() const override { return m_block_size; }
    void add_packs(std::uint32_t block_size) override;
    std::string id() const override { return m_id; }
    bool is_encrypted() const override { return m_place.sealing() != nullptr; }
    std::vector<WrappedKey> keys(std::vector<std::string>* problems) override {
        return m_keys.list(problems);
    }
    std::string add_key(const Secret& secret, const std::string& label) override;
    void remove_key(const std::string& id) override;
    std::string runtime_directory() const override {
        return m_state ? m_state->runtime_directory() : m_runtime;
    }
    void use_runtime_directory(const RuntimeChoice& choose) override;
    std::string stored_runtime_directory() const override { return m_runtime; }

    std::unique_ptr<ObjectWriter> create_object() override {
        return std::make_unique<DirectoryObjectWriter>(m_objects);
    }
    std::unique_ptr<ObjectWriter>
    create_content(const std::optional<BlockContent>& earlier) override {
        if (has_packs())
            return std::make_unique<ContentWriter>(m_new_packs, earlier);
        return create_object();
    }
    FinishedContents finish_contents() override { return m_new_packs.finish(); }
    const PackFolder& packs() const override { return m_packs; }
    ObjectCheck read_content(const BlockContent& content,
                             const std::function<void(Bytes)>& sink) override {
        return m_packs.read_content(content.name, content.map, sink);
    }
    ObjectCheck read_object(const std::string& hash,
                            const std::function<void(Bytes)>& sink) override {
        return m_objects.read(hash, sink);
    }
    bool has_object(const std::string& hash, std::uint64_t stored_size) override {
        return m_objects.has(hash, stored_size);
    }
    int note_object_damage(const std::string& hash, bool damaged) override {
        return m_objects.note_damage(hash, damaged);
    }
    bool is_noted_damaged(const std::string& hash) override {
        return m_objects.is_noted_damaged(hash);
    }
    void discard_object(const std::string& hash) noexcept override { m_objects.discard(hash); }
    bool has_file(FileKind kind, const std::string& id) override {
        return m_place.has(descriptor_of(kind), m_place.path_of(kind, id));
    }
    StoredFile open_file(FileKind kind, const std::string& id) override {
        return open_stored_file(m_place, descriptor_of(kind), kind, id);
    }
    void take_in(FileKind kind, const std::string& id, const StoredFile& file,
                 const std::function<void(const StoredFile&)>& check) override;
    std::optional<ProcessNote> claimed_by() const override {
        return m_mirror ? m_mirror->claimed_by() : std::nullopt;
    }
    Reclaimed reclaim(const StoreUse& use, bool dry_run,
                      const std::function<void()>& between) override {
        if (!dry_run) // a run that was killed may have removed manifests, and not flushed that
            m_sets.flush();
        Reclaimed reclaimed = Reclaim(m_objects, m_packs, use, between).run(!dry_run);
        if (m_mirror)
            m_mirror->confirm();
        return reclaimed;
    }
    std::vector<std::string> objects(std::vector<std::string>* foreign) override {
        return m_objects.list(foreign);
    }

    std::vector<std::string> set_names(std::vector<std::string>* foreign = nullptr) override {
        return m_sets.names(foreign);
    }
    std::vector<std::string> noted_sets() override { return m_sets.noted(); }
    AbsentSets absent_sets() override;
    void note_not_copied(const std::map<std::string, std::string>& sets) override;
    void hold_sets(const std::vector<std::string>& sets) override;
    bool take_set(const std::string& set) override { return m_readers.take(set); }
    void forget_set(const std::string& set, const std::string& server) override;
    std::optional<std::string> read_manifest(const std::string& set,
                                             std::string& problem) override {
        return m_sets.read_manifest(set, problem);
    }
    void write_manifest(const std::string& set, const std::string& bytes) override {
        m_sets.write_manifest(set, bytes, false);
    }
    void rewrite_manifest(const std::string& set, const std::string& bytes) override {
        m_sets.write_manifest(set, bytes, true);
    }
    std::optional<std::string> read_note(const std::string& set, SetNote note,
                                         std::string& problem) override {
        return m_sets.read_note(set, note, m_state, problem);
    }
    std::string write_note(const std::string& set, SetNote note,
                           const std::string& bytes) override {
        return m_sets.write_note(set, note, bytes, m_state);
    }

    void compress_at(CompressionLevel level) override {
        m_objects.compress_at(level);
        m_new_packs.compress_at(level);
    }
    void flush() override {
        m_objects.flush();
        m_new_packs.flush();
        flush_taken_in();
        if (m_mirror)
            m_mirror->confirm();
    }
    void discard_added() noexcept override;
    void keep_added() noexcept override {
        m_objects.keep_added();
        m_new_packs.keep();
    }

  private:
    void open_folder(StoreAccess access);
    void flush_taken_in();
    FileDescriptor open_part(const char* name) const;
    bool has_packs() const { return m_block_size != 0; }
    void require_creation(StoreAccess access) const;
    void lock();
    void create_skeleton(const NewStore& made);
    void write_format(std::uint32_t block_size, const std::string& id);
    void flush_skeleton();
    void check_format(std::string* damage);
    void refuse_plain() const;
    void require_block_size(std::uint32_t block_size) const;
    void require_writable_folders() const;
    void remove_leftovers() noexcept;
    void remove_unfinished(int above, const std::string& folder) const;
    bool is_unfinished_skeleton() const;

    void make_mirror(StoreAccess access);
    int descriptor_of(FileKind kind) const;
    void write_absent(const AbsentSets& absent);

    const std::unique_ptr<Mirror> m_mirror; // of a store elsewhere
    StorePlace m_place;
    std::string m_runtime; // absolute
    std::string m_id;
    std::uint32_t m_block_size = 0; // 0: its format has no blocks
    FileDescriptor m_folder;
    FolderLock m_lock;
    KeyFolder m_keys;
    ObjectFolder m_objects;
    SetFolder m_sets;
    PackFolder m_packs;
    ReaderLocks m_readers;
    NewPacks m_new_packs{m_packs};
    std::optional<StateFolder> m_state;
    std::string m_warning;
    std::set<std::string> m_taken_in; // folders of files that are not flushed there yet
    bool m_folder_created = false;    // by this run
    bool m_skeleton_created = false;  // by this run
};

} // namespace qrtln
