// Collects what the module says while a test runs: every trace and every log message, as text.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "qrt_lotus_notes/operation_state.h"

// Sets the trace and log callbacks of the operation record for its lifetime. Only one may live at a
// time: the callbacks carry no context, so the messages are kept in static vectors.
class MessageCapture {
  public:
    MessageCapture() {
        clear();
        g_sQRTLN_Global.vpTraceFunc = [](const char* text) { s_traces.emplace_back(text); };
        g_sQRTLN_Global.vpLogFunc = [](const char* text) { s_logs.emplace_back(text); };
    }
    ~MessageCapture() {
        g_sQRTLN_Global.vpTraceFunc = nullptr;
        g_sQRTLN_Global.vpLogFunc = nullptr;
        clear();
    }
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    // The messages so far, oldest first.
    const std::vector<std::string>& logs() const { return s_logs; }
    const std::vector<std::string>& traces() const { return s_traces; }

    // Whether exactly this message came.
    bool hasLog(const std::string& text) const { return contains(s_logs, text); }
    bool hasTrace(const std::string& text) const { return contains(s_traces, text); }

    void clear() {
        s_traces.clear();
        s_logs.clear();
    }

  private:
    static bool contains(const std::vector<std::string>& messages, const std::string& text) {
        return std::find(messages.begin(), messages.end(), text) != messages.end();
    }

    inline static std::vector<std::string> s_traces;
    inline static std::vector<std::string> s_logs;
};
