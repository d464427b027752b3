// A database module for tests: hands out the files of a folder, and fails as told.
//
// Environment:
//   FAKE_DATA=DIR          the data directory: all of it is handed out, folders before their files
//   FAKE_LOGS=DIR          *.TXN there are logs, the last one active; then nlogctrl.lfh
//   FAKE_LOG_FILLS=TEXT    the active log grows by the text and is handed out again, then the next
//   FAKE_JOURNAL=FILE      a line for each call
//   FAKE_INIT_FAIL=TEXT    the start fails with this error
//   FAKE_GET_FAIL=N        the Nth request for an item fails
//   FAKE_CLOSE_FAIL=TEXT   the close fails with this error
//   FAKE_CLOSE_CRASH=1     the close crashes
// and, each with the last component of the items it is about:
//   FAKE_FAIL, FAKE_WARN, FAKE_CRASH, FAKE_HANG, FAKE_VANISH, FAKE_GROW, FAKE_SHRINK
// FAKE_HANG makes the file FAKE_HANG_MARK and returns when DB_Terminate is called.

#include "qrt_lotus_notes/db_interface.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

extern "C" void resolve_path(char* path) __attribute__((weak));

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct State {
    TYPE_DB_MessageFunc log = nullptr;
    std::string error;
    std::string tmp_dir;
    std::deque<std::string> items;
    std::deque<std::string> logs;
    std::string pending;
    std::string copy;
    std::string working_index;
    std::string index;
    int requests = 0;
    bool log_filled = false;
    std::atomic<bool> terminate{false};
    std::atomic<bool> stop_worker{false};
    std::thread worker;
};

State state;

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool concerns(const char* name, const std::string& item) {
    std::string value = env(name);
    return !value.empty() && item.substr(item.rfind('/') + 1) == value;
}

void journal(const std::string& line) {
    std::string file = env("FAKE_JOURNAL");
    if (!file.empty())
        std::ofstream(file, std::ios::app) << line << "\n";
}

void log(const std::string& line) {
    if (state.log != nullptr)
        state.log(line.c_str());
}

int fail(int status, const std::string& text) {
    if (state.error.empty())
        state.error = text;
    log("DB_ErrHandler: " + text);
    return status;
}

bool is_database(const std::string& path) {
    return path.ends_with(".nsf");
}

std::string copy_path(const std::string& item) {
    return state.tmp_dir + item.substr(env("FAKE_DATA").size());
}

std::string unescaped(const std::string& pattern) {
    std::string text;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '\\' && i + 1 < pattern.size())
            ++i;
        text += pattern[i];
    }
    return text.ends_with("/*.*") ? text.substr(0, text.size() - 4) : text;
}

bool selected(const std::string& path, const std::vector<std::string>& arguments) {
    if (arguments.empty())
        return true;
    return std::any_of(arguments.begin(), arguments.end(), [&](const std::string& argument) {
        return path == argument || path.starts_with(argument + "/");
    });
}

void list_items(const std::vector<std::string>& arguments) {
    std::string data = env("FAKE_DATA");
    state.items = {data, data + "/notes.ini"};
    std::vector<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(data))
        if (!entry.is_directory() && !entry.path().string().ends_with("notes.ini") &&
            !entry.path().string().ends_with(".txt") && selected(entry.path(), arguments))
            found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    for (const std::string& path : found) {
        state.items.push_back(path.substr(0, path.rfind('/')));
        state.items.push_back(path);
    }
    if (!env("FAKE_LOGS").empty() && arguments.empty()) {
        for (const auto& entry : fs::directory_iterator(env("FAKE_LOGS")))
            if (entry.path().extension() == ".TXN")
                state.logs.push_back(entry.path());
        std::sort(state.logs.begin(), state.logs.end());
    }
}

void copy_name(char* target, const std::string& name) {
    std::snprintf(target, 1028, "%s", name.c_str());
}

template <typename Function>
void start_worker(Function step) {
    state.stop_worker = false;
    state.worker = std::thread([step] {
        while (!state.stop_worker) {
            step();
            std::this_thread::sleep_for(200us);
        }
    });
}

} // namespace

extern "C" {

int DB_SetTrace(TYPE_DB_MessageFunc) {
    return DB_NUM_I_OK;
}

int DB_SetLog(TYPE_DB_MessageFunc function) {
    state.log = function;
    return DB_NUM_I_OK;
}

int DB_GetInfo(TYPE_DB_Info* info) {
    static char client[] = "fake client";
    static char version[] = "1.2.3";
    static char release[] = "a test";
    info->cpDBClient = client;
    info->cpDBVersion = version;
    info->cpDBRelDate = release;
    info->eDBType = DB_FILE_PREPARE;
    return DB_NUM_I_OK;
}

int DB_GetError(TYPE_DB_Error* error) {
    std::memset(error, 0, sizeof *error);
    error->ulDBErrorCode = state.error.empty() ? 0 : 2;
    std::snprintf(error->szDBErrorMsg, sizeof error->szDBErrorMsg, "%s", state.error.c_str());
    state.error.clear();
    return DB_NUM_I_OK;
}

int DB_InitOperation(DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level, char** variables, sQRT_DB*) {
    state.terminate = false;
    journal("init " + std::to_string(type) + " " + std::to_string(level));
    std::vector<std::string> arguments;
    for (; *variables != nullptr; ++variables) {
        std::string variable = *variables;
        journal(variable);
        if (variable.starts_with("TMP_DIR="))
            state.tmp_dir = variable.substr(8);
        if (variable.starts_with("DATABASE=QRTLN:"))
            arguments.push_back(unescaped(variable.substr(15)));
    }
    if (!env("FAKE_INIT_FAIL").empty())
        return fail(DB_NUM_E_FAILED, env("FAKE_INIT_FAIL"));
    char index[1028] = "gv_rw_times:index.ini";
    if (resolve_path != nullptr)
        resolve_path(index);
    state.index = index;
    state.working_index = state.index + "." + std::to_string(::getpid());
    std::ofstream(state.working_index) << "new\n";
    list_items(arguments);
    return DB_NUM_I_OK;
}

int DB_GetItem(char*, char*, char* name) {
    if (std::to_string(++state.requests) == env("FAKE_GET_FAIL"))
        return fail(DB_NUM_E_FAILED, "the list broke");
    if (state.items.empty() && !state.logs.empty()) {
        state.pending = state.logs.front();
        state.logs.pop_front();
        bool active = state.logs.empty();
        if (std::string text = env("FAKE_LOG_FILLS"); !text.empty() && state.logs.size() == 1) {
            // First as the active one, which it is no more the second time.
            active = !std::exchange(state.log_filled, true);
            if (active)
                state.logs.push_front(state.pending);
            else
                std::ofstream(state.pending, std::ios::app) << text;
        }
        log(std::string(active ? "Back up active archive" : "Archive") +
            " ID 00c0ffee, Log number " + std::to_string(state.requests) + ", log path [" +
            state.pending + "]");
        if (state.logs.empty())
            state.items.push_back(env("FAKE_LOGS") + "/nlogctrl.lfh");
    } else if (state.items.empty()) {
        return DB_NUM_I_COMPLETE;
    } else {
        state.pending = state.items.front();
        state.items.pop_front();
    }
    copy_name(name, state.pending);
    if (concerns("FAKE_VANISH", state.pending))
        fs::remove(state.pending);
    return DB_NUM_I_OK;
}

int DB_PrepareItem(const char* szItem, char* szNewFile) {
    std::string item = szItem;
    journal("prepare " + item);
    std::puts("noise on standard output");
    std::fflush(stdout);
    szNewFile[0] = '\0';
    if (concerns("FAKE_CRASH", item))
        std::raise(SIGABRT);
    if (concerns("FAKE_FAIL", item))
        return fail(DB_NUM_E_ITEM_FAILED, "it is in use");
    std::string ready = item;
    if (is_database(item)) {
        ready = copy_path(item);
        fs::create_directories(fs::path(ready).parent_path());
        fs::copy_file(item, ready, fs::copy_options::overwrite_existing);
        state.copy = ready;
    }
    if (concerns("FAKE_HANG", item)) {
        std::ofstream(env("FAKE_HANG_MARK")) << "hanging\n";
        while (!state.terminate)
            std::this_thread::sleep_for(5ms);
        return fail(DB_NUM_E_ITEM_FAILED, "terminated");
    }
    if (concerns("FAKE_GROW", item))
        start_worker([ready] { std::ofstream(ready, std::ios::app) << "more"; });
    if (concerns("FAKE_SHRINK", item))
        start_worker([ready] {
            std::error_code error;
            auto size = fs::file_size(ready, error);
            if (!error && size > (1U << 20))
                fs::resize_file(ready, size - (64U << 10), error);
        });
    copy_name(szNewFile, ready);
    if (!concerns("FAKE_WARN", item))
        return DB_NUM_I_OK;
    log("Database file [" + item + "] is shorter than the size to copy");
    return DB_NUM_W_WARNING;
}

int DB_SetItem(DB_ITEM_TYPE, char*) {
    return DB_NUM_E_FAILED;
}

int DB_ItemFinishStatus(DB_ITEM_RESULT result) {
    journal("finish " + std::to_string(result) + " " + state.pending);
    if (state.worker.joinable()) {
        state.stop_worker = true;
        state.worker.join();
    }
    if (!state.copy.empty())
        fs::remove(state.copy);
    state.copy.clear();
    return DB_NUM_I_OK;
}

int DB_CloseOperation(char** variables) {
    std::string status = variables != nullptr && *variables != nullptr ? *variables : "";
    journal("close " + status);
    if (!env("FAKE_CLOSE_CRASH").empty() && status == "STATUS=0")
        std::raise(SIGABRT);
    if (!state.working_index.empty()) {
        if (status == "STATUS=0")
            fs::rename(state.working_index, state.index);
        else
            fs::remove(state.working_index);
        state.working_index.clear();
    }
    if (!env("FAKE_CLOSE_FAIL").empty())
        return fail(DB_NUM_E_FAILED, env("FAKE_CLOSE_FAIL"));
    return DB_NUM_I_OK;
}

int DB_DirItem(sFormat*) {
    return DB_NUM_I_COMPLETE;
}

int DB_Terminate() {
    state.terminate = true;
    return DB_NUM_I_OK;
}
}
