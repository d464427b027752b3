#include "client/remote/rclone_calls.h"

#include "client/base/error.h"

#include <algorithm>
#include <cstring>
#include <curl/curl.h>
#include <fmt/format.h>
#include <utility>

namespace qrtln {

namespace {

constexpr std::size_t longest_answer = std::size_t{1} << 30; // a list of some million files
constexpr long first_error_status = 400;
constexpr long connection_timeout_ms = 5000; // to a process of this machine

struct Headers {
    explicit Headers(const char* line) : list(::curl_slist_append(nullptr, line)) {}
    ~Headers() { ::curl_slist_free_all(list); }
    Headers(const Headers&) = delete;
    Headers& operator=(const Headers&) = delete;
    curl_slist* list;
};

std::size_t take_text(char* bytes, std::size_t, std::size_t count, void* text) {
    auto& answer = *static_cast<std::string*>(text);
    if (count > longest_answer - answer.size())
        return 0;
    answer.append(bytes, count);
    return count;
}

// What a range gives: into the buffer where it is one, and else, as of an error, into the text.
struct RangeAnswer {
    CURL* handle;
    std::span<std::byte> buffer;
    std::size_t filled = 0;
    std::string text;
};

std::size_t take_range(char* bytes, std::size_t, std::size_t count, void* answer) {
    auto& range = *static_cast<RangeAnswer*>(answer);
    long status = 0;
    ::curl_easy_getinfo(range.handle, CURLINFO_RESPONSE_CODE, &status);
    if (status >= first_error_status)
        return take_text(bytes, 1, count, &range.text);
    if (count > range.buffer.size() - range.filled)
        return 0; // more than was asked for
    std::memcpy(range.buffer.data() + range.filled, bytes, count);
    range.filled += count;
    return count;
}

// What the error of an answer says, as far as it is in its form.
std::string error_in(const std::string& answer) {
    const nlohmann::json document = nlohmann::json::parse(answer, nullptr, false);
    if (document.is_object() && document.contains("error") && document["error"].is_string())
        return document["error"].get<std::string>();
    return answer.substr(0, 300);
}

} // namespace

struct RcloneCalls::Connection {
    Connection() : handle(::curl_easy_init()) {
        if (handle == nullptr)
            throw ClientError(ExitCode::failed, "cannot make a connection: out of memory");
    }
    ~Connection() { ::curl_easy_cleanup(handle); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // As for every request; whatever an earlier one set is gone, but the connection itself.
    void prepare(const std::string& url, const std::string& secret, std::chrono::seconds patience) {
        ::curl_easy_reset(handle);
        ::curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
        ::curl_easy_setopt(handle, CURLOPT_USERPWD, secret.c_str());
        ::curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        ::curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http");
        ::curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
        ::curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        ::curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, connection_timeout_ms);
        ::curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
        ::curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>(patience.count()));
    }
    std::string escaped(const std::string& text) const {
        char* bytes = ::curl_easy_escape(handle, text.data(), static_cast<int>(text.size()));
        std::string result = bytes != nullptr ? bytes : "";
        ::curl_free(bytes);
        return result;
    }
    // Returns the status.
    int run() const {
        const CURLcode code = ::curl_easy_perform(handle);
        if (code == CURLE_OPERATION_TIMEDOUT)
            throw RcloneFailure(RcloneFailure::no_answer, "rclone does not answer");
        if (code != CURLE_OK)
            throw RcloneFailure(0, fmt::format("rclone: {}", ::curl_easy_strerror(code)));
        long status = 0;
        ::curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
        return static_cast<int>(status);
    }

    CURL* handle;
};

// A connection while it lives. One that failed is not used again.
class RcloneCalls::Lease {
  public:
    explicit Lease(RcloneCalls& calls) : m_calls(calls), m_connection(calls.take()) {}
    ~Lease() {
        if (m_worked)
            m_calls.give_back(std::move(m_connection));
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Connection& operator*() const { return *m_connection; }
    void worked() { m_worked = true; }

  private:
    RcloneCalls& m_calls;
    std::unique_ptr<Connection> m_connection;
    bool m_worked = false;
};

RcloneCalls::RcloneCalls(std::string url, std::string secret, std::chrono::seconds patience)
    : m_url(std::move(url)), m_secret(std::move(secret)), m_patience(patience) {
    static const CURLcode initialised = ::curl_global_init(CURL_GLOBAL_NOTHING);
    if (initialised != CURLE_OK)
        throw ClientError(ExitCode::failed, "cannot use the library curl");
}

RcloneCalls::~RcloneCalls() = default;

std::unique_ptr<RcloneCalls::Connection> RcloneCalls::take() {
    const std::lock_guard lock(m_mutex);
    if (m_idle.empty())
        return std::make_unique<Connection>();
    std::unique_ptr<Connection> connection = std::move(m_idle.back());
    m_idle.pop_back();
    return connection;
}

void RcloneCalls::give_back(std::unique_ptr<Connection> connection) {
    const std::lock_guard lock(m_mutex);
    m_idle.push_back(std::move(connection));
}

nlohmann::json RcloneCalls::call(const std::string& method, const nlohmann::json& arguments) {
    Lease lease(*this);
    Connection& connection = *lease;
    connection.prepare(m_url + method, m_secret, m_patience);
    const std::string body = arguments.dump();
    const Headers headers("Content-Type: application/json");
    std::string answer;
    ::curl_easy_setopt(connection.handle, CURLOPT_HTTPHEADER, headers.list);
    ::curl_easy_setopt(connection.handle, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(body.size()));
    ::curl_easy_setopt(connection.handle, CURLOPT_POSTFIELDS, body.c_str());
    ::curl_easy_setopt(connection.handle, CURLOPT_WRITEFUNCTION, take_text);
    ::curl_easy_setopt(connection.handle, CURLOPT_WRITEDATA, &answer);
    const int status = connection.run();
    lease.worked();
    if (status >= first_error_status)
        throw RcloneFailure(status, error_in(answer));
    nlohmann::json document = nlohmann::json::parse(answer, nullptr, false);
    if (!document.is_object())
        throw RcloneFailure(status, "rclone answers with no JSON object");
    return document;
}

std::int64_t RcloneCalls::begin(const std::string& method, nlohmann::json arguments) {
    arguments["_async"] = true;
    const nlohmann::json started = call(method, arguments);
    if (!started.contains("jobid") || !started["jobid"].is_number_integer())
        throw RcloneFailure(0, "rclone does not tell the number of a job");
    return started["jobid"].get<std::int64_t>();
}

RcloneCalls::Job RcloneCalls::look_at(std::int64_t job) {
    const nlohmann::json status = call("job/status", {{"jobid", job}});
    Job result;
    result.ended = status.value("finished", false);
    if (result.ended && !status.value("success", false)) {
        result.error = status.value("error", "");
        if (result.error.empty())
            result.error = "it failed";
    }
    return result;
}

std::size_t RcloneCalls::read(const std::string& folder, const std::string& name,
                              std::uint64_t offset, std::span<std::byte> buffer) {
    if (buffer.empty())
        return 0;
    Lease lease(*this);
    Connection& connection = *lease;
    // "[REMOTE:PATH]/NAME"; the slashes of the name stay.
    std::string path = "%5B" + connection.escaped(folder) + "%5D/";
    for (std::size_t begin = 0; begin <= name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        path += (begin == 0 ? "" : "/") + connection.escaped(name.substr(begin, end - begin));
        begin = end + 1;
    }
    connection.prepare(m_url + path, m_secret, m_patience);
    const std::string range = fmt::format("{}-{}", offset, offset + buffer.size() - 1);
    RangeAnswer answer{connection.handle, buffer, 0, {}};
    ::curl_easy_setopt(connection.handle, CURLOPT_RANGE, range.c_str());
    ::curl_easy_setopt(connection.handle, CURLOPT_WRITEFUNCTION, take_range);
    ::curl_easy_setopt(connection.handle, CURLOPT_WRITEDATA, &answer);
    const int status = connection.run();
    lease.worked();
    constexpr int beyond_its_end = 416;
    if (status == beyond_its_end)
        return 0;
    if (status >= first_error_status)
        throw RcloneFailure(status, error_in(answer.text));
    constexpr int partial_content = 206;
    if (status != partial_content && offset != 0) // the whole file, from its beginning
        throw RcloneFailure(status, "rclone gives no ranges of files");
    return answer.filled;
}

} // namespace qrtln
