// The face of the configd client: the handle, the get operation with its
// retries, and the escaped text lines that carry keys and values.
#include "configstore/dbcom.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/growable.h"
#include "base/paths.h"
#include "configstore/dbcom_msg.h"

namespace {

constexpr int request_attempts = 3;

std::optional<dbcom_addr> inet_server(const char* name)
{
    std::string host;
    std::string service;
    if (split_servname(name, &host, &service) != 0)
        return std::nullopt;
    return make_in_addr(host.c_str(), service.c_str());
}

// The datagram transport's own path for a channel, from a format taking the pid.
std::optional<dbcom_addr> local_path(const char* fmt)
{
    char path[1024];
    snprintf(path, sizeof path, fmt, static_cast<int>(getpid()));
    return make_un_addr(path);
}

// Fills the channels' addresses. False for an unknown transport.
bool set_addresses(dbcom_handle* h, const char* get_server, const char* set_server)
{
    switch (h->protocol) {
    case DBCOM_UNIX_STREAM:
    case DBCOM_UNIX_DGRAM:
        h->set.server_addr = make_un_addr(set_server ? set_server : paths::configd_set_socket);
        h->get.server_addr = make_un_addr(get_server ? get_server : paths::configd_get_socket);
        if (h->protocol == DBCOM_UNIX_DGRAM) {
            h->set.local_un_addr = local_path(paths::configd_set_local_format);
            h->get.local_un_addr = local_path(paths::configd_get_local_format);
            h->set.local_addr_len = h->set.local_un_addr ? h->set.local_un_addr->len : 0;
            h->get.local_addr_len = h->get.local_un_addr ? h->get.local_un_addr->len : 0;
        }
        return true;
    case DBCOM_INET_STREAM:
    case DBCOM_INET_DGRAM:
        h->set.server_addr = inet_server(set_server);
        h->get.server_addr = inet_server(get_server);
        return true;
    default:
        return false;
    }
}

std::optional<std::string> real_user_name()
{
    long max = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(max > 0 ? static_cast<std::size_t>(max) : 16384);
    passwd pw{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr)
        return std::nullopt;
    return std::string(found->pw_name);
}

enum class scan_state { key, key_escape, value, value_escape, end };

// A key or value being unescaped into a buffer the size of the whole line,
// which no unescaped text can outgrow.
struct unescaped {
    char* at;
    std::size_t len = 0;
    void put(char c) { at[len++] = c; }
};

// One character of an answer line through the unescaping state machine.
scan_state scan_char(scan_state state, char c, unescaped* key, unescaped* value)
{
    switch (state) {
    case scan_state::key:
        if (c == '\\')
            return scan_state::key_escape;
        if (c == ' ')
            return scan_state::value;
        key->put(c);
        return scan_state::key;
    case scan_state::key_escape:
        if (c != ' ' && c != '\n')
            key->put('\\');
        key->put(c);
        return scan_state::key;
    case scan_state::value:
        if (c == '\\')
            return scan_state::value_escape;
        if (c == '\n')
            return scan_state::end;
        value->put(c);
        return scan_state::value;
    default:  // value_escape: the scan stops before `end`
        if (c != ' ' && c != '\n' && c != '\\' && c != ':')
            value->put('\\');
        value->put(c);
        return scan_state::value;
    }
}

void set_if_not_empty(std::optional<std::string>* out, const unescaped& text)
{
    if (out == nullptr)
        return;
    if (text.len == 0)
        out->reset();
    else
        out->emplace(text.at, text.len);
}

}  // namespace

dbcom_handle* dbcom_init(const char* get_server, const char* set_server, int transport)
{
    auto handle = std::make_unique<dbcom_handle>();
    handle->protocol = transport;
    if (!set_addresses(handle.get(), get_server, set_server)) {
        fputs("Unknown protocol used.\n", stderr);
        return nullptr;
    }
    bool bad = false;
    if (!handle->set.server_addr) {
        fputs("Null set server names\n", stderr);
        bad = true;
    }
    if (!handle->get.server_addr) {
        fputs("Null get server names\n", stderr);
        bad = true;
    }
    if (bad)
        return nullptr;
    handle->user = real_user_name();
    if (!handle->user)
        fputs("Error: Couldn't get the user ID\n", stderr);
    return handle.release();
}

int dbcom_close(dbcom_handle* handle)
{
    if (handle == nullptr)
        return 0;
    dbcom_disconnect(handle, DBCOM_GET_CHANNEL);
    dbcom_disconnect(handle, DBCOM_SET_CHANNEL);
    delete handle;
    return 0;
}

int dbcom_escape_spaces(const char* text, std::string* copy)
{
    if (text == nullptr || copy == nullptr)
        return 1;
    copy->clear();
    for (const char* p = text; *p; ++p) {
        if (*p == ' ')
            copy->push_back('\\');
        copy->push_back(*p);
    }
    return 0;
}

int dbcom_parse_line(const std::string* line, std::optional<std::string>* key, std::optional<std::string>* value,
                     std::optional<std::string_view>* rest)
{
    if (line == nullptr)
        return 1;
    // Room for the key and for the value, each as long as the line.
    growable_array<char> room;
    // GCOVR_EXCL_START: twice a reply's size, which overcommit never refuses
    if (!room.resize(2 * (line->size() + 1)))
        return 1;
    // GCOVR_EXCL_STOP
    unescaped k{room.data()};
    unescaped v{room.data() + line->size() + 1};
    std::size_t pos = 0;
    scan_state state = scan_state::key;
    while (pos < line->size() && (*line)[pos] != '\0' && state != scan_state::end)
        state = scan_char(state, (*line)[pos++], &k, &v);
    set_if_not_empty(key, k);
    set_if_not_empty(value, v);
    if (rest) {
        bool more = pos < line->size() && (*line)[pos] != '\0';
        *rest = more ? std::optional<std::string_view>(std::string_view(*line).substr(pos)) : std::nullopt;
    }
    return 0;
}

int dbcom_line_value(const std::string* line, std::optional<std::string>* value)
{
    return dbcom_parse_line(line, nullptr, value, nullptr);
}

int dbcom_request(dbcom_handle* handle, uint8_t op, std::string* text, std::optional<std::string>* result,
                  std::optional<std::string>* error)
{
    if (handle == nullptr)
        return 1;
    std::optional<std::string> unused_result;
    std::optional<std::string> unused_error;
    if (result == nullptr)
        result = &unused_result;
    if (error == nullptr)
        error = &unused_error;
    result->reset();
    error->reset();
    if (text && !text->empty() && text->back() != '\n') {
        text->push_back('\n');
        text->push_back('\0');
    }
    const auto* data = text ? reinterpret_cast<const uint8_t*>(text->data()) : nullptr;
    int length = text ? static_cast<int>(text->size()) : 0;
    int rc = 1;
    for (int attempt = 0; attempt < request_attempts; ++attempt) {
        rc = dbcom_do_transaction(handle, op, 0, data, length, result, error);
        if (*result) {
            error->reset();
            return 0;
        }
    }
    return rc;
}

int dbcom_get(dbcom_handle* handle, const char* key, std::optional<std::string>* value,
              std::optional<std::string>* error)
{
    if (error)
        error->reset();
    if (value)
        value->reset();
    std::string escaped;
    if (handle == nullptr || dbcom_escape_spaces(key, &escaped) != 0)
        return 1;
    std::optional<std::string> result;
    int rc = dbcom_request(handle, DBCOM_OP_GET, &escaped, &result, error);
    if (result && value)
        dbcom_line_value(&*result, value);
    // Callers see the error text as C text: up to its first NUL.
    if (error && *error)
        (*error)->resize(std::strlen((*error)->c_str()));
    return rc;
}
