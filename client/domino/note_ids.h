// Note ids: how people write them, and the list of them that the module reads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace qrtln {

using NoteId = std::uint32_t;

// "NT000008F6", as administrators see it.
std::string note_id_text(NoteId id);

// One id a line: decimal, hexadecimal with "0x", or as above; lines end with LF, CR LF or CR. Empty
// lines and those that begin with "#" are skipped, ids that come again dropped. Throws
// ClientError(usage) that names the line, and `source`, for anything else, for ids that are none of
// a document (0, or the high bit set), and when there is no id at all.
std::vector<NoteId> parse_note_ids(std::string_view text, const std::string& source);

// The ids of a file, or of standard input for "-".
std::vector<NoteId> read_note_ids(const std::string& file);

// `noteids_list.txt` in the data directory, where the module looks for it. The module removes it
// when it has read it; the destructor does what is left of that.
class NoteIdList {
  public:
    explicit NoteIdList(const std::string& data_directory);
    ~NoteIdList();
    NoteIdList(const NoteIdList&) = delete;
    NoteIdList& operator=(const NoteIdList&) = delete;

    // Throws ClientError(failed), which says what to do, when there is one already.
    void require_none() const;
    // Writes it. Throws as above, and when it cannot be written.
    void place(const std::vector<NoteId>& ids);
    // Removes it, if it is there and the one that was placed. Returns 0 or the errno.
    int remove();

  private:
    std::string m_path;
    dev_t m_device = 0; // of the file that was placed
    ino_t m_inode = 0;
    bool m_placed = false;
};

} // namespace qrtln
