// Channels of the configd client: socket addresses, socket helpers, opening
// and closing a channel, and the small text and file helpers they share.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/dbcom_msg.h"

namespace {

constexpr std::size_t max_un_path = 100;
constexpr std::size_t servname_part_max = 1024;
constexpr int sock_buf_size = 65536;
constexpr std::size_t connect_text_max = 4096;

void set_buffer_sizes(int fd)
{
    int size = sock_buf_size;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

unique_fd make_socket(int domain, int type)
{
    unique_fd fd(socket(domain, type | SOCK_CLOEXEC, 0));
    if (fd.valid())
        set_buffer_sizes(fd.get());
    return fd;
}

dbcom_channel& channel_of(dbcom_handle* handle, int which)
{
    return which == DBCOM_SET_CHANNEL ? handle->set : handle->get;
}

const char* un_path(const dbcom_addr& addr)
{
    return reinterpret_cast<const sockaddr_un*>(&addr.storage)->sun_path;
}

// Name of the server for a connect failure: its host name when a reverse
// lookup finds one.
std::string inet_server_name(const dbcom_addr& addr)
{
    const auto* in = reinterpret_cast<const sockaddr_in*>(&addr.storage);
    hostent* he = gethostbyaddr(&in->sin_addr, sizeof in->sin_addr, AF_INET);
    return he && he->h_name ? he->h_name : "unknown";
}

__attribute__((format(printf, 2, 3))) void append_format(std::optional<std::string>* error, const char* fmt, ...)
{
    char text[connect_text_max];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    str_append(error, text);
}

int connect_stream(dbcom_handle* handle, int which, std::optional<std::string>* error)
{
    dbcom_channel& ch = channel_of(handle, which);
    bool unix_domain = handle->protocol == DBCOM_UNIX_STREAM;
    // dbcom_init makes no handle without both server addresses.
    const dbcom_addr& server = *ch.server_addr;
    ch.fd =
        unix_domain ? make_un_stream_socket(server.get(), server.len) : make_in_stream_socket(server.get(), server.len);
    if (!ch.fd.valid()) {
        const char* reason = strerror(errno);
        if (unix_domain)
            append_format(error, "Couldn't make unix domain socket: %s\n", reason);
        else if (which == DBCOM_SET_CHANNEL)
            append_format(error, "Couldn't make inet socket: %s\n", reason);
        else
            append_format(error, "Couldn't make inet domain socket: %s\n", reason);
        return 1;
    }
    if (connect(ch.fd.get(), server.get(), server.len) == 0) {
        ch.open = 1;
        return 0;
    }
    int err = errno;
    std::string name = unix_domain ? un_path(server) : inet_server_name(server);
    append_format(error, "Couldn't connect to %s:  %s\n", name.c_str(), strerror(err));
    ch.fd.reset();
    return 1;
}

}  // namespace

std::optional<dbcom_addr> make_un_addr(const char* path)
{
    if (path == nullptr || std::strlen(path) > max_un_path)
        return std::nullopt;
    dbcom_addr addr;
    auto* un = reinterpret_cast<sockaddr_un*>(&addr.storage);
    un->sun_family = AF_UNIX;
    std::memcpy(un->sun_path, path, std::strlen(path));
    addr.len = static_cast<socklen_t>(std::strlen(path) + 3);
    return addr;
}

std::optional<dbcom_addr> make_in_addr(const char* host, const char* service)
{
    if (host == nullptr || service == nullptr)
        return std::nullopt;
    dbcom_addr addr;
    auto* in = reinterpret_cast<sockaddr_in*>(&addr.storage);
    in->sin_family = AF_INET;
    hostent* he = gethostbyname(host);
    if (he && he->h_addrtype == AF_INET && he->h_addr_list[0]) {
        std::memcpy(&in->sin_addr, he->h_addr_list[0], sizeof in->sin_addr);
    } else {
        int a, b, c, d;
        if (sscanf(host, "%d.%d.%d.%d", &a, &b, &c, &d) != 4)
            return std::nullopt;
        const uint8_t bytes[4] = {static_cast<uint8_t>(a), static_cast<uint8_t>(b), static_cast<uint8_t>(c),
                                  static_cast<uint8_t>(d)};
        std::memcpy(&in->sin_addr, bytes, sizeof bytes);
    }
    getservent();  // opens the services database
    servent* se = getservbyname(service, nullptr);
    in->sin_port = se ? static_cast<in_port_t>(se->s_port) : htons(static_cast<uint16_t>(atol(service)));
    endservent();
    addr.len = sizeof(sockaddr_in);
    return addr;
}

int split_servname(const char* text, std::string* host, std::string* service)
{
    if (text == nullptr || host == nullptr || service == nullptr)
        return 1;
    std::string_view all(text);
    std::size_t colon = all.find(':');
    std::string_view h = all.substr(0, colon);
    std::string_view s = colon == std::string_view::npos ? std::string_view() : all.substr(colon + 1);
    // Each part fits a 1024-byte buffer with its NUL.
    host->assign(h.substr(0, servname_part_max - 1));
    service->assign(s.substr(0, servname_part_max - 1));
    return 0;
}

unique_fd make_un_stream_socket(const sockaddr*, socklen_t)
{
    return make_socket(AF_UNIX, SOCK_STREAM);
}

unique_fd make_in_stream_socket(const sockaddr*, socklen_t)
{
    return make_socket(AF_INET, SOCK_STREAM);
}

unique_fd bind_unix_domain(const sockaddr* addr, socklen_t len)
{
    unique_fd fd = make_socket(AF_UNIX, SOCK_DGRAM);
    if (!fd.valid())
        return fd;
    unlink(reinterpret_cast<const sockaddr_un*>(addr)->sun_path);
    if (bind(fd.get(), addr, len) != 0) {
        int err = errno;
        fd.reset();
        errno = err;
        perror("bind");
    }
    return fd;
}

unique_fd bind_inet_domain(const sockaddr* addr, socklen_t)
{
    unique_fd fd = make_socket(AF_INET, SOCK_DGRAM);
    if (!fd.valid())
        return fd;
    if (bind(fd.get(), addr, sizeof(sockaddr_in)) != 0) {
        int err = errno;
        printf("bind_inet_domain error\n");
        fd.reset();
        errno = err;
        perror("bind");
    }
    return fd;
}

int touch_file(const char* path)
{
    unique_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd.valid() ? 0 : -1;
}

void str_append(std::optional<std::string>* str, const char* text)
{
    if (str == nullptr || text == nullptr)
        return;
    str_append_bytes(str, reinterpret_cast<const uint8_t*>(text), std::strlen(text));
}

void str_append_bytes(std::optional<std::string>* str, const uint8_t* bytes, std::size_t count)
{
    if (str == nullptr || bytes == nullptr)
        return;
    if (!*str) {
        str->emplace(reinterpret_cast<const char*>(bytes), count);
        return;
    }
    std::size_t nul = (*str)->find('\0');
    if (nul != std::string::npos)
        (*str)->resize(nul);
    (*str)->append(reinterpret_cast<const char*>(bytes), count);
}

int dbcom_connect(dbcom_handle* handle, int which, std::optional<std::string>* error)
{
    dbcom_channel& ch = channel_of(handle, which);
    switch (handle->protocol) {
    case DBCOM_UNIX_STREAM:
    case DBCOM_INET_STREAM:
        return connect_stream(handle, which, error);
    case DBCOM_UNIX_DGRAM:
        // A failed bind leaves the channel "open" on an invalid socket: the
        // first send reports it.
        ch.fd = ch.local_un_addr ? bind_unix_domain(ch.local_un_addr->get(), ch.local_un_addr->len) : unique_fd();
        ch.open = 1;
        return 0;
    case DBCOM_INET_DGRAM:
        ch.fd = bind_inet_domain(reinterpret_cast<const sockaddr*>(&ch.local_in_addr), ch.local_addr_len);
        ch.open = 1;
        return 0;
    // GCOVR_EXCL_START: dbcom_init makes no handle of another transport
    default:
        return 1;
        // GCOVR_EXCL_STOP
    }
}

void dbcom_disconnect(dbcom_handle* handle, int which)
{
    dbcom_channel& ch = channel_of(handle, which);
    if (!ch.open)
        return;
    ch.fd.reset();
    ch.open = 0;
    bool unix_domain = handle->protocol == DBCOM_UNIX_STREAM || handle->protocol == DBCOM_UNIX_DGRAM;
    if (unix_domain && ch.local_un_addr)
        unlink(un_path(*ch.local_un_addr));
}
