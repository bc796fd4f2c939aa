#include "web/server.h"

#include <arpa/inet.h>
#include <fota/fota_client.h>
#include <malloc.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include "tools/common/output.h"
#include "web/channel.h"
#include "web/page_files.h"
#include "web/password.h"
#include "web/sessions.h"
#include "web/template.h"

using nlohmann::json;

namespace {

using namespace std::chrono_literals;

constexpr unsigned MOST_CONNECTIONS = 24;
constexpr unsigned MOST_CONNECTIONS_OF_ONE = 12;
constexpr unsigned SILENCE_SECS = 20;
constexpr size_t MEMORY_OF_CONNECTION = size_t{64} * 1024;  // all that a header may take, too
constexpr uint64_t LONGEST_FORM = 4096;
constexpr uint64_t LARGEST_PART = uint64_t{8} * 1024 * 1024;
constexpr uint64_t FORM_AROUND_FILE = 4096;
constexpr auto OTHER_WINDOW_IS_GONE = 15s;  // when it has sent nothing for so long
constexpr char SESSION_COOKIE[] = "fotaweb";
constexpr char KNOWN_COOKIE[] = "fotaweb_known";

constexpr const char* HEADERS[][2] = {
    {"Content-Security-Policy",
     "default-src 'none'; style-src 'self'; script-src 'self'; connect-src 'self'; form-action 'self'; "
     "base-uri 'none'; frame-ancestors 'none'"},
    {"X-Frame-Options", "DENY"},
    {"X-Content-Type-Options", "nosniff"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    // Not less: without a referrer a browser hides the origin of a form, too.
    {"Referrer-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

struct reply {
    unsigned status = MHD_HTTP_OK;
    std::string type = "text/html; charset=utf-8";
    std::string body = {};
    std::string location = {};
    std::vector<std::string> cookies = {};
};

struct upload_under_way {
    std::string id = {};
    int fd = -1;
    uint32_t size = 0, offset = 0;
    bool is_being_written = false;
    web_clock::time_point touched = {};
};

struct exchange;
struct route {
    const char* method;
    const char* path;
    bool needs_session;
    reply (*answer)(exchange& request);
    enum { FORM, PART, FILE_FORM } body = FORM;
};

struct web_server {
    server_options options;
    web_sessions sessions;
    upload_under_way upload = {};
    std::map<std::string, text_table> languages = {};
    std::string_view page = {};

    explicit web_server(const server_options& given) : options(given), sessions(given.password_line) {}
};

web_server* server = nullptr;

struct exchange {
    MHD_Connection* connection;
    std::string path;
    const route* where = nullptr;
    const text_table* texts = nullptr;
    web_session* session = nullptr;
    std::map<std::string, std::string> fields = {};
    std::optional<reply> refused = {};  // whatever else comes is thrown away
    MHD_PostProcessor* form = nullptr;
    uint64_t body_size = 0, body_read = 0;
    std::string writes = {};  // to the upload with this id; empty: to none
};

web_answer ask(web_ask what, uint32_t size = 0, const std::string& mark = "", int* fd = nullptr) {
    web_request request = {what, size, {}};
    std::memcpy(request.mark, mark.data(), std::min(mark.size(), sizeof request.mark));
    web_answer answer = {};
    if (!send_record(server->options.channel, &request, sizeof request) ||
        !receive_record(server->options.channel, &answer, sizeof answer, fd))
        std::_Exit(1);
    return answer;
}

const web_history& ask_history() {
    static web_history history;
    const web_request request = {web_ask::HISTORY, 0, {}};
    if (!send_record(server->options.channel, &request, sizeof request) ||
        !receive_record(server->options.channel, &history, sizeof history))
        std::_Exit(1);
    return history;
}

std::string header(const exchange& request, const char* name) {
    const char* const value = MHD_lookup_connection_value(request.connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
}

std::string cookie(const exchange& request, const char* name) {
    const char* const value = MHD_lookup_connection_value(request.connection, MHD_COOKIE_KIND, name);
    return value != nullptr ? value : "";
}

std::string argument(const exchange& request, const char* name) {
    const char* const value = MHD_lookup_connection_value(request.connection, MHD_GET_ARGUMENT_KIND, name);
    return value != nullptr ? value : "";
}

template <typename Number>
bool read_number(const std::string& text, Number& number) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end && !text.empty();
}

// Of the machine that the connection comes from; all of an IPv6 network count as one.
std::string address_of(const exchange& request) {
    const MHD_ConnectionInfo* const info =
        MHD_get_connection_info(request.connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return "";
    if (info->client_addr->sa_family == AF_INET6) {
        sockaddr_in6 address = {};
        std::memcpy(&address, info->client_addr, sizeof address);
        return in_hex(std::string(reinterpret_cast<const char*>(&address.sin6_addr),
                                  IN6_IS_ADDR_V4MAPPED(&address.sin6_addr) ? 16 : 8));
    }
    if (info->client_addr->sa_family != AF_INET) return "";
    sockaddr_in address = {};
    std::memcpy(&address, info->client_addr, sizeof address);
    return in_hex(std::string(reinterpret_cast<const char*>(&address.sin_addr), 4));
}

// A name could be one of somebody else's, who has it lead here: only those that the maker gave count. A
// number leads nowhere else.
bool is_own_host(std::string host) {
    const size_t colon = host.rfind(':');
    if (colon != std::string::npos && host.find(']', colon) == std::string::npos) host.erase(colon);
    std::ranges::transform(host, host.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    if (std::ranges::find(server->options.hosts, host) != server->options.hosts.end()) return true;
    in6_addr ignored = {};
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &ignored) == 1;
    return inet_pton(AF_INET, host.c_str(), &ignored) == 1;
}

bool is_own_origin(const exchange& request) {
    const std::string origin = header(request, "Origin"), host = header(request, "Host");
    return origin == "http://" + host || origin == "https://" + host;
}

// A proxy in front of this says so; whoever lies about it deceives himself.
bool is_secure(const exchange& request) {
    return header(request, "X-Forwarded-Proto") == "https";
}

const text_table& find_texts(const exchange& request) {
    const std::string wanted = header(request, "Accept-Language");
    for (size_t at = 0; at + 1 < wanted.size();) {
        const auto found = server->languages.find(wanted.substr(at, 2));
        if (found != server->languages.end()) return found->second;
        at = wanted.find_first_not_of(", ", std::min(wanted.find(',', at), wanted.size()));
    }
    return server->languages.at("en");
}

std::string size_words(uint64_t bytes) {
    char text[32];
    const double mib = static_cast<double>(bytes) / (1024 * 1024);
    std::snprintf(text, sizeof text, mib < 10 ? "%.2f MiB" : "%.1f MiB", mib);
    return text;
}

std::string flat(std::string_view text) {
    return without_line_end(std::string(text));
}

// The first of these texts that there is.
std::string first_text(const text_table& texts, const std::string& begin, const std::string& name,
                       const json& values) {
    const std::string key = begin + name;
    return text_of(texts, texts.contains(key) ? key : begin + "other", values);
}

// The name of a code, without what all of them begin with.
std::string code_name(int code) {
    const char* const name = fota_result_name(code);
    std::string text = name != nullptr ? name : std::to_string(code);
    for (const char* begin : {"FOTA_RC_", "FOTA_CLIENT_"}) {
        if (text.starts_with(begin)) return text.substr(std::strlen(begin));
    }
    return text;
}

void add_reason(json& values, const text_table& texts, int reason) {
    values["code"] = code_name(reason);
    values["why"] = first_text(texts, "why.", code_name(reason), values);
    values["what_to_do"] = first_text(texts, "do.", code_name(reason), values);
}

void add_record(json& values, const text_table& texts, const fota_history_rec& record) {
    const bool reverted = record.rec_type == FOTA_REC_REVERT;
    const std::string kind = reverted                               ? "reverted"
                             : record.status == FOTA_STATUS_PENDING ? "pending"
                             : record.status == FOTA_STATUS_SUCCESS ? "success"
                                                                    : "failed";
    values["kind"] = kind;
    values["id"] = record.rec_id;
    values["status"] = record.status;
    values["reason"] = flat(field_text(record.reason));
    values["date"] = flat(field_text(record.update_date));
    values["version"] = flat(field_text(record.pkg_info.pkg_ver));
    values["name"] = flat(field_text(record.pkg_info.pkg_description));
    values["agent"] = flat(field_text(record.pkg_info.agent_name));
    values["heading"] = text_of(texts, "outcome." + kind, values);
    const std::string code = kind == "failed" ? std::to_string(record.status) : kind;
    values["why"] = first_text(texts, "status.", code, values);
    values["what_to_do"] = first_text(texts, "advice.", code, values);
}

std::string duration_words(const text_table& texts, uint32_t secs) {
    if (secs == 0) return text_of(texts, "duration.unknown");
    return text_of(texts, "duration.minutes", {{"minutes", std::to_string((secs + 59) / 60)}});
}

constexpr std::array STAGES = {"closed",  "ready",   "uploading",  "checking",
                               "checked", "refused", "installing", "outcome"};

// What a page of this state has in it.
json state_values(const exchange& request, const web_answer& state) {
    const text_table& texts = *request.texts;
    const auto stage = static_cast<size_t>(state.stage);
    const std::string screen = stage < STAGES.size() ? STAGES[stage] : STAGES[0];
    json values = {{"screen", screen},
                   {"firmware", flat(field_text(state.firmware))},
                   {"holder", flat(field_text(state.holder))},
                   {"limit", state.limit},
                   {"limit_words", size_words(state.limit)},
                   {"size", state.size},
                   {"size_words", size_words(state.size)},
                   {"offset", state.offset},
                   {"offset_words", size_words(state.offset)},
                   {"from", flat(field_text(state.from))},
                   {"to", flat(field_text(state.to))},
                   {"description", flat(field_text(state.description))},
                   {"duration", duration_words(texts, state.estimate_secs)},
                   {"detail", flat(field_text(state.detail))},
                   {"waits", screen == "checking" || screen == "installing" || screen == "uploading"}};
    if (state.percent >= 0) {
        values["percent"] = std::to_string(state.percent);
        values["progress"] = flat(field_text(state.progress));
    }
    if (state.reason != FOTA_RC_SUCCESS) add_reason(values, texts, state.reason);
    if (screen == "outcome") add_record(values, texts, state.outcome);
    values["is_" + screen] = true;
    values["takes"] = screen == "ready" || screen == "uploading";
    return values;
}

json page_values(const exchange& request) {
    if (request.session == nullptr) return {{"screen", "login"}, {"is_login", true}};
    return state_values(request, ask(web_ask::STATE));
}

std::string stamp_of(const json& values) {
    return in_hex(digest(values.dump(-1, ' ', true, json::error_handler_t::replace)).substr(0, 8));
}

reply page_reply(const exchange& request, json values, const std::string& notice = "",
                 unsigned status = MHD_HTTP_OK) {
    values["stamp"] = stamp_of(values);
    values["token"] = request.session != nullptr ? request.session->token : "";
    values["lang"] = text_of(*request.texts, "lang");
    values["title"] = text_of(*request.texts, "title." + values["screen"].get<std::string>());
    values["is_logged_in"] = request.session != nullptr;
    values["is_plain"] = !is_secure(request);
    values["notice"] = notice;
    reply answer;
    answer.status = status;
    answer.body = render(server->page, values, *request.texts);
    return answer;
}

reply json_reply(const json& values, unsigned status = MHD_HTTP_OK) {
    return {status, "application/json", values.dump(-1, ' ', true, json::error_handler_t::replace)};
}

reply go_to(const char* where) {
    return {MHD_HTTP_SEE_OTHER, "text/plain", "", where};
}

// To a script an error is a sentence, to a person a page with that sentence.
reply problem(const exchange& request, unsigned status, const std::string& text) {
    const bool is_script = request.where != nullptr &&
                           (request.where->body == route::PART || !header(request, "X-Token").empty());
    if (is_script) return json_reply({{"error", text}}, status);
    return page_reply(request, page_values(request), text, status);
}

reply bare_problem(unsigned status, const char* text) {
    return {status, "text/plain; charset=utf-8", std::string(text) + "\n"};
}

std::string new_cookie(const exchange& request, const char* name, const std::string& value,
                       const char* more = "") {
    return std::string(name) + "=" + value + "; Path=/; HttpOnly; SameSite=Strict" + more +
           (is_secure(request) ? "; Secure" : "");
}

reply show_page(exchange& request) {
    return page_reply(request, page_values(request));
}

reply show_history(exchange& request) {
    json values = {{"screen", "history"}, {"is_history", true}, {"records", json::array()}};
    const web_history& history = ask_history();
    for (size_t i = 0; i < std::min<size_t>(history.count, std::size(history.records)); ++i) {
        json record;
        add_record(record, *request.texts, history.records[i]);
        values["records"].push_back(record);
    }
    return page_reply(request, values);
}

reply show_state(exchange& request) {
    const json values = page_values(request);
    return json_reply({{"screen", values["screen"]}, {"stamp", stamp_of(values)}});
}

reply show_file(exchange& request) {
    const std::string name = request.path.substr(1);
    const auto found = std::ranges::find(page_files(), name, &page_file::name);
    if (found == page_files().end()) return bare_problem(MHD_HTTP_NOT_FOUND, "no such page");
    return {MHD_HTTP_OK,
            name.ends_with(".css") ? "text/css; charset=utf-8" : "text/javascript; charset=utf-8",
            std::string(found->content)};
}

reply log_in(exchange& request) {
    const web_sessions::attempt attempt = server->sessions.log_in(
        request.fields["password"], cookie(request, KNOWN_COOKIE), address_of(request));
    if (attempt.id.empty()) {
        const json values = {{"secs", attempt.wait_secs}};
        const std::string text =
            text_of(*request.texts, attempt.wait_secs > 0 ? "login.wait" : "login.wrong", values);
        return page_reply(request, page_values(request), text,
                          attempt.wait_secs > 0 ? MHD_HTTP_TOO_MANY_REQUESTS : MHD_HTTP_FORBIDDEN);
    }
    reply answer = go_to("/");
    answer.cookies = {new_cookie(request, SESSION_COOKIE, attempt.id),
                      new_cookie(request, KNOWN_COOKIE, attempt.known, "; Max-Age=31536000")};
    return answer;
}

reply log_out(exchange& request) {
    server->sessions.end(request.session);
    reply answer = go_to("/");
    answer.cookies = {new_cookie(request, SESSION_COOKIE, "", "; Max-Age=0")};
    return answer;
}

void close_upload() {
    if (server->upload.fd >= 0) close(server->upload.fd);
    server->upload = {};
}

std::string refusal_text(const exchange& request, const web_answer& answer) {
    json values = {{"holder", flat(field_text(answer.holder))}, {"limit_words", size_words(answer.limit)}};
    add_reason(values, *request.texts, answer.result);
    return values["why"].get<std::string>() + " " + values["what_to_do"].get<std::string>();
}

// Another window must not write into the same file. Empty: `size` bytes may come, from server->upload.offset
// on.
std::string begin_upload(const exchange& request, uint64_t size, const std::string& name,
                         const std::string& id) {
    upload_under_way& upload = server->upload;
    const bool is_recent = web_clock::now() - upload.touched < OTHER_WINDOW_IS_GONE;
    if (upload.is_being_written || (upload.fd >= 0 && upload.id != id && is_recent))
        return text_of(*request.texts, "upload.elsewhere");
    close_upload();
    int fd = -1;
    const web_answer answer =
        ask(web_ask::UPLOAD, static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX)),
            digest(name + "\n" + std::to_string(size)), &fd);
    if (answer.result != FOTA_RC_SUCCESS || fd < 0) return refusal_text(request, answer);
    upload = {random_text(16), fd, answer.size, answer.offset, false, web_clock::now()};
    return "";
}

reply begin(exchange& request) {
    uint64_t size = 0;
    if (!read_number(request.fields["size"], size)) return bare_problem(MHD_HTTP_BAD_REQUEST, "no size");
    const std::string refusal = begin_upload(request, size, request.fields["name"], request.fields["id"]);
    if (!refusal.empty()) {
        const bool later = refusal == text_of(*request.texts, "upload.elsewhere");
        return problem(request, later ? MHD_HTTP_CONFLICT : MHD_HTTP_CONTENT_TOO_LARGE, refusal);
    }
    return json_reply({{"id", server->upload.id}, {"offset", server->upload.offset}});
}

// Whether a part may be written: it begins where the upload stands, and fits.
bool is_next_part(const exchange& request) {
    const upload_under_way& upload = server->upload;
    uint32_t offset = 0;
    return upload.fd >= 0 && !upload.is_being_written && argument(request, "id") == upload.id &&
           read_number(argument(request, "offset"), offset) && offset == upload.offset &&
           request.body_size <= LARGEST_PART && request.body_size <= upload.size - upload.offset;
}

void write_upload(exchange& request, const char* data, size_t size) {
    upload_under_way& upload = server->upload;
    // Meanwhile it may have been given up, and another begun.
    while (size > 0 && upload.fd >= 0 && request.writes == upload.id) {
        const ssize_t written = write(upload.fd, data, std::min<size_t>(size, upload.size - upload.offset));
        if (written <= 0 && errno == EINTR) continue;
        if (written <= 0) break;
        data += written;
        size -= static_cast<size_t>(written);
        upload.offset += static_cast<uint32_t>(written);
    }
    upload.touched = web_clock::now();
    if (size > 0 && !request.refused) {
        request.refused =
            problem(request, MHD_HTTP_INSUFFICIENT_STORAGE, text_of(*request.texts, "upload.not_written"));
    }
}

reply end_part(exchange&) {
    return json_reply({{"offset", server->upload.offset}});
}

reply check(exchange& request) {
    if (server->upload.fd < 0 || request.fields["id"] != server->upload.id)
        return problem(request, MHD_HTTP_CONFLICT, text_of(*request.texts, "upload.gone"));
    const uint32_t size = server->upload.offset;
    close_upload();
    const web_answer answer = ask(web_ask::CHECK, size);
    if (answer.result != FOTA_RC_SUCCESS)
        return problem(request, MHD_HTTP_CONFLICT, refusal_text(request, answer));
    return json_reply(json::object());
}

// What a browser sends without a script has all come.
reply end_file_form(exchange& request) {
    if (request.writes.empty() || request.writes != server->upload.id)
        return problem(request, MHD_HTTP_BAD_REQUEST, text_of(*request.texts, "upload.no_file"));
    request.writes.clear();
    const uint32_t size = server->upload.offset;
    close_upload();
    (void)ask(web_ask::CHECK, size);
    return go_to("/");
}

reply install(exchange& request) {
    (void)ask(web_ask::INSTALL, 0, digest(cookie(request, SESSION_COOKIE)));
    return go_to("/");
}

reply give_up(exchange&) {
    close_upload();
    (void)ask(web_ask::GIVE_UP);
    return go_to("/");
}

// clang-format off
constexpr route ROUTES[] = {
    {"GET",  "/",          false, show_page},
    {"GET",  "/state",     false, show_state},
    {"GET",  "/style.css", false, show_file},
    {"GET",  "/page.js",   false, show_file},
    {"GET",  "/history",   true,  show_history},
    {"POST", "/login",     false, log_in},
    {"POST", "/logout",    true,  log_out},
    {"POST", "/begin",     true,  begin},
    {"POST", "/data",      true,  end_part,      route::PART},
    {"POST", "/check",     true,  check},
    {"POST", "/upload",    true,  end_file_form, route::FILE_FORM},
    {"POST", "/install",   true,  install},
    {"POST", "/give-up",   true,  give_up},
};
// clang-format on

bool has_token(const exchange& request, const std::string& given) {
    return request.session != nullptr && is_same_secret(given, request.session->token);
}

// The first bytes of a file that comes in a form; what stands before it in the form has to allow it.
void begin_file(exchange& request) {
    if (!has_token(request, request.fields["token"])) {
        request.refused = bare_problem(MHD_HTTP_FORBIDDEN, "no token");
        return;
    }
    const uint64_t limit = ask(web_ask::STATE).limit;
    // The form is a little larger than the file.
    const bool may_fit = limit != 0 && request.body_size <= limit + FORM_AROUND_FILE;
    const uint64_t size = may_fit ? std::min(request.body_size, limit) : request.body_size;
    const std::string refusal = begin_upload(request, size, random_text(16), "");
    if (!refusal.empty()) {
        request.refused = problem(request, MHD_HTTP_CONTENT_TOO_LARGE, refusal);
        return;
    }
    server->upload.is_being_written = true;
    request.writes = server->upload.id;
}

MHD_Result take_field(void* context, MHD_ValueKind, const char* key, const char*, const char*, const char*,
                      const char* data, uint64_t offset, size_t size) {
    auto& request = *static_cast<exchange*>(context);
    if (request.refused) return MHD_YES;
    if (request.where->body == route::FILE_FORM && std::strcmp(key, "file") == 0) {
        if (offset == 0 && size > 0 && request.writes.empty()) begin_file(request);
        if (!request.writes.empty() && !request.refused) write_upload(request, data, size);
        return MHD_YES;
    }
    std::string& field = request.fields[std::string(key).substr(0, 20)];
    if (field.size() + size <= LONGEST_FORM && request.fields.size() <= 8) field.append(data, size);
    return MHD_YES;
}

// All that can be refused before a byte of the body is looked at.
std::optional<reply> judge_header(exchange& request, const std::string& method) {
    if (!is_own_host(header(request, "Host")))
        return bare_problem(MHD_HTTP_MISDIRECTED_REQUEST, "not a name of this device; see --host");
    const auto* const found = std::ranges::find_if(
        ROUTES, [&](const route& row) { return request.path == row.path && method == row.method; });
    if (found == std::end(ROUTES)) return bare_problem(MHD_HTTP_NOT_FOUND, "no such page");
    request.where = found;
    request.session = server->sessions.find(cookie(request, SESSION_COOKIE));
    request.texts = &find_texts(request);
    const bool changes = method == "POST";
    if (changes && !is_own_origin(request)) return bare_problem(MHD_HTTP_FORBIDDEN, "from another origin");
    if (found->needs_session && request.session == nullptr) {
        if (!changes) return go_to("/");
        return problem(request, MHD_HTTP_UNAUTHORIZED, text_of(*request.texts, "login.again"));
    }
    if (!changes) return {};
    const std::string length = header(request, "Content-Length");
    if (!read_number(length, request.body_size)) return bare_problem(MHD_HTTP_LENGTH_REQUIRED, "no length");
    if (found->body == route::PART) {
        if (!has_token(request, header(request, "X-Token")))
            return bare_problem(MHD_HTTP_FORBIDDEN, "no token");
        if (!is_next_part(request))
            return problem(request, MHD_HTTP_CONFLICT, text_of(*request.texts, "upload.gone"));
        server->upload.is_being_written = true;
        request.writes = server->upload.id;
    } else if (found->body == route::FORM && request.body_size > LONGEST_FORM) {
        return bare_problem(MHD_HTTP_CONTENT_TOO_LARGE, "too long");
    }
    return {};
}

reply answer_of(exchange& request) {
    if (request.refused) return *request.refused;
    const bool needs_token = request.where->needs_session &&
                             std::strcmp(request.where->method, "POST") == 0 &&
                             request.where->body != route::PART;
    const std::string given = header(request, "X-Token");
    if (needs_token && !has_token(request, given.empty() ? request.fields["token"] : given))
        return bare_problem(MHD_HTTP_FORBIDDEN, "no token");
    return request.where->answer(request);
}

MHD_Result send_reply(MHD_Connection* connection, const reply& answer) {
    MHD_Response* const response = MHD_create_response_from_buffer(
        answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, "Content-Type", answer.type.c_str());
    for (const auto& [name, value] : HEADERS) MHD_add_response_header(response, name, value);
    if (!answer.location.empty()) MHD_add_response_header(response, "Location", answer.location.c_str());
    for (const std::string& cookie : answer.cookies)
        MHD_add_response_header(response, "Set-Cookie", cookie.c_str());
    const MHD_Result queued = MHD_queue_response(connection, answer.status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result receive(exchange& request, const char* data, size_t size) {
    request.body_read += size;
    const bool is_form = request.where == nullptr || request.where->body == route::FORM;
    if (is_form && request.body_read > LONGEST_FORM) return MHD_NO;
    if (request.refused) return MHD_YES;
    if (request.where->body == route::PART) {
        write_upload(request, data, size);
        return MHD_YES;
    }
    if (request.form == nullptr) {
        request.form = MHD_create_post_processor(request.connection, 4096, take_field, &request);
        if (request.form == nullptr) {
            request.refused = bare_problem(MHD_HTTP_BAD_REQUEST, "no form");
            return MHD_YES;
        }
    }
    (void)MHD_post_process(request.form, data, size);
    return MHD_YES;
}

// Exceptions must not reach the library, which is in C.
template <typename Work>
MHD_Result guarded(const Work& work) {
    try {
        return work();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fotaweb: %s\n", error.what());
        return MHD_NO;
    }
}

MHD_Result handle(void*, MHD_Connection* connection, const char* path, const char* method, const char*,
                  const char* data, size_t* size, void** context) {
    return guarded([&]() -> MHD_Result {
        if (*context == nullptr) {
            auto begun = std::make_unique<exchange>();
            begun->connection = connection;
            begun->path = path;
            begun->refused = judge_header(*begun, method);
            exchange& request = *begun;
            *context = begun.release();
            // What comes with a refused form is read, so that the browser shows why; more than that is cut
            // off.
            const bool is_file = request.where != nullptr && request.where->body == route::FILE_FORM;
            if (request.refused && request.body_size > LONGEST_FORM && !is_file)
                return send_reply(connection, *request.refused);
            return MHD_YES;
        }
        exchange& request = *static_cast<exchange*>(*context);
        if (*size != 0) {
            const size_t count = *size;
            *size = 0;
            return receive(request, data, count);
        }
        return send_reply(connection, answer_of(request));
    });
}

// Also of a request that was broken off.
void forget(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
    const std::unique_ptr<exchange> request(static_cast<exchange*>(*context));
    *context = nullptr;
    if (!request) return;
    if (request->form != nullptr) MHD_destroy_post_processor(request->form);
    if (request->writes.empty() || request->writes != server->upload.id) return;
    server->upload.is_being_written = false;
    if (request->where->body != route::FILE_FORM) return;
    // Nobody can go on with it.
    close_upload();
    (void)ask(web_ask::GIVE_UP);
}

void load_page() {
    for (const page_file& file : page_files()) {
        if (file.name == "page.html") server->page = file.content;
        if (file.name.ends_with(".json"))
            server->languages[std::string(file.name.substr(0, 2))] = json::parse(file.content);
    }
}

// What is done for the first time may open files.
void warm_up(MHD_Daemon*) {
    tzset();
    std::time_t now = std::time(nullptr);
    std::tm ignored = {};
    (void)gmtime_r(&now, &ignored);
    (void)is_password(server->options.password_line, "warm");
    (void)random_text(1);
    exchange nobody = {};
    nobody.texts = &server->languages.at("en");
    (void)render(server->page, json::object({{"title", ""}}), *nobody.texts);
}

}  // namespace

void serve(const server_options& options) {
#ifdef __GLIBC__
    // Comparing a password takes 16 MiB: they are given back, also the second time.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    static web_server only(options);
    server = &only;
    load_page();
    if (options.start.has_mark) {
        only.sessions.let_in(
            std::string(reinterpret_cast<const char*>(options.start.mark), sizeof options.start.mark));
    }
    MHD_Daemon* const daemon =
        MHD_start_daemon(MHD_NO_FLAG, 0, nullptr, nullptr, handle, nullptr, MHD_OPTION_LISTEN_SOCKET,
                         options.listener, MHD_OPTION_CONNECTION_LIMIT, MOST_CONNECTIONS,
                         MHD_OPTION_PER_IP_CONNECTION_LIMIT, MOST_CONNECTIONS_OF_ONE,
                         MHD_OPTION_CONNECTION_TIMEOUT, SILENCE_SECS, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                         MEMORY_OF_CONNECTION, MHD_OPTION_NOTIFY_COMPLETED, forget, nullptr, MHD_OPTION_END);
    if (daemon == nullptr) throw std::runtime_error("cannot serve on this socket");
    warm_up(daemon);
    options.confine();
    while (MHD_run_wait(daemon, 1000) == MHD_YES) {
    }
    throw std::runtime_error("the server has ended");
}
