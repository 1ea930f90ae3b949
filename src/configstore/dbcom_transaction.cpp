// One configd transaction: send a request in as many messages as its data
// need, then collect responses until the answer is complete.
#include <sys/mman.h>
#include <sys/select.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/paths.h"
#include "configstore/dbcom_msg.h"

int dbcom_response_wait = 300;

namespace {

// Process-wide: transactions never overlap (see the header). Mapped at the
// first transaction rather than kept in the image: a process that never asks
// configd never has them, and the pages a flushed reply dirtied can be given
// back.
struct client_buffers {
    uint8_t recv[DBCOM_MAX_MSG];
    char text[4096];
};
client_buffers* buffers = nullptr;

bool map_buffers()
{
    if (buffers != nullptr)
        return true;
    void* p = mmap(nullptr, sizeof(client_buffers), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    // GCOVR_EXCL_START: 70 KiB of address space, refused only when it is exhausted
    if (p == MAP_FAILED)
        return false;
    // GCOVR_EXCL_STOP
    buffers = static_cast<client_buffers*>(p);
    return true;
}

// A refused or cut reply may have filled the whole receive buffer (a flush
// reads up to its size each time); none of it is needed any more.
void release_buffers()
{
    int err = errno;
    madvise(buffers, sizeof(client_buffers), MADV_DONTNEED);
    errno = err;
}

__attribute__((format(printf, 2, 3))) void append_text(std::optional<std::string>* error, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buffers->text, sizeof buffers->text, fmt, ap);
    va_end(ap);
    str_append(error, buffers->text);
}

int channel_for(uint8_t op)
{
    return op == DBCOM_OP_SET || op == 5 ? DBCOM_SET_CHANNEL : DBCOM_GET_CHANNEL;
}

dbcom_channel& channel_of(dbcom_handle* handle, int which)
{
    return which == DBCOM_SET_CHANNEL ? handle->set : handle->get;
}

bool is_datagram(int protocol)
{
    return protocol == DBCOM_UNIX_DGRAM || protocol == DBCOM_INET_DGRAM;
}

// Writes one message on a stream channel, reconnecting once when the server
// has closed the connection. 0, or 1 with the channel closed.
int write_stream(dbcom_handle* handle, int which, const dbcom_message& msg, std::optional<std::string>* error)
{
    dbcom_channel& ch = channel_of(handle, which);
    auto len = static_cast<ssize_t>(msg.size());
    ssize_t n = send(ch.fd.get(), msg.data(), msg.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EPIPE) {
        dbcom_disconnect(handle, which);
        if (dbcom_connect(handle, which, error) != 0)
            return 1;
        n = send(ch.fd.get(), msg.data(), msg.size(), MSG_NOSIGNAL);
        if (n == len)
            return 0;
        append_text(error, "Error in write: %s\n", n < 0 ? strerror(errno) : "message truncated");
    } else if (n < 0) {
        append_text(error, "Error in write: %s\n", strerror(errno));
    } else if (n != len) {
        append_text(error, "Error in write:  %s\n", "message truncated");
    } else {
        return 0;
    }
    dbcom_disconnect(handle, which);
    return 1;
}

int write_datagram(dbcom_handle* handle, int which, const dbcom_message& msg, std::optional<std::string>* error)
{
    dbcom_channel& ch = channel_of(handle, which);
    // dbcom_init makes no handle without both server addresses.
    const dbcom_addr& to = *ch.server_addr;
    ssize_t n = sendto(ch.fd.get(), msg.data(), msg.size(), MSG_NOSIGNAL, to.get(), to.len);
    if (n == static_cast<ssize_t>(msg.size()))
        return 0;
    append_text(error, "Error in write:  %s\n", strerror(errno));
    dbcom_disconnect(handle, which);
    return 1;
}

int send_request(dbcom_handle* handle, int which, uint8_t op, uint16_t flags, const uint8_t* data, std::size_t length,
                 std::optional<std::string>* error)
{
    std::size_t sent = 0;
    do {
        dbcom_message msg;
        const uint8_t* rest = data != nullptr ? data + sent : nullptr;
        int taken = dbcom_build_request(handle, op, flags, 0, DBCOM_MAGIC, rest, length - sent, &msg);
        if (taken < 0) {
            append_text(error, "dbcom_do_transaction: Unable to build request message.\n");
            dbcom_disconnect(handle, which);
            return 1;
        }
        int rc = is_datagram(handle->protocol) ? write_datagram(handle, which, msg, error)
                                               : write_stream(handle, which, msg, error);
        if (rc != 0)
            return 1;
        sent += static_cast<std::size_t>(taken);
    } while (sent < length);
    return 0;
}

// A wait that outlived the response wait (signals kept restarting it) means
// configd is stuck: say so and leave the marker for whoever restarts it.
void check_stuck(time_t* last)
{
    time_t now = time(nullptr);
    auto idle = static_cast<unsigned long>(now - *last);
    if (idle <= static_cast<unsigned long>(dbcom_response_wait))
        return;
    syslog(LOG_ERR, "Configd Stuck Detected: No New Connection happened for last %lu seconds\n", idle);
    if (touch_file(paths::configd_stuck_marker) != 0)
        syslog(LOG_ERR, "Failure in Configd Stuck Handling Sequence, Unable to touch %s\n",
               paths::configd_stuck_marker);
    *last = now;
}

// Collects the answer. Returns true when the transaction failed.
bool wait_for_answer(dbcom_handle* handle, int which, uint8_t op, std::optional<std::string>* result,
                     std::optional<std::string>* error)
{
    int fd = channel_of(handle, which).fd.get();
    if (fd < 0 || fd >= FD_SETSIZE) {
        append_text(error, "Error receiving transaction response: %s.\n", strerror(EBADF));
        return true;
    }
    bool failed = false;
    time_t last = time(nullptr);
    for (;;) {
        fd_set readset;
        FD_ZERO(&readset);
        FD_SET(fd, &readset);
        timeval timeout{dbcom_response_wait, 0};
        int rc = select(FD_SETSIZE, &readset, nullptr, nullptr, &timeout);
        int err = errno;
        if (rc > 0) {
            last = time(nullptr);
            std::span<const uint8_t> recv_buf(buffers->recv);
            if (dbcom_read_message(fd, handle->protocol, buffers->recv, sizeof buffers->recv) < 0) {
                release_buffers();
                append_text(error, "Error receiving transaction response: %s.\n", strerror(errno));
                return true;
            }
            if (!dbcom_take_response(recv_buf, op, result, error, &failed))
                return failed;
            continue;
        }
        check_stuck(&last);
        if (rc == 0) {
            append_text(error, "Timeout waiting for response from database server.\n");
            return true;
        }
        if (err != EINTR) {
            append_text(error, "Error receiving transaction response: %s.\n", strerror(err));
            return true;
        }
    }
}

}  // namespace

int dbcom_do_transaction(dbcom_handle* handle, uint8_t op, uint16_t flags, const uint8_t* data, int length,
                         std::optional<std::string>* result, std::optional<std::string>* error)
{
    if (handle == nullptr || length < 0)
        return 1;
    std::optional<std::string> unused;
    if (result == nullptr)
        result = &unused;
    if (!map_buffers()) {  // GCOVR_EXCL_START: see map_buffers
        str_append(error, "dbcom_do_transaction: Unable to allocate the message buffers.\n");
        result->reset();
        return 1;
    }  // GCOVR_EXCL_STOP
    int which = channel_for(op);
    bool failed = !channel_of(handle, which).open && dbcom_connect(handle, which, error) != 0;
    // A failed connect or send has left the channel closed already.
    if (!failed)
        failed = send_request(handle, which, op, flags, data, static_cast<std::size_t>(length), error) != 0;
    if (!failed && wait_for_answer(handle, which, op, result, error)) {
        failed = true;
        dbcom_disconnect(handle, which);
    }
    if (failed)
        result->reset();
    return failed ? 1 : 0;
}

bool dbcom_take_response(std::span<const uint8_t> msg, uint8_t op, std::optional<std::string>* result,
                         std::optional<std::string>* error, bool* failed)
{
    dbcom_header hdr;
    std::span<const uint8_t> body;
    if (dbcom_parse_response(msg, &hdr, &body, nullptr) < 0)
        return true;
    if (hdr.op != op || hdr.magic != DBCOM_MAGIC)
        return true;
    if (!body.empty()) {
        if (hdr.flags & DBCOM_FLAG_TEXT) {
            str_append_bytes(error, body.data(), body.size());
            if (hdr.flags & DBCOM_FLAG_FAIL)
                *failed = true;
        } else {
            str_append_bytes(result, body.data(), body.size());
        }
    }
    return (hdr.flags & DBCOM_FLAG_MORE) != 0;
}
