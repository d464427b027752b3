#include "client/restore/plan_text.h"

#include "client/base/output.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/sets/manifest.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

std::string modified_text(const struct stat& status) {
    return utc_time(status.st_mtim.tv_sec);
}

} // namespace

const char* action_name(RestoreAction action) {
    switch (action) {
    case RestoreAction::activate:
        return "activate";
    case RestoreAction::place:
        return "place";
    case RestoreAction::write:
        return "write";
    case RestoreAction::create_folder:
        return "create folder";
    case RestoreAction::leave_out:
        return "leave out";
    case RestoreAction::refuse:
        break;
    }
    return "refuse";
}

std::string existing_text(const PlannedItem& planned) {
    std::string text = "-";
    if (planned.existing)
        text = fmt::format("{} of {}, {}",
                           human_bytes(static_cast<std::uint64_t>(planned.existing->st_size)),
                           modified_text(*planned.existing),
                           planned.keeps_replaced ? "is replaced and kept"
                           : planned.replaces     ? "is replaced"
                                                  : "stays");
    if (!planned.used_by.empty())
        text += ", in use by " + planned.used_by;
    return text;
}

std::string plan_text(const RestorePlan& plan) {
    Table table({"ACTION", "SIZE ", "SET", "PATH", "WRITTEN TO", "THERE NOW"});
    for (const PlannedItem& planned : plan.items) {
        bool folder = planned.item.kind == ItemKind::directory;
        std::string written = planned.action == RestoreAction::place ? "(temporary folder)"
                              : !planned.reason.empty()              ? planned.reason
                                                                     : for_terminal(planned.target);
        table.add({action_name(planned.action), folder ? "-" : human_bytes(planned.item.size),
                   for_terminal(planned.set), for_terminal(planned.item.path), written,
                   existing_text(planned)});
    }
    std::string text = table.text() + room_text(plan.room);
    if (!plan.users_known)
        text += "this user may not look at every process: a database may be in use all the same\n";
    return text;
}

nlohmann::json plan_json(const RestorePlan& plan) {
    nlohmann::json items = nlohmann::json::array();
    for (const PlannedItem& planned : plan.items) {
        nlohmann::json item = {{"path", printable_utf8(planned.item.path)},
                               {"kind", item_kind_name(planned.item.kind)},
                               {"set", printable_utf8(planned.set)},
                               {"action", action_name(planned.action)},
                               {"size", planned.item.size},
                               {"replaces", planned.replaces},
                               {"copy_waits", planned.copy_waits},
                               {"keeps_replaced", planned.keeps_replaced},
                               {"existing", nullptr}};
        if (!planned.reason.empty())
            item["reason"] = printable_utf8(planned.reason);
        else if (planned.action != RestoreAction::place)
            item["target"] = printable_utf8(planned.target);
        if (planned.existing)
            item["existing"] = {{"size", planned.existing->st_size},
                                {"modified", modified_text(*planned.existing)}};
        if (!planned.used_by.empty())
            item["used_by"] = printable_utf8(planned.used_by);
        items.push_back(std::move(item));
    }
    return {{"data_directory", printable_utf8(plan.data_directory)},
            {"to", plan.to.empty() ? nlohmann::json() : nlohmann::json(printable_utf8(plan.to))},
            {"plain", plan.plain},
            {"activate", plan.activate},
            {"keep_replaced", plan.keep_replaced},
            {"users_known", plan.users_known},
            {"items", items},
            {"room", room_json(plan.room)},
            {"warnings", plan.warnings}};
}

} // namespace qrtln
