#include "notes_simulator/server/faults.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

namespace notes_sim {

namespace {

struct Fault {
    std::string function;
    unsigned call = 0; // 0: every call
    Status status = 0;
};

struct FaultState {
    std::mutex mutex;
    std::vector<Fault> faults;
    std::map<std::string, unsigned, std::less<>> calls;
    unsigned fired = 0;
    bool environmentRead = false;
    bool environmentValid = true;
    std::string journal;
    bool summaryDue = false;

    // The end of the process: the last word of the journal.
    ~FaultState();
};

FaultState& state() {
    static FaultState instance;
    return instance;
}

void appendLine(const std::string& journal, std::string line) {
    // One write for a line, so that lines of several processes do not mix.
    line += '\n';
    const int fd = ::open(journal.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        // A journal that cannot be written must not change what the library does.
        [[maybe_unused]] const ssize_t ignored = ::write(fd, line.data(), line.size());
        ::close(fd);
    }
}

std::string summary(unsigned fired) {
    return "-- faults fired: " + std::to_string(fired);
}

FaultState::~FaultState() {
    if (summaryDue && !journal.empty()) {
        appendLine(journal, summary(fired) + ", process ends");
    }
}

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

std::optional<Fault> parseFault(std::string_view text) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) {
        return std::nullopt;
    }
    Fault fault;
    std::string_view name = text.substr(0, equals);
    if (!parseNumber(text.substr(equals + 1), fault.status) || fault.status == 0) {
        return std::nullopt;
    }
    if (const auto hash = name.find('#'); hash != std::string_view::npos) {
        if (!parseNumber(name.substr(hash + 1), fault.call) || fault.call == 0) {
            return std::nullopt;
        }
        name = name.substr(0, hash);
    }
    if (name.empty() ||
        name.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                               "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    fault.function = name;
    return fault;
}

std::optional<std::vector<Fault>> parseFaults(std::string_view text) {
    std::vector<Fault> faults;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const auto fault = parseFault(text.substr(0, comma));
        const bool trailingComma = comma != std::string_view::npos && comma + 1 == text.size();
        if (!fault || trailingComma) {
            return std::nullopt;
        }
        faults.push_back(*fault);
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return faults;
}

} // namespace

bool setFaults(std::string_view text) {
    auto faults = parseFaults(text);
    if (!faults) {
        return false;
    }
    FaultState& self = state();
    const std::lock_guard guard(self.mutex);
    self.faults = *std::move(faults);
    self.calls.clear();
    self.fired = 0;
    self.environmentRead = true;
    self.environmentValid = true;
    return true;
}

std::optional<Status> faultFor(std::string_view function) {
    FaultState& self = state();
    const std::lock_guard guard(self.mutex);
    auto calls = self.calls.find(function);
    if (calls == self.calls.end()) {
        calls = self.calls.emplace(std::string(function), 0).first;
    }
    const unsigned call = ++calls->second;
    for (const Fault& fault : self.faults) {
        if (fault.function == function && (fault.call == 0 || fault.call == call)) {
            ++self.fired;
            return fault.status;
        }
    }
    return std::nullopt;
}

unsigned faultsFired() {
    FaultState& self = state();
    const std::lock_guard guard(self.mutex);
    return self.fired;
}

bool readFaultEnvironment() {
    FaultState& self = state();
    const char* journal = std::getenv("NOTES_SIM_JOURNAL");
    std::string faults;
    {
        const std::lock_guard guard(self.mutex);
        self.journal = journal == nullptr ? "" : journal;
        if (self.environmentRead) {
            return self.environmentValid;
        }
        const char* text = std::getenv("NOTES_SIM_FAULTS");
        faults = text == nullptr ? "" : text;
    }
    const bool valid = setFaults(faults);
    const std::lock_guard guard(self.mutex);
    self.environmentRead = true;
    self.environmentValid = valid;
    return valid;
}

void journalLine(const std::string& line) {
    FaultState& self = state();
    const std::lock_guard guard(self.mutex);
    if (!self.journal.empty()) {
        self.summaryDue = true;
        appendLine(self.journal, line);
    }
}

bool journalOn() {
    FaultState& self = state();
    const std::lock_guard guard(self.mutex);
    return !self.journal.empty();
}

void journalSummary() {
    FaultState& self = state();
    const std::lock_guard guard(self.mutex);
    if (!self.journal.empty()) {
        appendLine(self.journal, summary(self.fired));
        self.summaryDue = false;
    }
}

} // namespace notes_sim
