// Encrypted stores: what they tell whom, and that nothing in them can be changed unseen.
#include "client/store/canonical_json.h"
#include "client/store/key_settings.h"
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

class Encrypted : public OverTheSimulator {
  protected:
    Encrypted() {
        secret("word", "open sesame\n");
        secret("key", std::string(32, 'k'));
        use("word");
        EXPECT_EQ(on_store({"init", "--encrypt", "--label", "the first"}).exit_code, 0);
    }
    ~Encrypted() override {
        ::unsetenv("QRTLN_PASSPHRASE_FILE");
        ::unsetenv("QRTLN_KEY_FILE");
        key_settings() = {};
    }
    std::string secret(const std::string& name, const std::string& content) const {
        write_file(m_scratch / name, content);
        fs::permissions(m_scratch / name, fs::perms::owner_read | fs::perms::owner_write);
        return m_scratch / name;
    }
    // From here on every command has this passphrase, and what the test itself opens.
    void use(const std::string& name) const {
        ::setenv("QRTLN_PASSPHRASE_FILE", (m_scratch / name).c_str(), 1);
        key_settings() = {};
        key_settings().passphrase_files = {m_scratch / name};
    }
    Words files(const std::string& folder) const {
        Words paths;
        for (const auto& [name, content] : snapshot(m_store + "/" + folder))
            if (content != "folder")
                paths.push_back(fmt::format("{}/{}{}", m_store, folder, name));
        return paths;
    }
    Outcome with(Words words, const Environment& environment) const {
        words.insert(words.end(), {"--store", m_store});
        return run_client(words, environment);
    }
};

TEST_F(Encrypted, KeepsEverythingAndTellsNothing) {
    put("mail/user1.nsf", "--text 'wholly unlike anything'");
    write_file(m_data + "/note.txt", std::string(100000, 'n'));
    const std::string first = backup(0)["set"];
    put("mail/user2.nsf");
    fill_extents(2);
    const std::string second = backup(0, "incr")["set"];
    for (const char* folder : {"packs", "maps", "objects", "sets"})
        for (const std::string& file : files(folder))
            EXPECT_THAT(read_file(file),
                        AllOf(testing::EndsWith("QRTLNSEA"), Not(HasSubstr("user1"))));
    const ManifestItem note = item(first, m_data + "/note.txt");
    EXPECT_FALSE(fs::exists(m_store + "/" + stored_path(FileKind::object, note.object)));
    EXPECT_EQ(verify(), 0);
    const json size = list()[0]["new_bytes"];

    // Copied to one with another key, and to one without.
    const std::string far = m_scratch / "far", plain = m_scratch / "plain";
    const Words keys = {"--key-file", m_scratch / "key"};
    EXPECT_EQ(run_client({"init", "--encrypt", "--store", far, keys[0], keys[1]},
                         {{"QRTLN_PASSPHRASE_FILE", ""}})
                  .exit_code,
              0);
    EXPECT_EQ(run_client({"copy", "--from", m_store, "--to", plain}).exit_code, 1);
    EXPECT_FALSE(fs::exists(plain));
    for (const auto& [from, to] : {std::pair(m_store, far), {far, plain}})
        EXPECT_EQ(run_client({"copy", "--from", from, "--to", to, "--decrypt", keys[0], keys[1]})
                      .exit_code,
                  0);

    // What is not used any more goes, whatever it is called.
    const auto has_note = [&] {
        return open_directory_store(m_store, StoreAccess::read)
            ->has_file(FileKind::object, note.object);
    };
    EXPECT_TRUE(has_note());
    fs::remove(m_data + "/note.txt");
    backup(0);
    const Outcome forgets = on_store({"forget", first, second});
    EXPECT_EQ(forgets.exit_code, 0) << forgets.errors;
    EXPECT_FALSE(has_note());
    EXPECT_EQ(verify(), 0);
    const std::string saved = digest("mail/user2.nsf");
    fs::remove_all(m_data);
    fs::create_directory(m_data);
    m_store = plain;
    ::unsetenv("QRTLN_PASSPHRASE_FILE");
    key_settings() = {};
    EXPECT_EQ(verify(), 0);
    EXPECT_EQ(list()[0]["new_bytes"], size);
    run(0, {"recover", "--all"});
    EXPECT_EQ(digest("mail/user2.nsf"), saved);
}

TEST_F(Encrypted, OpensWithItsKeysAlone) {
    backup(0);
    const auto before = snapshot(m_store);
    const std::string other = secret("other", "open barley"), open_to_others = secret("open", "x");
    fs::permissions(open_to_others, fs::perms::others_read, fs::perm_options::add);
    const Environment no_word = {{"QRTLN_PASSPHRASE_FILE", ""}};
    struct Row {
        Words words;
        int exit_code;
        std::string says;
    };
    for (const Row& row : std::vector<Row>{
             {{}, 12, "is encrypted, and no key"},
             {{"--passphrase-file", other}, 12, "none of the keys"},
             {{"--key-file", m_scratch / "key"}, 12, "none of the keys"},
             {{"--passphrase-file", open_to_others}, 12, "chmod 600"},
             {{"--passphrase-file", m_scratch / "missing"}, 1, "No such file"},
             {{"--passphrase-file", secret("empty", "\n")}, 1, "no passphrase, but nothing"},
             {{"--key-file", secret("short", "short")}, 1, "has less than 32 bytes"},
             {{"--passphrase-command", "echo no such entry >&2; exit 3"}, 1, "no such entry"},
         }) {
        Words words = {"backup", "--level", "full"};
        words.insert(words.end(), row.words.begin(), row.words.end());
        run(row.exit_code, words, row.says, no_word);
        EXPECT_EQ(snapshot(m_store), before) << row.says;
    }
    EXPECT_EQ(with({"list", "--passphrase-command", "echo open sesame"}, no_word).exit_code, 0);

    // Another key, and then that one alone.
    EXPECT_EQ(on_store({"key", "add"}).exit_code, 2);
    EXPECT_EQ(
        on_store({"key", "add", "--new-key-file", m_scratch / "key", "--label", "tape"}).exit_code,
        0);
    const json keys = on_store({"key", "list", "--json"}).document()["keys"];
    ASSERT_THAT(keys, SizeIs(2));
    const bool first_is_tape = keys[0]["label"] == "tape"; // both are of the same second
    const std::string word = keys[first_is_tape ? 1 : 0]["id"],
                      tape = keys[first_is_tape ? 0 : 1]["id"];
    EXPECT_EQ(on_store({"key", "remove", "x"}).exit_code, 13);
    EXPECT_EQ(on_store({"key", "remove", word}).exit_code, 0);
    EXPECT_EQ(verify(), 12);
    const Words key_file = {"--key-file", m_scratch / "key"};
    EXPECT_EQ(with({"key", "remove", tape, key_file[0], key_file[1]}, no_word).exit_code, 1);
    EXPECT_EQ(with({"verify", key_file[0], key_file[1]}, no_word).exit_code, 0);

    // What is not encrypted is not meant by who has a key.
    m_store = m_scratch / "other store";
    backup(12, "full", {}, "is not encrypted");
    EXPECT_FALSE(fs::exists(m_store));
    EXPECT_EQ(with({"init"}, no_word).exit_code, 0);
    EXPECT_EQ(with({"init"}, no_word).exit_code, 1);
    EXPECT_EQ(on_store({"list"}).exit_code, 12);
    EXPECT_EQ(with({"key", "list"}, no_word).exit_code, 1);
}

TEST_F(Encrypted, NothingIsChangedUnseen) {
    // Two files of each kind, and what may be forgotten. A key file is quick to open.
    const std::string key_file = files("keys").front(), key = read_file(key_file);
    EXPECT_EQ(on_store({"key", "add", "--new-key-file", m_scratch / "key"}).exit_code, 0);
    ::unsetenv("QRTLN_PASSPHRASE_FILE");
    ::setenv("QRTLN_KEY_FILE", (m_scratch / "key").c_str(), 1);
    const std::string gone = backup(0)["set"];
    for (const char* text : {"one", "two"}) {
        write_file(m_data + "/note.txt", std::string(100000, *text));
        put("mail/user1.nsf", fmt::format("--text {}", text));
        backup(0);
    }
    EXPECT_EQ(on_store({"forget", gone}).exit_code, 0);
    ASSERT_EQ(verify(), 0);
    const auto found = [&](const std::string& what, int exit_code = 4) {
        EXPECT_EQ(verify(), exit_code) << what;
    };
    Words sealed = {m_store + "/forgotten.json"};
    for (const char* folder : {"packs", "maps", "objects", "sets"}) {
        const Words paths = files(folder);
        ASSERT_GE(paths.size(), 2U) << folder;
        sealed.insert(sealed.end(), paths.begin(), paths.begin() + 2);
        // One in the place of another: both are as they were sealed.
        std::string last = paths.back();
        if (last.ends_with(".json")) // the other one is its note
            last = *std::find_if(paths.begin(), paths.end(), [&](const std::string& path) {
                return path.ends_with(".json") && path != last;
            });
        const std::string one = read_file(paths.front()), other = read_file(last);
        write_file(paths.front(), other);
        write_file(last, one);
        found(std::string(folder) + " exchanged");
        write_file(paths.front(), one);
        write_file(last, other);
    }
    for (const std::string& path : sealed) {
        const std::string whole = read_file(path);
        constexpr std::size_t footer = 40, chunk = 16384 + 16;
        Words others = {whole.substr(0, whole.size() - 1), whole + "x", "",
                        whole.substr(0, footer)};
        for (const std::size_t at : {std::size_t{0}, whole.size() / 2, whole.size() - footer - 1,
                                     whole.size() - footer, whole.size() - 1}) {
            others.push_back(whole);
            others.back().at(at) ^= 1;
        }
        if (whole.size() > 2 * chunk) { // whole chunks are left out, or change places
            others.push_back(whole.substr(0, chunk) + whole.substr(whole.size() - footer));
            others.push_back(whole.substr(chunk));
            others.push_back(whole.substr(chunk, chunk) + whole.substr(0, chunk) +
                             whole.substr(2 * chunk));
        }
        for (const std::string& changed : others) {
            write_file(path, changed);
            found(fmt::format("{}, {} of {} bytes", path, changed.size(), whole.size()));
        }
        write_file(path, whole);
    }
    // What is not sealed: the format, and the key.
    std::string problem;
    const std::string format_file = m_store + "/store.json", format = read_file(format_file);
    json document = from_canonical(format, problem).value();
    document["block_size"] = 4096;
    write_file(format_file, to_canonical(document));
    found("another block size");
    document["format"] = 2;
    write_file(format_file, to_canonical(document));
    found("not encrypted", 12);
    write_file(format_file, format + "x");
    found("damaged, and opened by its key");
    write_file(format_file, format);
    for (const std::string& path : files("keys"))
        if (path != key_file)
            fs::remove(path);
    ::unsetenv("QRTLN_KEY_FILE");
    use("word");
    for (const auto& [field, value, exit_code] :
         std::vector<std::tuple<std::string, json, int>>{{"label", "another", 12},
                                                         {"memory", 1U << 26U | 1U << 20U, 12},
                                                         {"memory", std::uint64_t{1} << 40, 4},
                                                         {"operations", 1000000, 4},
                                                         {"salt", "00", 4}}) {
        document = from_canonical(key, problem).value();
        document[field] = value;
        write_file(key_file, to_canonical(document));
        found("a key with another " + field, exit_code);
    }
    fs::remove(key_file);
    found("without its keys");
    write_file(key_file, key);
    EXPECT_EQ(verify(), 0);
}

} // namespace
} // namespace qrtln::test
