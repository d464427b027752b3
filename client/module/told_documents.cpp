#include "client/module/told_documents.h"

#include <charconv>
#include <optional>
#include <string_view>

namespace qrtln {

namespace {

// The id between two texts that make up a whole line.
std::optional<NoteId> id_in(std::string_view line, std::string_view before,
                            std::string_view after) {
    if (!line.starts_with(before) || !line.ends_with(after) ||
        line.size() <= before.size() + after.size())
        return std::nullopt;
    line.remove_prefix(before.size());
    line.remove_suffix(after.size());
    NoteId id = 0;
    auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), id);
    if (error != std::errc() || stop != line.data() + line.size())
        return std::nullopt;
    return id;
}

struct FixedLine {
    std::string_view text;
    NoteStep step;
};

// About the note that was named last.
constexpr FixedLine fixed_lines[] = {
    {"RestoreDeletedDocuments(): NSFDbCopyNote() call failed.", NoteStep::not_copied},
    {"RestoreChangedDocuments(): NSFDbCopyNote() call failed.", NoteStep::not_copied},
    {"RestoreChangedDocuments(): NSFNoteDelete() call failed.", NoteStep::not_deleted},
    {"RestoreDeletedDocuments(): Setting note as unread failed.", NoteStep::not_unread},
    {"setNotesAsUnread(): Could not set unread note table.", NoteStep::not_unread},
};

constexpr std::string_view in_original = ") to original database ...";

} // namespace

void DocumentTrace::mark_last(NoteStep step) {
    if (!m_notes.empty())
        m_notes.back().step = step;
}

void DocumentTrace::take(const std::string& line) {
    std::optional<NoteId> copied =
        id_in(line, "RestoreDeletedDocuments(): Copying note (", in_original);
    std::optional<NoteId> deleted =
        id_in(line, "RestoreChangedDocuments(): Deleting note (", ") from original database ...");
    if (copied)
        m_notes.push_back({*copied, NoteStep::copying, false});
    else if (deleted)
        m_notes.push_back({*deleted, NoteStep::deleting, false});
    else if (id_in(line, "RestoreChangedDocuments(): Copying note (", in_original)) {
        mark_last(NoteStep::copying);
        if (!m_notes.empty())
            m_notes.back().deleted = true;
    } else if (id_in(line, "setNotesAsUnread(): Setting note (", ") as unread.") ||
               id_in(line, "setNotesAsUnread(): The note does (",
                     ") already belongs to unread list."))
        mark_last(NoteStep::unread);
    else
        for (const FixedLine& fixed : fixed_lines)
            if (line == fixed.text)
                mark_last(fixed.step);
}

} // namespace qrtln
