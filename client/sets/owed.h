// The databases that the store owes: prepared on the server, or put in place by a restore, but in
// no set yet as they are.
//
// A database that was prepared counts as backed up for the server whether or not its content
// reached the store, so a later incremental may not select it. Each is written down before it is
// prepared and struck out when a set that holds it is committed. What stands here at the start of a
// run was left by one that failed or was killed, or by a restore: what a live database holds since
// then, no log may bring back over an older copy.
#pragma once

#include "client/store/store.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// Where a store keeps the list: in its folder of run-time data.
std::string owed_file_of(const Store& store);

// Copies the list to the folder, in the place of an older copy, for one who may not change it.
// Returns the copy, which is not there when there is no list. Throws ClientError.
std::string copy_owed(const Store& store, const std::string& folder);

class OwedDatabases {
  public:
    // Reads the file, which need not exist. A last line without its line feed is what a crash
    // leaves of an entry that was not yet relied on: it is cut off. What stays is flushed. Throws
    // ClientError(failed) for a file that cannot be read or holds anything else. REQUIRES: the
    // store is locked for writing; the folder of `file` exists.
    explicit OwedDatabases(std::string file) : OwedDatabases(std::move(file), Access::change) {}
    // Likewise of a list that others may write to: nothing is cut or flushed, and nothing can be
    // changed by it.
    static OwedDatabases read(std::string file) { return {std::move(file), Access::read}; }

    // The paths owed for a server's data directory, sorted.
    std::vector<std::string> of(const std::string& data_directory) const;

    // Writes an entry down, flushed to disk before it returns; one that is there already costs
    // nothing. `restored`: a restore or recovery is about to put it in place; such an entry stays
    // one when it is written down again. Throws ClientError(failed), and then the database must not
    // be prepared, or put in place.
    void add(const std::string& data_directory, const std::string& path, bool restored = false) {
        add(data_directory, std::vector<std::string>{path}, restored);
    }
    // Likewise several, with one flush.
    void add(const std::string& data_directory, const std::vector<std::string>& paths,
             bool restored = false);

    // Writes all of them down as restored, at once: the logs that led to what they are were lost.
    void add_restored(const std::string& data_directory, const std::vector<std::string>& paths);

    bool has(const std::string& data_directory, const std::string& path) const;
    // Whether it was put in place by a restore, and is in no set as it is since then.
    bool is_restored(const std::string& data_directory, const std::string& path) const;

    // Strikes entries out: the file is replaced by one without them, or removed with the last.
    // Those that are not there are ignored. Returns 0, or the errno after which all entries stay:
    // they are saved once more, nothing is lost. What the file holds is then not known: the next
    // add() writes it anew.
    int strike(const std::string& data_directory, const std::vector<std::string>& paths);

  private:
    using Entry = std::pair<std::string, std::string>; // data directory, path
    enum class Access { read, change };

    OwedDatabases(std::string file, Access access);
    void make_durable(std::size_t size, bool cut);
    std::string lines() const;
    [[noreturn]] void fail(const std::string& doing, int error) const;

    std::string m_file;
    std::map<Entry, bool> m_entries; // whether it was restored
    bool m_exists = false;           // flushed into its folder
    bool m_unsettled = false;        // the file may hold less than the entries
};

} // namespace qrtln
