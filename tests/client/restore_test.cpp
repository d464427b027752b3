// Restores with the real module over the simulated server.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::HeldDatabase;
using test::Outcome;
using test::OverTheSimulator;
using test::read_file;
using test::run_client;
using test::snapshot;
using test::write_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Restore : public OverTheSimulator {
  protected:
    json restore(int exit_code, std::vector<std::string> more, test::Environment environment = {}) {
        more.insert(more.begin(), "restore");
        return run(exit_code, std::move(more), std::move(environment));
    }
    void put(const std::string& name) const {
        ASSERT_EQ(domino("put " + m_server + " " + name), 0);
    }
    // The action that the plan has for a path.
    static std::string action(const json& document, const std::string& path) {
        for (const json& item : document["plan"]["items"])
            if (item["path"] == path)
                return item["action"];
        return "none";
    }

    std::string m_data = m_server + "/data";
    std::string m_user1 = m_data + "/mail/user1.nsf";
};

TEST_F(Restore, ALostDatabaseComesBackWithItsFolderOwnerModeAndTime) {
    ASSERT_EQ(::chmod(m_user1.c_str(), 0640), 0);
    ASSERT_EQ(::chmod((m_data + "/mail").c_str(), 0750), 0);
    json before = shown("mail/user1.nsf");
    std::string set = full_backup();
    struct stat status {};
    ASSERT_EQ(::stat(m_user1.c_str(), &status), 0);
    ASSERT_EQ(domino("lose " + m_server + " mail/user1.nsf"), 0);
    fs::remove_all(m_data + "/mail");
    fs::create_directories(m_store + "/runtime/owed.jsonl"); // no list can be written

    json planned = restore(0, {"mail/user1.nsf", "--activate", "--dry-run"});
    EXPECT_EQ(planned["recovery_logs"]["first"], 1); // what a recovery would need
    EXPECT_EQ(planned["recovery_logs"]["on_server"], json::array({1}));
    EXPECT_EQ(action(planned, m_user1), "activate");
    EXPECT_EQ(planned["plan"]["items"][0]["existing"], nullptr);
    EXPECT_EQ(planned["plan"]["items"][0]["size"], status.st_size);
    EXPECT_FALSE(fs::exists(m_data + "/mail"));

    json done = restore(0, {"mail/user1.nsf", "--activate"});
    EXPECT_EQ(done["plan"]["items"], planned["plan"]["items"]);
    EXPECT_EQ(done["result"]["restored"], json::array({m_user1}));
    EXPECT_THAT(m_errors, HasSubstr("take a full backup"));
    fs::remove(m_store + "/runtime/owed.jsonl");
    EXPECT_EQ(shown("mail/user1.nsf")["digest"], before["digest"]);
    put("mail/user1.nsf"); // the server writes to it
    struct stat folder {};
    struct stat data {};
    ASSERT_EQ(::stat((m_data + "/mail").c_str(), &folder), 0);
    ASSERT_EQ(::stat(m_data.c_str(), &data), 0);
    EXPECT_EQ(folder.st_mode, data.st_mode); // a folder that was not selected: as the one above
    EXPECT_TRUE(fs::is_empty(m_tmp));

    // With the whole system the folder's own mode comes back; and times do.
    fs::remove_all(m_data + "/mail");
    restore(0, {"--all", "--activate"});
    ASSERT_EQ(::stat((m_data + "/mail").c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777, 0750U);
    struct stat now {};
    ASSERT_EQ(::stat(m_user1.c_str(), &now), 0);
    EXPECT_EQ(now.st_mode, status.st_mode);
    EXPECT_EQ(now.st_mtim.tv_sec, status.st_mtim.tv_sec);
    EXPECT_EQ(now.st_mtim.tv_nsec, status.st_mtim.tv_nsec);
}

TEST_F(Restore, WithoutActivationTheCopyWaitsAndTheServerIsUntouched) {
    full_backup();
    put("mail/user1.nsf");
    std::string before = read_file(m_user1);
    json done = restore(0, {"mail/user1.nsf"});
    std::string copy = done["result"]["waiting"][0]["copy"];
    EXPECT_THAT(copy, HasSubstr(m_tmp + "/qrtln-restored-"));
    EXPECT_EQ(domino("show " + copy), 0);
    EXPECT_EQ(read_file(m_user1), before);
    full_backup(); // clears what killed runs left: not this
    EXPECT_TRUE(fs::exists(copy));
}

TEST_F(Restore, ADatabaseInUseIsNotTouchedAndASecondCommandFinishes) {
    std::string set = full_backup();
    json saved = shown("mail/user1.nsf");
    put("mail/user1.nsf");
    std::string before = read_file(m_user1);
    {
        HeldDatabase held(m_server, "mail/user1.nsf");
        json done = restore(3, {"mail/user1.nsf", "mail/user2.nsf", "--activate"});
        ASSERT_THAT(done["result"]["waiting"], SizeIs(1));
        std::string copy = done["result"]["waiting"][0]["copy"];
        EXPECT_EQ(domino("show " + copy), 0);
        EXPECT_THAT(m_errors, HasSubstr("in use: " + m_user1));
        EXPECT_EQ(done["result"]["restored"], json::array({m_data + "/mail/user2.nsf"}));
        EXPECT_EQ(read_file(m_user1), before);
    }
    {
        std::ifstream user(m_user1); // a plan tells who has it open
        json items = restore(0, {"mail", "--activate", "--dry-run"})["plan"]["items"];
        EXPECT_THAT(items[0]["used_by"], HasSubstr(std::to_string(::getpid()) + " ("));
        EXPECT_EQ(items[1]["used_by"], nullptr);
    }
    Outcome text =
        run_client({"restore", "mail/user1.nsf", "--activate", "--notes-ini",
                    m_server + "/notes.ini", "--store", m_store, "--tmp-dir", m_tmp},
                   {{"QRTLN_MODULE", ""}, {"Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY}});
    EXPECT_THAT(text.output, HasSubstr("as in " + set +
                                       ": what was changed since then is not in "
                                       "them,\n`qrtln recover` instead"));
    EXPECT_EQ(shown("mail/user1.nsf")["digest"], saved["digest"]);
    EXPECT_THAT(backup({"--level", "diff"}).output, HasSubstr("\"owed\""));
}

TEST_F(Restore, ARetryUsesTheCopyThatWaitsIfItIsWholeAndThisUsersAlone) {
    std::string object = object_file(full_backup(), m_user1);
    const std::pair<const char*, std::function<void(const std::string&)>> cases[] = {
        {"whole", [](auto&) {}},
        {"changed", [&](auto& copy) { flip_a_bit(copy); }},
        {"linked", [&](auto& copy) { fs::create_hard_link(copy, m_scratch / "spare"); }},
        {"others may write", [](auto& copy) { ::chmod(copy.c_str(), 0666); }},
        {"for all", [](auto& copy) { ::chmod(copy.substr(0, copy.find("/mail")).c_str(), 0777); }},
    };
    for (const auto& [title, happens] : cases) {
        m_tmp = m_scratch / title;
        fs::create_directories(m_tmp);
        bool used = *title == 'w';
        json done;
        for (int i = 0; i < 2; ++i) // the second finds the first one's
            done = restore(3, {"mail/user1.nsf", "--activate"},
                           {{"NOTES_SIM_FAULTS", "NSFTakeDatabaseOffline=5098"}})["result"];
        EXPECT_THAT(std::vector<fs::path>(fs::directory_iterator(m_tmp), {}), SizeIs(1));
        happens(done["waiting"][0]["copy"]);
        flip_a_bit(object);
        restore(used ? 0 : 4, {"mail/user1.nsf", "--activate"});
        flip_a_bit(object);                   // back
        EXPECT_EQ(fs::is_empty(m_tmp), used); // what is not its own is left alone
    }
}

TEST_F(Restore, AWholeTreeIsRelocatedBelowItsWholePath) {
    std::string set = full_backup();
    fs::remove(m_data + "/qrtln_archive.json"); // the note of who archives the logs is not saved
    auto server = snapshot(m_data);
    std::string to = m_scratch / "elsewhere";
    restore(0, {"--all", "--to", to, "--dry-run"});
    EXPECT_FALSE(fs::exists(to));
    for (int i = 0; i < 2; ++i) { // a second time over the first
        restore(0, {"--all", "--to", to});
        EXPECT_EQ(snapshot(to + m_data), server);
    }
    EXPECT_FALSE(fs::exists(to + m_server + "/logs"));
    EXPECT_EQ(snapshot(m_data), server);
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

TEST_F(Restore, FoldersThatAreNoPlaceForARestoreAreRefused) {
    full_backup();
    for (const std::string& to :
         {m_data, m_data + "/below", m_scratch / "none/deep", std::string("/")}) {
        SCOPED_TRACE(to);
        restore(1, {"--all", "--to", to});
        EXPECT_FALSE(to.size() > m_data.size() && fs::exists(to));
    }
    fs::create_directory_symlink(m_data, m_scratch / "alias");
    restore(1, {"--all", "--to", m_scratch / "alias/x"});
    EXPECT_FALSE(fs::exists(m_data + "/x"));
    const std::vector<std::string> usage[] = {
        {},
        {"--activate"},
        {"--all", "--plain"},
        {"--all", "mail"},
        {"--all", "--to", m_scratch / "x", "--activate"},
        {"--all", "--set", "latest", "--at", "2026-01-01 00:00"},
        {"--all", "--at", "2026-02-30 00:00"}};
    for (const auto& words : usage)
        restore(2, words);
    restore(1, {"mail/nobody.nsf"});
    EXPECT_THAT(m_errors, HasSubstr("mail/nobody.nsf"));
    for (const char* all : {"--all", "mail"}) { // the earliest set, with a time that takes it
        restore(1, {all, "--at", "2001-01-01 00:00"});
        EXPECT_THAT(m_errors, HasSubstr(list()[0]["ended"].get<std::string>()));
    }
    m_tmp = m_data + "/mail";
    restore(1, {"--all", "--dry-run"});
    EXPECT_THAT(m_errors, HasSubstr("is inside the data directory"));
}

TEST_F(Restore, APlainRestoreWithACollisionIsRefusedBeforeItStarts) {
    fs::create_directories(m_data + "/other");
    ASSERT_EQ(domino("create " + m_server + " other/user1.nsf"), 0)
        << read_file(m_scratch / "domino-sim.out");
    full_backup();
    std::string to = m_scratch / "plain";
    restore(1, {"mail", "other", "--to", to, "--plain"});
    EXPECT_THAT(m_errors, HasSubstr("both"));
    EXPECT_FALSE(fs::exists(to));
    restore(0, {"mail", "--to", to, "--plain"});
    std::vector<std::string> names;
    for (const auto& [name, content] : snapshot(to))
        names.push_back(name);
    EXPECT_THAT(names, ElementsAre(".", "/user1.nsf", "/user2.nsf"));
}

TEST_F(Restore, TheWholeSystemComesBackFromTheFullSetAndWhatFollowedIt) {
    full_backup();
    json first = shown("names.nsf");
    put("names.nsf");
    put("mail/user1.nsf");
    std::string second = full_backup({"mail", "--level", "copy"});
    json saved = shown("mail/user1.nsf");
    for (const char* name : {"names.nsf", "mail/user1.nsf", "mail/user2.nsf"})
        put(name);
    write_file(m_data + "/user.dic", "changed");
    std::string dic = m_data + "/user.dic";
    // A folder brings no file that is there; its name and --all do.
    EXPECT_EQ(action(restore(0, {m_data, "--dry-run"}), dic), "leave out");
    EXPECT_EQ(action(restore(0, {"user.dic", "--dry-run"}), dic), "write");

    json done = restore(0, {"--all", "--activate"});
    EXPECT_EQ(action(done, m_server + "/logs/S0000001.TXN"), "leave out");
    EXPECT_EQ(shown("names.nsf")["digest"], first["digest"]);
    EXPECT_EQ(shown("mail/user1.nsf")["digest"], saved["digest"]); // from the later set
    EXPECT_NE(read_file(dic), "changed");
    EXPECT_THAT(done["result"]["waiting"], IsEmpty());
    EXPECT_TRUE(fs::is_empty(m_tmp));
    EXPECT_THAT(extents(), testing::ElementsAre(1));

    // --at and --set choose the sets.
    std::string base = list()[0]["set"];
    json at;
    for (const std::string& time : {base.substr(0, 16), list()[0]["ended"].get<std::string>()}) {
        at = restore(0, {"names.nsf", "--at", time, "--dry-run"});
        EXPECT_EQ(at["plan"]["items"][0]["set"], base);
    }
    at = restore(0, {"mail/user1.nsf", "--dry-run"});
    EXPECT_EQ(at["plan"]["items"][0]["set"], second);
    restore(1, {"names.nsf", "--set", second});
    restore(1, {"--all", "--set", second});
    EXPECT_THAT(m_errors, HasSubstr("--at " + second.substr(0, 16)));
}

TEST_F(Restore, AnObjectOfAnotherSizeThanTheSetTellsIsDamage) {
    std::string set = full_backup();
    std::string before = read_file(m_user1);
    Manifest lying = manifest(set);
    for (std::uint64_t size : {std::uint64_t{1000}, std::uint64_t{1} << 20}) {
        for (ManifestItem& item : lying.items)
            if (item.path == m_user1)
                item.size = size;
        auto store = open_directory_store(m_store, StoreAccess::write);
        store->rewrite_manifest(set, serialize(lying));
        // What is put in place is written down in the store: not while another run has it.
        restore(11, {"mail/user1.nsf", "--activate"});
        restore(4, {"mail/user1.nsf", "--to", m_scratch / "to"});
        store.reset();
        restore(4, {"mail/user1.nsf", "--activate"});
        EXPECT_EQ(read_file(m_user1), before);
        EXPECT_TRUE(fs::is_empty(m_tmp));
    }
}

TEST_F(Restore, WithoutRoomNothingIsWritten) {
    full_backup();
    std::string small = m_scratch / "small";
    test::SmallFileSystem file_system(small, 300'000);
    if (!file_system.mounted())
        GTEST_SKIP() << "this user may not mount";
    restore(1, {"--all", "--to", small + "/to"});
    EXPECT_THAT(m_errors, HasSubstr("nothing was written"));
    EXPECT_FALSE(fs::exists(small + "/to"));
    m_tmp = small;
    restore(1, {"mail"});
    EXPECT_TRUE(fs::is_empty(small));
    // A live file without blocks gives none back.
    auto needed = [&] {
        std::uint64_t sum = 0;
        json plan = restore(0, {"mail/user1.nsf", "--activate", "--dry-run"})["plan"];
        for (const json& room : plan["room"])
            sum += room["needed"].get<std::uint64_t>();
        return sum;
    };
    std::uint64_t before = needed();
    std::string live = read_file(m_user1);
    write_file(m_user1, "");
    fs::resize_file(m_user1, live.size());
    EXPECT_EQ(needed(), before + live.size());
    write_file(m_user1, live);
    restore(0, {"mail", "--activate"}); // one at a time fits
    EXPECT_TRUE(fs::is_empty(small));
}

TEST_F(Restore, AFailureOfTheServerIsToldAndWhatIsReplacedIsKeptOnRequest) {
    full_backup();
    auto before = snapshot(m_data);
    restore(14, {"mail", "--activate"}, {{"NOTES_SIM_FAULTS", "NotesInitExtended=272"}});
    EXPECT_TRUE(fs::is_empty(m_tmp));
    const std::tuple<std::string, const char*, const char*> refusals[] = {
        {"=5098", "in use: ", "does not let go"},
        {"=16141", "Input or output error", "its disk"},
        {"#2=272", "denied", "run as the user that owns"}};
    for (const auto& [status, text, advice] : refusals) {
        json done = restore(3, {"mail/user1.nsf", "--activate", "--keep-replaced"},
                            {{"NOTES_SIM_FAULTS", "NSFTakeDatabaseOffline" + status}});
        EXPECT_EQ(done["result"]["waiting"][0]["in_use"], *text == 'i');
        EXPECT_THAT(m_errors, testing::AllOf(HasSubstr(text), HasSubstr(advice)));
        EXPECT_EQ(m_errors.find("in use") != std::string::npos, *text == 'i');
        EXPECT_EQ(snapshot(m_data), before);
    }
    run(3, {"recover", "mail", "--replace-live"},
        {{"NOTES_SIM_FAULTS", "NSFTakeDatabaseOffline#2=272"}});
    EXPECT_THAT(m_errors, HasSubstr("it cannot be taken offline: Access to data denied"));
    put("mail/user1.nsf"); // it is online
    std::string live = read_file(m_user1);
    json done = restore(0, {"mail/user1.nsf", "--activate", "--keep-replaced"})["result"];
    std::string kept = done["kept_replaced"][0]["kept"];
    EXPECT_THAT(kept, testing::StartsWith(m_user1 + ".replaced-20"));
    EXPECT_EQ(read_file(kept), live);
}

TEST_F(Restore, LogsComeBackOnlyWithTheWholeSystemAndOnlyWhenTheirFolderIsLost) {
    full_backup();
    std::string log = m_server + "/logs/S0000001.TXN";
    put("names.nsf");
    std::string active = read_file(log);
    restore(3, {log, "--dry-run"});
    EXPECT_THAT(restore(0, {"--all"})["result"]["failed"], IsEmpty());
    EXPECT_EQ(read_file(log), active);
    fs::remove_all(m_server + "/logs");
    std::ofstream(m_server + "/logs") << "no folder";
    EXPECT_EQ(restore(0, {"mail/user1.nsf", "--dry-run"})["recovery_logs"], nullptr);
    fs::remove(m_server + "/logs");
    json done = restore(0, {"--all", "--activate"});
    EXPECT_EQ(action(done, log), "write");
    EXPECT_TRUE(fs::exists(log));
    EXPECT_TRUE(fs::exists(m_server + "/logs/nlogctrl.lfh"));
    put("names.nsf");
}

// By its name where the data directories are the same, by its data directory where the names are.
TEST_F(Restore, AnotherServersSetsAreTakenOnlyWhenTheyAreNamed) {
    const std::string set = full_backup();
    const std::string data = m_data;
    const auto live = snapshot(data);
    // Two hosts with one data path: each has sets, an index and owed databases of its own.
    for (const char* command : {"restore", "recover"}) {
        Outcome other = client({command, "names.nsf", "--server", "mail2"});
        EXPECT_EQ(other.exit_code, 1);
        EXPECT_THAT(other.errors, HasSubstr("--from-server " + host_name()));
    }
    EXPECT_EQ(backup({"--level", "incr", "--server", "mail2"}).exit_code,
              1); // builds on no other's
    restore(1, {"names.nsf", "--set", set, "--activate", "--server", "mail2"});
    EXPECT_EQ(snapshot(data), live);
    ASSERT_EQ(backup({"--server", "mail2"}).exit_code, 0);
    ASSERT_EQ(backup({"--server", "mail2"}).exit_code, 0); // the second one's index has entries
    EXPECT_TRUE(fs::exists(m_store + "/runtime/servers/mail2/qrtln_DBIID.ini"));
    EXPECT_FALSE(fs::exists(m_store + "/runtime/qrtln_DBIID.ini"));
    EXPECT_EQ(client({"prove", "--server", "mail2"}).exit_code, 0);
    EXPECT_EQ(list()[0]["proven"], "-");
    EXPECT_THAT(
        restore(0, {"names.nsf", "--from-server", host_name(), "--server", "mail2", "--dry-run"})
            .dump(),
        HasSubstr(set));
    EXPECT_EQ(client({"restore", "names.nsf", "--server", "a\nb"}).exit_code, 2);
    EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 0);

    m_server = m_scratch / "other";
    ASSERT_EQ(domino("init " + m_server + " --databases 5 --extent-size 65536"), 0);
    auto before = snapshot(m_server + "/data");
    const std::string moved = data + "=" + m_server + "/data";
    restore(1, {"names.nsf", "--activate"});
    EXPECT_THAT(m_errors, HasSubstr("--data-directory " + moved));
    restore(2, {"names.nsf", "--activate", "--data-directory", data + "=/elsewhere"});
    restore(0, {"names.nsf", "--set", set, "--to", m_scratch / "to"});
    EXPECT_EQ(read_file(m_scratch / "to" + data + "/names.nsf"), read_file(data + "/names.nsf"));
    EXPECT_EQ(snapshot(m_server + "/data"), before);
    restore(0, {"names.nsf", "--activate", "--data-directory", moved});
    EXPECT_NE(snapshot(m_server + "/data"), before);
}

TEST_F(Restore, AnInterruptedRestoreLeavesNoPartOfACopy) {
    full_backup();
    // A stopped writer gives the signal its moment: the trace is a FIFO that nobody reads yet.
    std::string trace = m_scratch / "trace";
    ASSERT_EQ(::mkfifo(trace.c_str(), 0600), 0);
    int reader = ::open(trace.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(::fcntl(reader, F_SETPIPE_SZ, 4096), 0);
    test::RunningClient client(
        {"restore", "--notes-ini", m_server + "/notes.ini", "--store", m_store, "--tmp-dir", m_tmp,
         "--trace", trace, "--all"},
        {{"QRTLN_MODULE", ""}, {"Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY}});
    int unread = 0;
    for (int i = 0; i < 2000 && unread < 3000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_EQ(::ioctl(reader, FIONREAD, &unread), 0);
    }
    ASSERT_GE(unread, 3000);
    ::kill(client.pid(), SIGTERM);
    constexpr char end_of_trace = '\x04';
    std::thread drain([&] {
        std::array<char, 4096> buffer{};
        for (ssize_t got = 1; got > 0 && std::find(buffer.begin(), buffer.begin() + got,
                                                   end_of_trace) == buffer.begin() + got;)
            got = ::read(reader, buffer.data(), buffer.size());
    });
    Outcome outcome = client.wait();
    ASSERT_EQ(::write(reader, &end_of_trace, 1), 1);
    drain.join();
    ::close(reader);
    EXPECT_EQ(outcome.exit_code, 143) << outcome.errors;
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

TEST_F(Restore, AHostileSetWritesNothingOutsideTheDataDirectory) {
    std::string set = full_backup();
    Manifest hostile = manifest(set);
    ManifestItem model = item(set, m_data + "/user.id");
    std::string outside = m_scratch / "outside";
    write_file(outside + "/precious.nsf", "precious");
    write_file(outside + "/precious.id", "precious");
    fs::create_directory_symlink(outside, m_data + "/link");
    fs::create_directory_symlink("link", m_data + "/second");
    fs::create_symlink(outside + "/precious.nsf", m_data + "/live.nsf");
    fs::create_symlink(outside + "/precious.id", m_data + "/live.id");
    ASSERT_EQ(::mkfifo((m_data + "/fifo.nsf").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((m_data + "/fifo.id").c_str(), 0600), 0);
    fs::create_directories(m_data + "/folder.nsf");
    const std::string paths[] = {
        outside + "/new.id",
        outside + "/new.nsf",
        outside + "/precious.nsf",
        m_data + "/../../outside/up.nsf",
        m_data + "/../../outside/up.id",
        m_data + "/mail/../../../outside/up.nsf",
        m_data + "/link/in.nsf",
        m_data + "/link/in.id",
        m_data + "/link/new/in.nsf",
        m_data + "/second/in.nsf",
        m_data + "/second/new/in.id",
        m_data + "/live.nsf",
        m_data + "/live.id",
        m_data + "/fifo.nsf",
        m_data + "/fifo.id",
        m_data + "/folder.nsf",
        m_data + "/user.id/below.id",
        m_data + "//double.id",
        m_data + "/" + std::string(300, 'x') + ".nsf",
        m_data + "/" + std::string(1100, 'x') + ".nsf",
        "relative.nsf",
        "../relative.id",
        m_data + std::string("/nul\0.nsf", 9),
        m_data + "2/prefix.nsf",
    };
    hostile.items.clear();
    for (const std::string& path : paths) {
        ManifestItem item = model;
        item.path = path;
        item.mode = 06777;
        hostile.items.push_back(item);
    }
    ManifestItem folder = model;
    folder.path = outside + "/folder";
    folder.kind = ItemKind::directory;
    folder.object.clear();
    hostile.items.push_back(folder);
    auto before = snapshot(outside);
    auto data = snapshot(m_data);
    for (ItemKind kind : {ItemKind::file, ItemKind::other}) { // the module's, and the client's own
        for (ManifestItem& item : hostile.items)
            item.kind = item.kind == ItemKind::directory ? item.kind : kind;
        hostile.set = kind == ItemKind::file ? "20300101T000000Z-full" : "20300102T000000Z-full";
        open_directory_store(m_store, StoreAccess::write)
            ->write_manifest(hostile.set, serialize(hostile));
        for (const std::vector<std::string>& words :
             {std::vector<std::string>{"--all"}, {"--all", "--activate"}}) {
            json done = restore(3, words);
            EXPECT_THAT(done["result"]["failed"], SizeIs(std::size(paths)));
            EXPECT_THAT(done["result"]["restored"], IsEmpty());
            EXPECT_EQ(snapshot(outside), before);
            EXPECT_EQ(snapshot(m_data), data);
        }
    }
    EXPECT_FALSE(fs::exists(m_data + "2"));
    EXPECT_FALSE(fs::exists(outside + "/folder"));
}

} // namespace
} // namespace qrtln

#endif
