// The folder on this machine of a store that lies elsewhere. It has what must be local, the
// run-time data and the lock, and notes of damage; what is on its way there; and copies of small
// files that were read, which count only as far as the place elsewhere has them.
#pragma once

#include "client/remote/claim.h"
#include "client/remote/read_ahead.h"
#include "client/remote/remote_files.h"
#include "client/store/stored_file.h"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

// Everything throws ClientError, of remote_failed, no_permission or interrupted where it is the
// place elsewhere that fails. Names are those below the folder of the store, "packs/AB.pack".
class Mirror {
  public:
    // REQUIRES: is_elsewhere(place).
    explicit Mirror(const std::string& place);

    const std::string& place() const { return m_place; }
    // The folder, with those of a store in it; absolute. Nothing is in them where there is no store
    // yet, which gets id().
    const std::string& directory() const { return m_directory; }
    const std::string& id() const { return m_id; }
    bool is_new() const { return m_is_new; }
    // Makes the folder where there is no store yet.
    void make_folder();

    // Nobody else writes to the store from here on, as far as that can be had.
    void claim();
    std::optional<ProcessNote> claimed_by() const { return m_claim.holder(); }
    // Learns what there is. `trusted`: copies of earlier runs are used. REQUIRES, before anything
    // is written: it was claimed.
    void look(bool trusted);
    // Removes what a run that was killed did not send. REQUIRES: no other uses the folder.
    void drop_unsent() noexcept;

    // What there is, or on its way there: its size, and the names right below a folder, sorted.
    std::optional<std::uint64_t> size_of(const std::string& name) const;
    std::vector<std::string> names_in(const std::string& folder) const;
    // All that there is, likewise.
    const std::map<std::string, std::uint64_t>& files() const { return m_files; }

    enum class Cache { used, fetched_anew };
    // Has a copy of a file in the folder. False where there is no such file.
    bool fetch(const std::string& name, Cache cache);
    // Likewise of one that is small, of others nothing.
    void fetch_small(const std::string& name);
    // What is read next of files where they lie, about in this order.
    void expect(std::list<ReadAhead::Range> ranges) { m_ahead.expect(std::move(ranges)); }
    // Reads a file where it lies. REQUIRES: size_of() knows it.
    StoredFile open(const std::string& name);

    enum class Local { goes, stays };
    // Begins to put the file of this name in the folder there, which goes when it is there, or
    // stays.
    void put(const std::string& name, Local local);
    // Puts a file there, under this name, when all that was put before is there for sure, and
    // waits until it is, too.
    void put_document(const std::string& name, const std::string& file);
    // Begins to remove it.
    void remove(const std::string& name);
    // What was put is there for sure, what was removed is not.
    void confirm();
    // Removes what this run put there, or was about to. Returns whether that went well.
    bool take_back(const std::string& name) noexcept;
    // Where that fails nothing is taken back from then on: a document may refer to it.
    // Likewise a document, of which it may not be known whether it is there.
    void take_back_document(const std::string& name) noexcept;

  private:
    std::string local(const std::string& name) const { return m_directory + "/" + name; }
    void make_folders();
    void copy(const std::string& name);
    int copy_once(const std::string& name);

    std::string m_place;
    RemoteFiles m_files_there;
    Claim m_claim;
    std::string m_id;
    std::string m_directory;
    bool m_is_new = false;
    bool m_trusted = true;
    bool m_takes_nothing_back = false;
    std::map<std::string, std::uint64_t> m_files; // sizes by names
    std::mutex m_mutex;                           // for what follows
    std::set<std::string> m_fetched;              // by this run
    ReadAhead m_ahead{m_files_there};             // its threads use what stands above
};

} // namespace qrtln
