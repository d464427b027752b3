// The executable with the real module over the simulated server.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::Outcome;
using test::OverTheSimulator;
using test::read_file;
using test::run_client;
using testing::HasSubstr;

class UnderLoad : public OverTheSimulator, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Moods, UnderLoad, testing::Values("", "before"));

TEST_P(UnderLoad, EveryDatabaseIsSavedExactlyAsTheServerCommittedIt) {
    set_moods(GetParam());
    std::string manifest = m_scratch / "commits";
    std::string workload = std::string(QRTLN_DOMINO_SIM) + " workload " + m_server +
                           " --writers 2 --manifest " + manifest + " >/dev/null 2>&1 & echo $! >" +
                           m_scratch / "pid";
    ASSERT_EQ(std::system(workload.c_str()), 0);
    Outcome first = backup();
    Outcome second = backup({"mail"});
    std::string stop = "kill -TERM $(cat " + m_scratch / "pid" + "); while kill -0 $(cat " +
                       m_scratch / "pid" + ") 2>/dev/null; do sleep 0.05; done";
    ASSERT_EQ(std::system(stop.c_str()), 0);
    ASSERT_EQ(first.exit_code, 0) << first.errors;
    ASSERT_EQ(second.exit_code, 0) << second.errors;

    auto store = open_directory_store(m_store, StoreAccess::read);
    std::size_t databases = 0;
    std::size_t active_logs = 0;
    for (const std::string& set : store->set_names()) {
        CatalogueEntry entry = load_set(*store, set);
        ASSERT_TRUE(entry.manifest) << entry.problem;
        for (const ManifestItem& item : entry.manifest->items) {
            active_logs += item.log && item.log->active ? 1 : 0;
            if (item.kind != ItemKind::database)
                continue;
            std::string content;
            store->read_object(item.object, [&](Bytes bytes) {
                content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            });
            std::string copy = m_scratch / "copy.nsf";
            test::write_file(copy, content);
            std::string name = item.path.substr(entry.manifest->data_directory.size() + 1);
            EXPECT_EQ(domino("check " + copy + " --database " + name + " --manifest " + manifest),
                      0)
                << name << read_file(m_scratch / "domino-sim.out");
            ++databases;
        }
    }
    EXPECT_GT(databases, 6U);
    EXPECT_GE(active_logs, 1U); // more when one fills up meanwhile
    EXPECT_TRUE(fs::is_empty(m_tmp));
    EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 0);
}

TEST_F(OverTheSimulator, FailuresOfTheServerLeaveTheIndexAndEndWithTheirCodes) {
    ASSERT_EQ(backup().exit_code, 0);
    ASSERT_EQ(backup().exit_code, 0); // the second writes the index
    std::string index = m_store + "/runtime/qrtln_DBIID.ini";
    std::string before = read_file(index);
    EXPECT_THAT(before, HasSubstr("names.nsf="));
    ASSERT_EQ(domino("compact " + m_server + " names.nsf"), 0); // a new entry, if all goes well
    const struct {
        const char* faults;
        int exit_code;
        const char* text;
    } cases[] = {
        {"NotesInitExtended=272", 14, "Access to data denied"},
        {"NSFGetFirstLogToArchive=5", 3, "failed: transaction logs: Status 5 has no text"},
        {"NSFBackupStart#1=5,NSFBackupStart#2=5", 3, "failed"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.faults);
        Outcome outcome = backup({}, {{"NOTES_SIM_FAULTS", test.faults}});
        EXPECT_EQ(outcome.exit_code, test.exit_code) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(test.text));
        EXPECT_EQ(json::parse(outcome.output)["exit_code"], test.exit_code);
        EXPECT_EQ(read_file(index), before);
        EXPECT_TRUE(fs::is_empty(m_tmp));
    }
    Outcome no_library = backup({}, {{"Notes_ExecDirectory", m_scratch / "none"}});
    EXPECT_EQ(no_library.exit_code, 14);
    EXPECT_THAT(no_library.errors, HasSubstr("libnotes.so"));
}

} // namespace
} // namespace qrtln

#endif
