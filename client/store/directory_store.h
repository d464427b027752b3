// The store in a folder. docs/store-format.md describes its files.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/store/state_folder.h"
#include "client/store/store.h"

#include <set>

namespace qrtln {

class DirectoryStore final : public Store {
  public:
    DirectoryStore(const std::string& directory, StoreAccess access, std::string* damage);
    ~DirectoryStore() override;

    // From here on notes and run-time data go there. REQUIRES: it was opened for reading.
    void keep_state_in(const StateRequest& request);
    // What this user's writing to it leads to; empty: nothing unusual.
    const std::string& warning() const { return m_warning; }

    std::string description() const override;
    std::string location() const override { return m_directory; }
    std::string id() const override { return m_id; }
    std::string runtime_directory() const override;
    void use_runtime_directory(const RuntimeChoice& choose) override;
    std::string stored_runtime_directory() const override;
    std::unique_ptr<ObjectWriter> create_object() override;
    ObjectCheck read_object(const std::string& hash,
                            const std::function<void(Bytes)>& sink) override;
    bool has_object(const std::string& hash, std::uint64_t stored_size) override;
    void discard_object(const std::string& hash) noexcept override;
    std::vector<std::string> objects(std::vector<std::string>* foreign) override;
    std::vector<std::string> set_names(std::vector<std::string>* foreign = nullptr) override;
    std::vector<std::string> noted_sets() override;
    std::map<std::string, std::string> forgotten_sets() override;
    void forget_set(const std::string& set, const std::string& server) override;
    std::optional<std::string> read_manifest(const std::string& set, std::string& problem) override;
    void write_manifest(const std::string& set, const std::string& bytes) override;
    void rewrite_manifest(const std::string& set, const std::string& bytes) override;
    std::optional<std::string> read_note(const std::string& set, SetNote note,
                                         std::string& problem) override;
    std::string write_note(const std::string& set, SetNote note, const std::string& bytes) override;
    void flush() override;
    void discard_added() noexcept override;
    void keep_added() noexcept override;

  private:
    friend class DirectoryObjectWriter;

    void open_folder(StoreAccess access);
    void lock();
    void create_skeleton();
    void flush_skeleton();
    void check_format(std::string* damage);
    void require_writable_folders() const;
    void remove_leftovers() noexcept;
    void remove_unfinished(int above, const std::string& folder) const;
    std::vector<std::string> list_folder(int folder, const std::string& name) const;
    bool exists(int folder, const std::string& name) const;
    bool is_unfinished_skeleton() const;
    void write_document(const std::string& name, const std::string& what, const std::string& bytes,
                        bool may_replace);
    void require_there() const;
    // `name`: what was to be written to, below the folder of the store; empty: that folder.
    [[noreturn]] void fail(const std::string& doing, int error, const std::string& name = {}) const;

    std::string m_directory; // absolute
    std::string m_runtime;   // likewise
    std::string m_id;
    FileDescriptor m_folder;
    FileDescriptor m_objects;
    FileDescriptor m_sets;
    FileDescriptor m_lock;
    std::optional<StateFolder> m_state;
    std::string m_warning;
    bool m_folder_created = false;   // by this run
    bool m_skeleton_created = false; // by this run
    unsigned m_next_temporary = 0;
    std::vector<std::string> m_added;  // names below objects/
    std::set<std::string> m_unflushed; // folders below objects/ that a rename changed
    bool m_objects_unflushed = false;  // objects/ itself
};

} // namespace qrtln
