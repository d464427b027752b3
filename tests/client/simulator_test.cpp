// The executable with the real module over the simulated server.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using test::Outcome;
using test::OverTheSimulator;
using test::read_file;
using test::run_client;

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

} // namespace
} // namespace qrtln

#endif
