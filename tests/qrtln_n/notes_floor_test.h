// What the tests of the Notes floor share: an operation with the runtime up, and the Notes C API as
// a script.
#pragma once

#include <cstring>
#include <set>

#include "tests/qrtln_lower/operation_test.h"
#include "tests/support/notes_api_fake.h"

// A call that the module is expected to make, as NotesCall::text has it, and its answer.
struct Step {
    std::string call;
    NotesAnswer answer = {};
};
using Steps = std::vector<Step>;

inline Steps operator+(Steps first, const Steps& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The steps to the one of that number, which fails with the status.
inline Steps failingAt(std::size_t number, STATUS status, const Steps& steps) {
    Steps result(steps.begin(), steps.begin() + static_cast<long>(number + 1));
    result.back().answer.status = status;
    return result;
}

// A call that the script does not have next fails the test; after the first one all calls fail, and
// nothing more is compared. What is left of the script at the end fails the test, too.
//
// A native name is translated to "L:" and itself, to UTF-8 one more "U:" before that, so that an
// untranslated name is seen. The text of a status is "Notes text N".
class ScriptedNotesApi : public NotesApiFake {
  public:
    ~ScriptedNotesApi() override { expectPlayed(); }

    void play(const Steps& steps) { m_steps = m_steps + steps; }
    void expectPlayed() {
        if (!m_failed && m_next < m_steps.size()) {
            ADD_FAILURE() << "not called: " << m_steps[m_next].call;
            m_failed = true;
        }
    }

    NotesAnswer answer(const NotesCall& call) override {
        static const std::set<std::string_view> notScripted = {
            "IDEntries", "IDIsPresent", "IDScan", "NSFDbGetBuildVersion", "OSGetIntlSettings"};
        if (notScripted.count(call.function) != 0) {
            return {};
        }
        if (!m_failed && m_next < m_steps.size() && m_steps[m_next].call == call.text) {
            return m_steps[m_next++].answer;
        }
        if (!m_failed) {
            ADD_FAILURE() << "step " << m_next + 1 << ": expected "
                          << (m_next < m_steps.size() ? m_steps[m_next].call : "no more calls")
                          << "\n  but the call was " << call.text;
            m_failed = true;
        }
        return {.status = 1};
    }
    std::string translated(WORD mode, const std::string& text) const override {
        return (mode == kTranslateNativeToLmbcs ? "L:"
                : mode == kTranslateLmbcsToUtf8 ? "U:"
                                                : "?:") +
               text;
    }
    std::string textOf(STATUS status) const override {
        return "Notes text " + std::to_string(status);
    }

  private:
    Steps m_steps;
    std::size_t m_next = 0;
    bool m_failed = false;
};

class NotesFloorTest : public OperationTest {
  protected:
    NotesFloorTest() { g_sQRTLN_Global.bNotesInitialized = TRUE; }

    ScriptedNotesApi script;
};
