#include "client/ledger/page.h"

#include "client/base/text.h"
#include "client/ledger/findings.h"
#include "client/ledger/ledger_text.h"
#include "client/ledger/timeline.h"
#include "client/store/digest.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>
#include <openssl/evp.h>
#include <string_view>

namespace qrtln {

namespace {

// Bytes of unknown encoding as text of the page, in attributes too.
std::string escaped(std::string_view bytes) {
    std::string text;
    for (char character : for_terminal(bytes))
        switch (character) {
        case '&':
            text += "&amp;";
            break;
        case '<':
            text += "&lt;";
            break;
        case '>':
            text += "&gt;";
            break;
        case '"':
            text += "&quot;";
            break;
        case '\'':
            text += "&#39;";
            break;
        default:
            text += character;
        }
    return text;
}

// "sha256-…" of what lies between two tags of the page: that alone is run, or styles it.
std::string source_hash(std::string_view page, std::string_view open, std::string_view close) {
    const std::size_t begin = page.find(open) + open.size();
    const std::string hash =
        *from_hex(sha256_hex(std::string(page.substr(begin, page.find(close, begin) - begin))));
    std::string base64(4 * ((hash.size() + 2) / 3) + 1, '\0');
    const int length = ::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                         reinterpret_cast<const unsigned char*>(hash.data()),
                                         static_cast<int>(hash.size()));
    base64.resize(static_cast<std::size_t>(length));
    return fmt::format("'sha256-{}'", base64);
}

std::string policy() {
    return fmt::format("default-src 'none'; style-src {}; script-src {}; base-uri 'none'; "
                       "form-action 'none'",
                       source_hash(page_template, "<style>", "</style>"),
                       source_hash(page_template, "<script>", "</script>"));
}

class PageBody {
  public:
    explicit PageBody(const Ledger& ledger) : m_ledger(ledger) {}
    std::string run();

  private:
    void add_findings();
    void add_server(const ServerLedger& server);
    void add_tools(const ServerLedger& server);
    void add_legend(const ServerLedger& server, const Timeline& timeline);
    void add_database(const DatabaseLedger& database, const Timeline& timeline);
    void add_gaps(const DatabaseLedger& database);
    template <typename... Values>
    void put(fmt::format_string<Values...> format, Values&&... values) {
        fmt::format_to(std::back_inserter(m_text), format, std::forward<Values>(values)...);
    }

    const Ledger& m_ledger;
    std::string m_text;
};

std::string PageBody::run() {
    put("<p class=\"verdict {}\">{}</p>\n", m_ledger.exit_code() == 0 ? "fine" : "not",
        escaped(m_ledger.verdict()));
    put("<p class=\"soft\">Made {} of the {} {}. All times are UTC.</p>\n", utc_time(m_ledger.made),
        m_ledger.stores.size() == 1 ? "store" : "stores",
        escaped(fmt::format("{}", fmt::join(m_ledger.stores, ", "))));
    add_findings();
    for (const ServerLedger& server : m_ledger.servers)
        add_server(server);
    return std::move(m_text);
}

void PageBody::add_findings() {
    if (m_ledger.findings.empty())
        return;
    put("<ul class=\"findings\">\n");
    for (const LedgerFinding& finding : m_ledger.findings)
        put("<li class=\"{}\">{}{}<p class=\"soft\">{}</p></li>\n",
            finding.code == 0 ? "note" : "problem", escaped(place_of(finding)),
            escaped(finding.text), escaped(finding.advice));
    put("</ul>\n");
}

void PageBody::add_server(const ServerLedger& server) {
    const Timeline timeline(server, m_ledger.made);
    put("<section>\n<h2>{}</h2>\n<p class=\"soft\">{}{}{}: {} databases, {} sets{}{}</p>\n",
        escaped(server.name), escaped(server.data_directory), server.own_name.empty() ? "" : ", ",
        escaped(server.own_name), server.current(), server.sets.size(),
        server.store.empty() ? "" : ", in ", escaped(server.store));
    add_legend(server, timeline);
    add_tools(server);
    // A browser lays out what is open: thousands of rows would take it seconds.
    constexpr std::size_t open_rows = 200;
    const std::size_t count = server.databases.size();
    put("<ul class=\"rows databases\">\n");
    for (std::size_t row = 0; row < count; ++row) {
        if (row == open_rows)
            put("</ul>\n<details class=\"more\"><summary>{} more</summary>"
                "<ul class=\"rows databases\">\n",
                count - open_rows);
        add_database(server.databases[row], timeline);
    }
    put("</ul>\n{}</section>\n", count > open_rows ? "</details>\n" : "");
}

void PageBody::add_legend(const ServerLedger& server, const Timeline& timeline) {
    put("<p class=\"soft legend\"><span><i class=\"b-bar\"></i>any moment</span>"
        "<span><i class=\"b-tick tick\"></i>copy or set</span>"
        "<span><i class=\"b-gap\"></i>gap</span>"
        "<span><i class=\"b-proof tick\"></i>proof</span></p>\n");
    put("<ul class=\"rows\"><li><div class=\"head\"><span class=\"name\">Sets and transaction "
        "logs</span></div>\n{}",
        timeline.of_server(server));
    for (const ServerLedger::Gap& gap : server.log_gaps)
        put("<p class=\"soft\">{}: {}</p>\n", gap.is_open ? "Gap" : "Earlier gap",
            escaped(gap.text));
    put("</li></ul>\n<p class=\"soft axis\"><span>{}</span><span>{}</span></p>\n",
        utc_time(timeline.begin()), utc_time(timeline.end()));
}

// Shown by the script alone.
void PageBody::add_tools(const ServerLedger& server) {
    put("<div class=\"tools\" hidden><input type=\"search\" placeholder=\"Find a database\" "
        "aria-label=\"Find a database\"><select aria-label=\"State\"><option value=\"\">all "
        "states</option>");
    for (int state = static_cast<int>(LedgerState::gap); state >= 0; --state)
        if (std::size_t count = server.count(static_cast<LedgerState>(state)); count > 0)
            put("<option value=\"{}\">{} ({})</option>", state,
                state_name(static_cast<LedgerState>(state)), count);
    put("</select><select aria-label=\"Order\"><option value=\"worst\">worst first</option>"
        "<option value=\"name\">by name</option><option value=\"age\">oldest first</option>"
        "</select></div>\n");
}

void PageBody::add_database(const DatabaseLedger& database, const Timeline& timeline) {
    const int code = code_of(database.state);
    const char* weight = !database.is_current() ? "w3" : code == 0 ? "w0" : code == 3 ? "w1" : "w2";
    const std::optional<std::int64_t> as_of = database.as_of();
    put("<li data-state=\"{}\" data-age=\"{}\"><div class=\"head\"><span class=\"name\">{}</span>"
        "<span class=\"state {}\">{}</span></div>\n",
        static_cast<int>(database.state), as_of ? m_ledger.made - *as_of : m_ledger.made,
        escaped(database.name), weight, state_text(database));
    if (!database.windows.empty()) {
        put("<div class=\"soft facts\"><span>{} to {}</span><span>{} old</span><span>{}</span>",
            utc_time(*database.recoverable_from()), utc_time(*database.recoverable_until()),
            age_text(database, m_ledger.made), escaped(database.newest_set));
        put("<span>{}</span><span>proof: {}</span></div>\n",
            database.dbiid.empty() ? "no DBIID" : escaped(database.dbiid),
            proof_text(database.proof));
        m_text += timeline.of(database);
    }
    if (!database.why.empty())
        put("<p class=\"soft\">{}</p>\n", escaped(database.why));
    add_gaps(database);
    put("</li>\n");
}

void PageBody::add_gaps(const DatabaseLedger& database) {
    if (database.gaps.empty())
        return;
    put("<details class=\"soft\"><summary>{} {}</summary><ul>", database.gaps.size(),
        database.gaps.size() == 1 ? "gap" : "gaps");
    for (const CoverageGap& gap : database.gaps)
        put("<li>{} to {}: {}</li>", utc_time(gap.from), gap.is_open ? "now" : utc_time(gap.until),
            escaped(gap.why));
    put("</ul></details>\n");
}

void replace_mark(std::string& page, std::string_view mark, const std::string& text) {
    for (std::size_t at = page.find(mark); at != std::string::npos;
         at = page.find(mark, at + text.size()))
        page.replace(at, mark.size(), text);
}

} // namespace

std::string ledger_page(const Ledger& ledger) {
    std::string page = page_template;
    replace_mark(page, "{{policy}}", policy());
    replace_mark(page, "{{title}}", "Ledger of recoverability");
    replace_mark(page, "{{body}}", PageBody(ledger).run()); // the last: its names may hold marks
    return page;
}

} // namespace qrtln
