#include "client/recovery/probe.h"

#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/module/control_variables.h"
#include "client/module/host.h"
#include "client/module/temporary_directory.h"
#include "client/module/told.h"

#include <optional>
#include <set>

namespace qrtln {

namespace {

LiveDatabase::State state_of(AskedDatabase::State state) {
    switch (state) {
    case AskedDatabase::State::logged:
        return LiveDatabase::State::logged;
    case AskedDatabase::State::not_logged:
        return LiveDatabase::State::not_logged;
    case AskedDatabase::State::unopenable:
        break;
    }
    return LiveDatabase::State::unopenable;
}

// What the trace told since the last item: the module asks about a database right before it hands
// it out.
class Answer {
  public:
    void read(const std::string& line) {
        if (std::optional<AskedDatabase> asked = parse_asked_database(line))
            m_told = LiveDatabase{state_of(asked->state), asked->dbiid, {}};
    }
    LiveDatabase take(ModuleSession& session) {
        LiveDatabase told = m_told.value_or(LiveDatabase{});
        m_told.reset();
        if (told.state == LiveDatabase::State::unopenable ||
            told.state == LiveDatabase::State::untold)
            told.reason = session.reason();
        session.forget_reasons();
        return told;
    }

  private:
    std::optional<LiveDatabase> m_told;
};

} // namespace

const LiveDatabase* LiveDatabases::find(const std::string& path) const {
    auto found = m_known.find(path);
    return found == m_known.end() ? nullptr : &found->second;
}

void LiveDatabases::ask(const std::vector<std::string>& paths) {
    std::vector<std::string> unknown;
    for (const std::string& path : paths)
        if (!m_known.contains(path))
            unknown.push_back(path);
    ask_together(unknown);
    for (const std::string& path : unknown)
        m_known.try_emplace(path, LiveDatabase{LiveDatabase::State::untold,
                                               {},
                                               "the module did not hand it out to be looked at"});
}

// A database that ends the server's library must not keep the others from being asked.
void LiveDatabases::ask_together(const std::vector<std::string>& paths) {
    if (paths.empty())
        return;
    bool started = false;
    try {
        ask_server(paths, started);
    } catch (const ClientError& failure) {
        throw_if_interrupted();
        if (!started || failure.exit_code() != static_cast<int>(ExitCode::server_error))
            throw;
        if (paths.size() == 1) {
            m_known[paths.front()] = {LiveDatabase::State::unopenable, {}, failure.what()};
            return;
        }
        auto middle = paths.begin() + static_cast<std::ptrdiff_t>(paths.size() / 2);
        ask_together({paths.begin(), middle});
        ask_together({middle, paths.end()});
    }
}

// A full backup asks each database, whatever it answers, before it is copied. This one ends there.
void LiveDatabases::ask_server(const std::vector<std::string>& paths, bool& started) {
    TemporaryDirectory temporary(absolute_path(m_context.tmp_dir), m_context.ini.data_directory);
    OperationContext context = m_context;
    context.runtime_directory = temporary.path(); // the index of instances is not asked
    std::vector<std::string> variables = {tmp_dir_variable(temporary.path())};
    for (const std::string& path : paths)
        variables.push_back(database_variable(database_value(path)));
    const std::set<std::string> wanted(paths.begin(), paths.end());
    Answer answer;
    ModuleSession session(context, {}, [&](const std::string& line) { answer.read(line); });
    if (session.init(DB_TYPE_BCK, DB_LEVEL_FULL, std::move(variables)) != DB_NUM_I_OK)
        session.report_failed_start("look at live databases", session.reason());
    started = true;
    for (;;) {
        throw_if_interrupted();
        session.forget_reasons();
        ModuleItem next = session.host().get_item();
        if (next.status != DB_NUM_I_OK)
            break;
        session.item_begun();
        LiveDatabase told = answer.take(session);
        if (wanted.contains(next.name))
            m_known[next.name] = std::move(told);
        (void)session.finish(DB_ITEM_EXCLUDED);
    }
    (void)session.close(false); // nothing of this is a backup
}

} // namespace qrtln
