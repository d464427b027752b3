#include "client/restore/activation.h"

#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/restore/kept_beside.h"
#include "client/restore/safe_file.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

// What an earlier run left of the same content need not be read from the store again.
bool Activation::take_waiting(const PlannedItem& planned, int folder, const std::string& name) {
    std::string from;
    if (m_waiting != nullptr && planned.action == RestoreAction::activate)
        from = m_waiting->take(planned.item, folder, name, [this] {
            m_session.forward_interrupt();
            throw_if_interrupted();
        });
    if (!from.empty())
        print_message(fmt::format("the copy of {} that waited is whole and is used: {}",
                                  for_terminal(planned.item.path), for_terminal(from)));
    return !from.empty();
}

// One copy waits for a database at most: the newest.
void Activation::drop_waiting(const PlannedItem& planned) {
    if (m_waiting == nullptr)
        return;
    for (std::string& warning :
         m_waiting->drop(planned.item.path, [this] { m_session.forward_interrupt(); }))
        m_run.warn(std::move(warning));
}

std::string Activation::check_live_target(const PlannedItem& planned) {
    SafeFolder root(planned.root);
    std::string relative = path_below(planned.target, planned.root);
    std::string problem;
    if (!root.open_folder(relative_folder(relative), problem, m_run.created.callback(planned.root)))
        return problem;
    std::optional<struct stat> live = root.look_at(relative, problem);
    if (problem.empty() && live && !S_ISREG(live->st_mode))
        problem = "what is in its place is no file";
    // The plan's reckoning may be hours old, and a copy that fails leaves half a database.
    std::optional<std::uint64_t> room = free_bytes(folder_of(planned.target));
    std::uint64_t size = planned.item.size;
    if (live && m_run.plan.keep_replaced && room)
        room = *room - std::min(*room, static_cast<std::uint64_t>(live->st_size));
    if (problem.empty() && room && size > *room && size - *room > occupied_bytes(live))
        problem = fmt::format("there is no room for its {}: {} are free on its file system; the "
                              "live database is as it was",
                              human_bytes(size), human_bytes(*room));
    return problem;
}

// An activation takes the live database from its users first. One for which there is no copy ends
// there: the database is as it was, and nobody writes to it.
bool Activation::take_offline(const PlannedItem& planned, std::string& problem) {
    if (m_session.announce_nothing(planned).empty()) {
        problem = "the module refused to take it offline: " + m_session.reason();
        return false;
    }
    (void)m_session.finish_item();
    if (!m_session.took_it_offline())
        problem = m_session.reason();
    return m_session.took_it_offline();
}

// An activation of the live database itself copies nothing and deletes nothing.
void Activation::bring_online(const PlannedItem& planned) {
    std::string place = m_session.announce_nothing(planned);
    bool online = !place.empty() && ::symlink(planned.target.c_str(), place.c_str()) == 0 &&
                  m_session.finish_item();
    m_session.end_item();
    if (!place.empty())
        ::unlink(place.c_str()); // in this run's own folder
    if (!online)
        m_run.warn(planned.target + ": is as it was, but offline: bring it online at the server");
}

// Should the child die, the live database may be offline or half written, and the copy the only
// whole one on the server.
void Activation::expect_death(const PlannedItem& planned, const std::string& path) {
    m_run.result.waiting.push_back(
        {planned.item.path, path, "its activation did not end", false, false, planned.item.object});
}

bool Activation::keep_replaced(const PlannedItem& planned, const std::string& path) {
    if (!exists(planned.target))
        return true;
    m_session.end_item(); // the copy stays where it is
    expect_death(planned, path);
    std::string problem;
    if (!take_offline(planned, problem)) {
        m_session.say_left_alone();
        tell_refusal(planned, problem);
        return false;
    }
    KeptFile kept = keep_beside(planned.root, planned.target, [this] {
        m_session.forward_interrupt();
        return interrupt_signal() != 0;
    });
    m_run.kept = kept.path;
    m_run.result.waiting.pop_back();
    bool goes_on = false;
    if (!kept.problem.empty()) {
        m_run.fail(planned, fmt::format("what is there cannot be kept ({}), and was not replaced",
                                        kept.problem));
    } else if (std::optional<std::string> again = m_session.announce(planned)) {
        goes_on = *again == path;
        if (!goes_on)
            m_run.fail(planned, "the module wants it written to another place now");
    }
    if (goes_on)
        return true;
    m_session.end_item();
    m_run.forget_kept(planned);
    bring_online(planned);
    ::unlink(path.c_str());
    return false;
}

void Activation::finish(const PlannedItem& planned, const std::string& path) {
    expect_death(planned, path);
    if (!m_session.finish_item()) {
        take_refusal(planned, path);
        return;
    }
    m_run.result.waiting.pop_back();
    m_run.result.restored.push_back(planned.target);
    m_run.note_kept(planned);
    give_metadata_back(planned);
    drop_waiting(planned);
}

void Activation::take_refusal(const PlannedItem& planned, const std::string& path) {
    std::string reason = m_session.reason();
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        m_run.result.waiting.pop_back();
        m_run.note_kept(planned);
        m_run.fail(planned, "it is in place, but the server does not bring it online: " + reason);
        drop_waiting(planned);
        return;
    }
    bool untouched = m_session.left_it_alone();
    tell_refusal(planned, reason);
    if (untouched && !m_run.kept.empty()) { // it was offline already
        m_run.forget_kept(planned);
        bring_online(planned);
    }
    m_run.note_kept(planned);
}

// Why the live database was not replaced, or not wholly.
void Activation::tell_refusal(const PlannedItem& planned, const std::string& reason) {
    const ServerStatus refused = m_session.status();
    WaitingCopy& waiting = m_run.result.waiting.back();
    waiting.untouched = m_session.left_it_alone();
    waiting.in_use = waiting.untouched && refused.number == status_in_use;
    if (waiting.in_use)
        waiting.reason = fmt::format(
            "the server does not let go of it{}, so it was not touched: {}",
            planned.used_by.empty() ? "" : fmt::format(" (by process {})", planned.used_by),
            reason);
    else if (waiting.untouched)
        waiting.reason =
            fmt::format("the server does not take it offline, so it was not touched: {}: {}",
                        reason, advice_on(refused));
    else
        waiting.reason = "it could not be put in place, and the live database may be half of it, "
                         "and offline: " +
                         reason;
    print_message(fmt::format("{}{}: {}", waiting.in_use ? "in use: " : "failed: ",
                              for_terminal(planned.item.path), for_terminal(waiting.reason)));
    drop_waiting(planned);
}

void Activation::give_metadata_back(const PlannedItem& planned) {
    std::string problem;
    FileDescriptor file =
        SafeFolder(planned.root).open_file(path_below(planned.target, planned.root), problem);
    if (file)
        problem = apply_metadata(file.get(), planned.item);
    if (!problem.empty())
        m_run.warn(planned.target + ": " + problem);
}

} // namespace qrtln
