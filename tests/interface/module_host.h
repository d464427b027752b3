// A small backup client for tests: it loads the module as any client does and drives it over a
// server of the simulator. To be used in a process of its own: a loaded module keeps state.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "notes_simulator/notes_sim_inspection.h"
#include "qrt_lotus_notes/db_interface.h"
#include "tests/support/domino_sim.h"
#include "tests/support/temporary_folder.h"

// A server folder with six databases, small log extents, and folders for copies and run-time data.
class SimulatedServer {
  public:
    explicit SimulatedServer(const std::string& style = "archive") {
        simulate("init " + server() + " --databases 6 --extent-size 65536 --style " + style);
        folder.makeDirectory("tmp");
        folder.makeDirectory("run");
        setenv("Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY, 1);
        setenv("NOTES_SIM_JOURNAL", folder.file("journal").c_str(), 1);
        setenv("QRTLN_TEST_RUN_DIRECTORY", folder.file("run").c_str(), 1);
        unsetenv("NOTES_SIM_FAULTS");
    }

    std::string server() const { return folder.file("server"); }
    std::string data(const std::string& name) const { return server() + "/data/" + name; }

    // Runs domino-sim, which must succeed; returns what it printed.
    std::string simulate(const std::string& arguments) const { return dominoSim(arguments); }
    // A change of a database by a user; returns the id of the note, or a line each.
    std::string put(const std::string& name, const std::string& options = "") const {
        std::string ids = simulate("put " + server() + " " + name + " " + options);
        ids.erase(ids.find_last_not_of('\n') + 1);
        return ids;
    }
    // The digest of what users see in a database, which must be sound.
    std::string content(const std::string& file) const {
        const std::string shown = simulate("show " + file);
        const std::size_t digest = shown.find("\ndigest: ") + 1;
        return shown.substr(digest, shown.find('\n', digest) - digest);
    }
    std::string live(const std::string& name) const { return content(data(name)); }
    void copy(const std::string& from, const std::string& to) const {
        std::filesystem::create_directories(std::filesystem::path(to).parent_path());
        std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    }

    // Fills log extents, so that some are ready to be archived. Each change fits in one.
    void fillLog() const {
        const std::string text(9000, 'x');
        for (int i = 0; i < 8; ++i) {
            put("names.nsf", "--count 5 --text " + text);
        }
    }

    // Tells the server that a database was backed up by another tool: only such a database gets an
    // entry in the index.
    void markSaved(const std::string& database) const {
        simulate("saved " + server() + " " + database);
    }

    // The calls that libnotes.so received, a line each, and how many lines begin with a text.
    std::vector<std::string> journal() const {
        std::ifstream stream(folder.file("journal"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    long calls(const std::string& beginning) const {
        const auto lines = journal();
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& line) { return line.starts_with(beginning); });
    }

    // Regular files below a folder of the test, relative to it.
    std::vector<std::string> filesBelow(const std::string& name) const {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.file(name))) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path().lexically_relative(folder.file(name)));
            }
        }
        return files;
    }

    // The index of database instances; "" when there is none.
    std::string index() const {
        const std::string file = "run/qrtln_DBIID.ini";
        return folder.exists(file) ? folder.read(file) : "";
    }

    TemporaryFolder folder;
};

// A library that stays loaded, as in a client.
inline void* loadLibrary(const char* library, int flags) {
    void* loaded = dlopen(library, RTLD_NOW | flags);
    if (loaded == nullptr) {
        throw std::runtime_error(std::string("cannot load ") + library);
    }
    return loaded;
}

// A function of a loaded library, whatever its type.
struct FoundFunction {
    FoundFunction(void* library, const char* name) : address(dlsym(library, name)) {
        if (address == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    template <typename Function>
    operator Function*() const {
        return reinterpret_cast<Function*>(address);
    }
    void* address;
};

// The loaded module.
class Module {
  public:
    // `hostServices`: whether the client has resolve_path.
    explicit Module(bool hostServices = true)
        : services(hostServices ? loadLibrary(QRTLN_HOST_SERVICES, RTLD_GLOBAL) : nullptr) {
        SetTrace([](const char* text) { s_traces.emplace_back(text); });
        SetLog([](const char* text) { s_logs.emplace_back(text); });
    }

    void* services; // loaded before the module
    void* library = loadLibrary(QRTLN_MODULE, RTLD_LOCAL);
    decltype(&DB_SetTrace) SetTrace = FoundFunction(library, "DB_SetTrace");
    decltype(&DB_SetLog) SetLog = FoundFunction(library, "DB_SetLog");
    decltype(&DB_GetInfo) GetInfo = FoundFunction(library, "DB_GetInfo");
    decltype(&DB_GetError) GetError = FoundFunction(library, "DB_GetError");
    decltype(&DB_InitOperation) InitOperation = FoundFunction(library, "DB_InitOperation");
    decltype(&DB_GetItem) GetItem = FoundFunction(library, "DB_GetItem");
    decltype(&DB_PrepareItem) PrepareItem = FoundFunction(library, "DB_PrepareItem");
    decltype(&DB_SetItem) SetItem = FoundFunction(library, "DB_SetItem");
    decltype(&DB_ItemFinishStatus) ItemFinishStatus = FoundFunction(library, "DB_ItemFinishStatus");
    decltype(&DB_CloseOperation) CloseOperation = FoundFunction(library, "DB_CloseOperation");
    decltype(&DB_DirItem) DirItem = FoundFunction(library, "DB_DirItem");
    decltype(&DB_Terminate) Terminate = FoundFunction(library, "DB_Terminate");

    // Opens an operation on a server, with further control variables.
    int open(const SimulatedServer& server, DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level,
             std::vector<std::string> variables = {"DATABASE=NOTES"}) {
        variables.push_back("TMP_DIR=" + server.folder.file("tmp"));
        variables.push_back("NOTESINI=" + server.server() + "/notes.ini");
        return withVariables(
            variables, [&](char** list) { return InitOperation(type, level, list, nullptr); });
    }

    template <typename... Texts>
    int close(const Texts&... statuses) {
        return withVariables({statuses...}, [&](char** list) { return CloseOperation(list); });
    }

    // Gets the next item; empty when there is none. `code` has the answer.
    std::string get() {
        char szItem[1028] = "";
        code = GetItem(nullptr, nullptr, szItem);
        return code == DB_NUM_I_OK ? szItem : "";
    }

    // Prepares an item; empty when it failed. `code` has the answer.
    std::string prepare(const std::string& item) {
        char szFile[1028] = "";
        code = PrepareItem(item.c_str(), szFile);
        return szFile;
    }

    // What a client does with each item: get, prepare, read, finish, one after another. Returns the
    // items; those whose preparation failed are in `failed`, the answer of the last get is in
    // `code`.
    std::vector<std::string> backUp(DB_ITEM_RESULT logResult = DB_ITEM_SUCCESS) {
        std::vector<std::string> items;
        for (std::string item = get(); !item.empty(); item = get()) {
            items.push_back(item);
            DB_ITEM_RESULT result = item.ends_with(".TXN") ? logResult : DB_ITEM_SUCCESS;
            if (!std::filesystem::is_directory(item)) {
                const std::string file = prepare(item);
                if (code != DB_NUM_I_OK && code != DB_NUM_W_WARNING) {
                    failed.push_back(item);
                    result = DB_ITEM_FAIL;
                } else if (!std::ifstream(file).good()) {
                    ADD_FAILURE() << file << " cannot be read for " << item;
                }
            }
            EXPECT_EQ(ItemFinishStatus(result), DB_NUM_I_OK) << item;
        }
        return items;
    }

    // The pending error's text, which is cleared.
    std::string error() {
        TYPE_DB_Error record{};
        EXPECT_EQ(GetError(&record), DB_NUM_I_OK);
        return record.szDBErrorMsg;
    }

    static bool logged(const std::string& text) { return contains(s_logs, text); }
    static bool traced(const std::string& text) { return contains(s_traces, text); }

    int code = 0;
    std::vector<std::string> failed;
    inline static std::vector<std::string> s_traces;
    inline static std::vector<std::string> s_logs;

  private:
    template <typename Call>
    static int withVariables(const std::vector<std::string>& variables, Call call) {
        std::vector<std::string> texts = variables;
        std::vector<char*> list;
        for (std::string& text : texts) {
            list.push_back(text.data());
        }
        list.push_back(nullptr);
        return call(list.data());
    }

    static bool contains(const std::vector<std::string>& messages, const std::string& text) {
        return std::find(messages.begin(), messages.end(), text) != messages.end();
    }
};

// A client on a server.
struct Host {
    explicit Host(const std::string& style = "archive") : server(style) {}

    int openBackup(DB_OPERATION_LEVEL level,
                   const std::vector<std::string>& variables = {"DATABASE=NOTES"}) {
        return module.open(server, DB_TYPE_BCK, level, variables);
    }
    // A whole backup that succeeds; its items.
    std::vector<std::string> backUp(DB_OPERATION_LEVEL level) {
        EXPECT_EQ(openBackup(level), DB_NUM_I_OK) << module.error();
        const auto items = module.backUp();
        EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        return items;
    }

    SimulatedServer server;
    Module module;
};

// A function of the simulator that tests ask, found in the library that the module has loaded.
template <typename Function>
Function simulatorFunction(const char* name) {
    return FoundFunction(loadLibrary(QRTLN_SIMULATOR_DIRECTORY "/libnotes.so", RTLD_NOLOAD), name);
}
