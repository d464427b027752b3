#include "qrt_lotus_notes/qrtln_f/file_discovery.h"

#include <dirent.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "qrt_lotus_notes/qrtln_f/fifo_list.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_f/fake_server.h"
#include "tests/support/message_capture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace fs = std::filesystem;

FifoList listOf(const std::vector<std::string>& entries) {
    FifoList list(CreateFIFOList());
    for (const std::string& entry : entries) {
        pushPath(list.get(), entry.c_str(), DB_BACKUP_FILE_TYPE_DB);
    }
    return list;
}

// The names of a directory in the order in which it returns them.
std::vector<std::string> directoryOrder(const std::string& path) {
    std::vector<std::string> names;
    DIR* directory = opendir(path.c_str());
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(directory);
    return names;
}

std::size_t countLogs(const MessageCapture& messages, const std::string& part) {
    std::size_t count = 0;
    for (const std::string& log : messages.logs()) {
        count += log.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

TEST(FileDiscovery, WholeSystemQueuesEveryDominoFileWithItsKindAndAttachmentsLast) {
    inOwnProcess([] {
        FakeServer server;
        const char* const systemFiles[] = {"a.njf", "b.dsk", "c.dic", "d.cfg", "e.ns2"};
        for (const char* name : systemFiles) {
            server.addFile(name);
        }
        for (const char* name : {"notes.ini", "names.nsf", "Mail.NSF", "b.nlo", "old.ns3", "t.ntf",
                                 "mail.box", "c.ncf", "server.id", "x.txt", "nodot", "daos/a.NLO",
                                 "mail/deep/.hidden/u.nsf", "dir.nsf/inside.nsf"}) {
            server.addFile(name);
        }
        ASSERT_EQ(getNotesFileList(g_sQRTLN_Global.szNotesDataDirectory, DB_LEVEL_FULL),
                  DB_NUM_I_OK);
        const auto items = server.drain();
        const std::string data = server.folder.file("data");
        ASSERT_GE(items.size(), 2u);
        EXPECT_EQ(items[0], std::pair(data, DB_BACKUP_FILE_TYPE_SYS));
        EXPECT_EQ(items[1], std::pair(data + "/notes.ini", DB_BACKUP_FILE_TYPE_SYS));

        using Item = std::pair<std::string, DB_BACKUP_FILE_TYPE>;
        std::vector<Item> files;
        std::string directory = data;
        bool attachmentsBegun = false;
        for (std::size_t i = 2; i < items.size(); ++i) {
            const auto& [name, kind] = items[i];
            if (fs::is_directory(name)) {
                EXPECT_EQ(kind, DB_BACKUP_FILE_TYPE_SYS);
                directory = name;
                continue;
            }
            EXPECT_EQ(fs::path(name).parent_path(), directory) << "the directory comes first";
            const bool attachment = name.ends_with(".nlo") || name.ends_with(".NLO");
            EXPECT_TRUE(attachment || !attachmentsBegun) << name;
            attachmentsBegun = attachmentsBegun || attachment;
            files.emplace_back(name.substr(data.size() + 1), kind);
        }
        for (const char* name : systemFiles) {
            EXPECT_EQ(std::erase(files, Item(name, DB_BACKUP_FILE_TYPE_SYS)), 1u) << name;
        }
        EXPECT_THAT(
            files,
            UnorderedElementsAre(
                Item("names.nsf", DB_BACKUP_FILE_TYPE_DB), Item("Mail.NSF", DB_BACKUP_FILE_TYPE_DB),
                // prepared like a database, finished like a system file
                Item("old.ns3", DB_BACKUP_FILE_TYPE_SYS), Item("t.ntf", DB_BACKUP_FILE_TYPE_DB),
                Item("mail.box", DB_BACKUP_FILE_TYPE_DB), Item("c.ncf", DB_BACKUP_FILE_TYPE_DB),
                Item("server.id", DB_BACKUP_FILE_TYPE_SYS),
                Item("mail/deep/.hidden/u.nsf", DB_BACKUP_FILE_TYPE_DB),
                Item("dir.nsf/inside.nsf", DB_BACKUP_FILE_TYPE_DB),
                Item("b.nlo", DB_BACKUP_FILE_TYPE_SYS),
                Item("daos/a.NLO", DB_BACKUP_FILE_TYPE_SYS)));
    });
}

TEST(FileDiscovery, AttachmentsFollowTheLevelAndNotesIniComesOnceInAProcess) {
    struct Case {
        DB_OPERATION_LEVEL level;
        bool attachments;
    };
    for (const Case& c : {Case{DB_LEVEL_COPY, true}, Case{DB_LEVEL_FULL, true},
                          Case{DB_LEVEL_DIFF, true}, Case{DB_LEVEL_INCR, false}}) {
        SCOPED_TRACE(c.level);
        inOwnProcess([&] {
            FakeServer server;
            server.addFile("a.nsf");
            server.addFile("b.nlo");
            g_sQRTLN_Global.eI_OperationLevel = c.level;
            const std::string data = server.folder.file("data");
            getNotesFileList(data.c_str(), c.level);
            std::vector<std::string> expected = {data, data + "/notes.ini", data + "/a.nsf"};
            if (c.attachments) {
                // The second scan names the directory again: it does not know what the first said.
                expected.push_back(data);
                expected.push_back(data + "/b.nlo");
            }
            EXPECT_EQ(server.drainNames(), expected);
            expected.erase(expected.begin() + 1); // notes.ini is not queued a second time
            getNotesFileList(data.c_str(), c.level);
            EXPECT_EQ(server.drainNames(), expected);
        });
    }
}

TEST(FileDiscovery, MissingNotesIniIsLoggedAndQueuedAllTheSame) {
    inOwnProcess([] {
        FakeServer server;
        MessageCapture messages;
        const FifoList none(CreateFIFOList());
        fillFileList(none.get(), nullptr);
        EXPECT_TRUE(messages.hasLog("Could not find file " + server.data("notes.ini")));
        EXPECT_THAT(server.drainNames(),
                    ElementsAre(server.folder.file("data"), server.data("notes.ini")));
    });
}

TEST(FileDiscovery, FirstMatchIgnoresCaseAndLaterOnesDoNot) {
    FakeServer server;
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_SLCT; // no notes.ini in the way
    for (const char* name : {"x/a.NSF", "x/b.NSF", "x/c.nsf", "x/d.NSF", "y/A.NSF", "y/B.NSF"}) {
        server.addFile(name);
    }
    for (const char* directory : {"x", "y"}) {
        const std::string path = server.data(directory);
        std::vector<std::string> expected = {path};
        for (const std::string& name : directoryOrder(path)) {
            if (expected.size() == 1 || name.ends_with(".nsf")) {
                expected.push_back(path + "/" + name);
            }
        }
        const FifoList patterns = listOf({path + "/*.nsf"});
        fillFileList(patterns.get(), nullptr);
        EXPECT_EQ(server.drainNames(), expected);
        EXPECT_EQ(patterns->iItemCount, 0);
    }
}

TEST(FileDiscovery, MatchListDecidesWhatIsTaken) {
    FakeServer server;
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_SLCT;
    const std::string text = server.addFile("d/x.txt");
    const std::string database = server.addFile("d/y.nsf");
    server.addFile("d/nodot");
    const std::string directory = server.data("d");
    const FifoList empty(CreateFIFOList());
    const FifoList databases = listOf({"*.NSF"});
    struct Case {
        const char* title;
        std::string pattern;
        LIST_INFO* match;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"no list takes what the pattern names", directory + "/*x*", nullptr, {directory, text}},
        {"an empty list takes nothing", directory, empty.get(), {}},
        {"a list compares without case", directory, databases.get(), {directory, database}},
        {"a plain file", database, nullptr, {directory, database}},
        {"an escaped name is literal", directory + "/[x].txt", nullptr, {directory, text}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.title);
        fillFileList(listOf({c.pattern}).get(), c.match);
        EXPECT_EQ(server.drainNames(), c.expected);
    }
    // A bare directory stands for "*.*": names without a dot are never among them.
    fillFileList(listOf({directory + "/"}).get(), nullptr);
    EXPECT_THAT(server.drainNames(), UnorderedElementsAre(directory, text, database));
    EXPECT_EQ(databases->iItemCount, 1);
}

TEST(FileDiscovery, EmptyResultIsReported) {
    FakeServer server;
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_SLCT;
    server.addFile("a.nsf");
    EXPECT_EQ(getNotesFileList(server.folder.file("data").c_str(), DB_LEVEL_SLCT), DB_NUM_E_FAILED);
    EXPECT_STREQ(g_sQRTLN_Global.szDBErrorMsg,
                 "getNotesFileList(): There are no files matching requested patterns");
}

TEST(FileDiscovery, LinkToAnAncestorIsNotEnteredAndOtherLinksAre) {
    inOwnProcess([] {
        FakeServer server;
        MessageCapture messages;
        server.addFile("a/b/one.nsf");
        server.folder.write("elsewhere/two.nsf", "2");
        fs::create_directory_symlink(server.data("a"), server.data("a/b/up"));
        fs::create_directory_symlink("/", server.data("root"));
        fs::create_directory_symlink(server.folder.file("elsewhere"), server.data("a/other"));
        // Two directories that link to each other: only the way back is not taken.
        fs::create_directory_symlink(server.data("a"), server.folder.file("elsewhere/back"));
        // What is neither a file nor leads anywhere.
        fs::create_symlink("nowhere", server.data("a/dangling"));
        ASSERT_EQ(mkfifo(server.data("a/fifo").c_str(), 0600), 0);
        const std::string data = server.folder.file("data");
        getNotesFileList(data.c_str(), DB_LEVEL_FULL);
        EXPECT_EQ(countLogs(messages, "stat() for [" + data + "/a/dangling] returned error (2)"),
                  2u);
        EXPECT_EQ(countLogs(messages, "left out"), 0u);
        EXPECT_THAT(server.drainNames(),
                    UnorderedElementsAre(data, data + "/notes.ini", data + "/a/b",
                                         data + "/a/b/one.nsf", data + "/a/other",
                                         data + "/a/other/two.nsf"));
        EXPECT_EQ(countLogs(messages, "[" + data + "/a/b/up] is a symbolic link"), 1u);
        EXPECT_EQ(countLogs(messages, "[" + data + "/root] is a symbolic link"), 1u);
        EXPECT_EQ(countLogs(messages, "[" + data + "/a/other/back] is a symbolic link"), 1u);
    });
}

TEST(FileDiscovery, PathThatDoesNotFitIsSkippedAndNamedInTheLog) {
    inOwnProcess([] {
        FakeServer server;
        MessageCapture messages;
        // A directory with room for names of 100 bytes.
        const std::size_t length = kPathSize - 1 - 100 - std::strlen("/");
        const std::string segment(200, 'd');
        std::string directory = "long";
        while (server.data(directory).size() + 1 + segment.size() < length) {
            directory += "/" + segment;
        }
        directory += "/" + std::string(length - server.data(directory).size() - 1, 'e');
        const std::size_t room = 100;
        const std::string fits =
            server.addFile(directory + "/" + std::string(room - 4, 'f') + ".nsf");
        const std::string tooLong =
            server.addFile(directory + "/" + std::string(room - 3, 'f') + ".nsf");
        ASSERT_EQ(fits.size(), kPathSize - 1);
        const std::string deep =
            server.addFile(directory + "/" + segment + "/" + segment + "/x.nsf");
        // A directory that fits, but without a file in it.
        const std::string full = server.data(directory) + "/" + std::string(room - 1, 'g');
        fs::create_directories(full);
        const std::string other = server.addFile("other.nsf");
        getNotesFileList(server.folder.file("data").c_str(), DB_LEVEL_FULL);
        const auto names = server.drainNames();
        EXPECT_THAT(names, ::testing::IsSupersetOf({fits, other}));
        EXPECT_THAT(names, ::testing::Not(::testing::Contains(tooLong)));
        EXPECT_EQ(countLogs(messages, tooLong), 1u);
        EXPECT_EQ(countLogs(messages, "[" + full + "] is too long for its files"), 1u);
        EXPECT_EQ(countLogs(messages, deep.substr(0, server.data(directory).size() + 201)), 1u);
    });
}

TEST(FileDiscovery, PatternWithoutADirectoryMeansTheCurrentOne) {
    inOwnProcess([] {
        FakeServer server;
        g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_SLCT;
        const std::string database = server.addFile("here/x.nsf");
        const std::string below = server.addFile("here/sub/y.nsf");
        fs::current_path(server.data("here"));
        fillFileList(listOf({"*.nsf"}).get(), nullptr);
        EXPECT_THAT(server.drainNames(),
                    ElementsAre(server.data("here"), database, server.data("here/sub"), below));
    });
}

TEST(FileDiscovery, WithoutDescriptorsEveryPatternIsGivenUpAndTold) {
    inOwnProcess([] {
        FakeServer server;
        MessageCapture messages;
        g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_SLCT;
        server.addFile("a/x.nsf");
        server.addFile("b/y.nsf");
        rlimit usual{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
        const rlimit none{0, usual.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        fillFileList(listOf({server.data("a/x.nsf"), server.data("b/y.nsf")}).get(), nullptr);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
        EXPECT_THAT(server.drainNames(), IsEmpty());
        for (const char* directory : {"a", "b"}) {
            EXPECT_EQ(countLogs(messages, "directory [" + server.data(directory) +
                                              "] cannot be read, its files are left out (24)"),
                      1u);
        }
    });
}

TEST(FileDiscovery, RestoreTakesNamesAsTheyAreUnderTheRelocationDirectory) {
    struct Case {
        const char* relocation;
        BOOL plain;
        const char* expected;
    };
    for (const Case& c : {Case{"/r/", FALSE, "/r/a/b/x.nsf"}, Case{"/r", TRUE, "/r/x.nsf"},
                          Case{"", TRUE, "/a/b/x.nsf"}}) {
        FakeServer server;
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
        copyText(g_sQRTLN_Global.szRelocationDir, c.relocation);
        g_sQRTLN_Global.bPlainRestore = c.plain;
        EXPECT_EQ(getParticularFileList(listOf({"/a/b/x.nsf"}).get()), DB_NUM_I_OK);
        EXPECT_THAT(server.drainNames(), ElementsAre("/a/b", c.expected));
    }
}

TEST(FileDiscovery, RestoreFromADirectoryThatDoesNotExistEndsTheScanAfterTheItem) {
    FakeServer server;
    g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
    const std::string there = server.addFile("x.nsf");
    getParticularFileList(listOf({there, "/no/such/y.nsf", "/no/such/z.nsf"}).get());
    EXPECT_THAT(server.drainNames(),
                ElementsAre(server.folder.file("data"), there, "/no/such", "/no/such/y.nsf"));
}

TEST(FileDiscovery, RecoveryQueuesDatabasesWithoutTheirDirectories) {
    FakeServer server;
    g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
    g_sQRTLN_Global.bRecovery = TRUE;
    const std::string database = server.addFile("m/a.ns4");
    server.addFile("m/c.ncf");
    getParticularFileList(listOf({server.data("m")}).get());
    EXPECT_THAT(server.drainNames(), ElementsAre(database));
}

TEST(FileDiscovery, PatternIsValidWhenSomethingMatchesOrARestoreMayCreateIt) {
    FakeServer server;
    server.addFile("Mail.nsf");
    const std::string data = server.folder.file("data");
    struct Case {
        std::string pattern;
        BOOL forBackup;
        BOOL forRestore;
        BOOL forRecovery;
    };
    const Case cases[] = {
        {data + "/Mail.nsf", TRUE, TRUE, TRUE},
        {data + "/mail.nsf", FALSE, TRUE, FALSE},
        {data + "/*.nsf", TRUE, TRUE, TRUE},
        {data + "/no/such.nsf", FALSE, FALSE, FALSE},
        {"Mail.nsf", TRUE, TRUE, TRUE},
        {"/tmp", TRUE, TRUE, TRUE},
        {data + "/" + std::string(kPathSize, 'x') + "/y.nsf", FALSE, FALSE, FALSE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pattern);
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
        EXPECT_EQ(IsValidPattern(c.pattern.c_str()), c.forBackup);
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
        EXPECT_EQ(IsValidPattern(c.pattern.c_str()), c.forRestore);
        g_sQRTLN_Global.bRecovery = TRUE;
        EXPECT_EQ(IsValidPattern(c.pattern.c_str()), c.forRecovery);
        g_sQRTLN_Global.bRecovery = FALSE;
    }
}

} // namespace
