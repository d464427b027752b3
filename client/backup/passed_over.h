// What the module passes over, without a word or with one, must not look saved.
#pragma once

#include "client/backup/content_reader.h"
#include "client/backup/run.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace qrtln {

class PassedOver {
  public:
    // Both outlive it.
    PassedOver(BackupRun& run, ContentReader& reader);

    // To be called when the module handed an item out, or came to its end (empty): items that it
    // told it could not decide about become failed ones where it chooses, and else warnings.
    void note_unchecked(const std::string& handed_out);
    // The warnings about the item that was just handed out.
    std::vector<std::string> take_warnings();
    // An item came from one of the arguments: itself, or a folder above it.
    void note_yield(const ManifestItem& item);
    // To be called when the module has handed out everything: adds failed items for what it did not
    // reach, and items for what it does not look at.
    void add_all();

  private:
    void add(const std::string& path, const std::string& reason, ItemKind kind);
    void add_unreachable();
    void add_unreached();
    void add_arguments_without_yield();
    std::string whole_path(const std::string& shown) const;

    BackupRun& m_run;
    ContentReader& m_reader;
    std::map<std::string, std::size_t> m_argument_numbers; // by path
    std::vector<bool> m_yielded;                           // by argument
    std::vector<std::string> m_warnings;
};

} // namespace qrtln
