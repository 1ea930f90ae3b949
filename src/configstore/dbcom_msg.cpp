// The configd message format: building and decoding messages, and reading
// one whole message off a socket.
#include "configstore/dbcom_msg.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int read_budget_ms = 5000;

void put_u16(uint8_t* out, uint16_t v)
{
    out[0] = static_cast<uint8_t>(v >> 8);
    out[1] = static_cast<uint8_t>(v);
}

void put_u32(uint8_t* out, uint32_t v)
{
    put_u16(out, static_cast<uint16_t>(v >> 16));
    put_u16(out + 2, static_cast<uint16_t>(v));
}

uint16_t get_u16(const uint8_t* in)
{
    return static_cast<uint16_t>((in[0] << 8) | in[1]);
}

uint32_t get_u32(const uint8_t* in)
{
    return (static_cast<uint32_t>(get_u16(in)) << 16) | get_u16(in + 2);
}

dbcom_header decode_header(const uint8_t* in)
{
    dbcom_header hdr;
    hdr.kind = in[0];
    hdr.op = in[1];
    hdr.flags = get_u16(in + 2);
    hdr.body_len = get_u16(in + 4);
    hdr.reserved = get_u16(in + 6);
    hdr.magic = get_u32(in + 8);
    return hdr;
}

// Item head and value at `out`; a missing value is the absent item (four
// zero bytes, already there in the zeroed message).
std::size_t put_item(uint8_t* out, uint8_t type, const std::optional<std::string>& value)
{
    if (!value)
        return DBCOM_ITEM_HEAD_LEN;
    auto len = static_cast<uint16_t>(value->size());
    out[0] = type;
    put_u16(out + 2, len);
    std::memcpy(out + DBCOM_ITEM_HEAD_LEN, value->data(), len);
    return DBCOM_ITEM_HEAD_LEN + len;
}

std::size_t item_size(const std::optional<std::string>& value)
{
    return DBCOM_ITEM_HEAD_LEN + (value ? static_cast<uint16_t>(value->size()) : 0);
}

// Reads an item at body[*pos]; false when it runs past the body.
bool take_item(std::span<const uint8_t> body, std::size_t* pos, dbcom_item* item)
{
    if (body.size() - *pos < DBCOM_ITEM_HEAD_LEN)
        return false;
    item->type = body[*pos];
    item->len = get_u16(&body[*pos + 2]);
    *pos += DBCOM_ITEM_HEAD_LEN;
    if (body.size() - *pos < item->len)
        return false;
    item->value = body.subspan(*pos, item->len);
    *pos += item->len;
    return true;
}

bool is_stream(int transport)
{
    return transport == 1 || transport == 3 || transport == 5;
}

// After a bad header the rest of the stream is out of step: throw away
// whatever is queued.
void flush_socket(int fd, uint8_t* buf, std::size_t size)
{
    for (;;) {
        ssize_t n = recv(fd, buf, size, MSG_DONTWAIT);
        if (n < 0) {
            syslog(LOG_ERR, "%s:%d: recv on socket failed with errno = %d\n", "dbcom_read_message", 1198, errno);
            return;
        }
        std::string text(reinterpret_cast<const char*>(buf), static_cast<std::size_t>(n));
        syslog(LOG_ERR, "%s:%d: flushing socket: bytes_read = %d msg = %s\n", "dbcom_read_message", 1201,
               static_cast<int>(n), text.c_str());
        if (n == 0)
            return;
    }
}

int read_stream_message(int fd, uint8_t* buf, std::size_t size)
{
    if (dbcom_recv_timed(fd, buf, DBCOM_HEADER_LEN, read_budget_ms) != static_cast<long>(DBCOM_HEADER_LEN))
        return -1;
    dbcom_header hdr = decode_header(buf);
    if (hdr.magic != DBCOM_MAGIC || hdr.op < 1 || hdr.op > 5) {
        syslog(LOG_ERR, "%s:%d: magic num mismatch = %x or invalid dbcom operation = %d\n", "dbcom_read_message", 1194,
               hdr.magic, hdr.op);
        flush_socket(fd, buf, size);
        return -1;
    }
    if (size < DBCOM_HEADER_LEN + hdr.body_len)
        return -1;
    if (hdr.body_len == 0)
        return 1;
    long n = dbcom_recv_timed(fd, buf + DBCOM_HEADER_LEN, hdr.body_len, read_budget_ms);
    if (n != hdr.body_len) {
        syslog(LOG_ERR, "configd: receiving from dbcom socket failed: %d, err: %m\n", static_cast<int>(n));
        return -1;
    }
    return 1;
}

int read_datagram_message(int fd, uint8_t* buf, std::size_t size)
{
    ssize_t n = recv(fd, buf, size, 0);
    if (n < static_cast<ssize_t>(DBCOM_HEADER_LEN))
        return -1;
    uint16_t body_len = get_u16(buf + 4);
    if (body_len != 0 && static_cast<std::size_t>(n) < DBCOM_HEADER_LEN + body_len)
        return -1;
    return 1;
}

}  // namespace

void dbcom_encode_header(const dbcom_header& hdr, uint8_t* out)
{
    out[0] = hdr.kind;
    out[1] = hdr.op;
    put_u16(out + 2, hdr.flags);
    put_u16(out + 4, hdr.body_len);
    put_u16(out + 6, hdr.reserved);
    put_u32(out + 8, hdr.magic);
}

int dbcom_build_request(const dbcom_handle* handle, uint8_t op, uint16_t flags, uint16_t reserved, uint32_t magic,
                        const uint8_t* data, std::size_t len, dbcom_message* msg)
{
    static const std::optional<std::string> none;
    const auto& user = handle ? handle->user : none;
    const auto& addr = handle ? handle->client_addr : none;
    std::size_t items = item_size(user) + item_size(addr);
    msg->clear();
    if (items > DBCOM_MAX_BODY)
        return -2;
    std::size_t room = DBCOM_MAX_BODY - items;
    // A run of messages must make progress.
    if (room == 0 && len > 0)
        return -2;
    std::size_t taken = len <= room ? len : room;
    flags = len <= room ? flags & ~DBCOM_FLAG_MORE : flags | DBCOM_FLAG_MORE;
    // GCOVR_EXCL_START: at most 64 KiB, which overcommit never refuses
    if (!msg->resize(DBCOM_HEADER_LEN + items + taken))
        return -2;
    // GCOVR_EXCL_STOP
    dbcom_header hdr{DBCOM_MSG_REQUEST, op, flags, static_cast<uint16_t>(items + taken), reserved, magic};
    dbcom_encode_header(hdr, msg->data());
    uint8_t* p = msg->data() + DBCOM_HEADER_LEN;
    p += put_item(p, DBCOM_TLV_USER, user);
    p += put_item(p, DBCOM_TLV_ADDR, addr);
    // Without a data pointer the data bytes stay zero.
    if (taken > 0 && data != nullptr)
        std::memcpy(p, data, taken);
    return static_cast<int>(taken);
}

int dbcom_build_response(uint8_t op, uint16_t flags, uint16_t reserved, uint32_t magic, const uint8_t* data,
                         std::size_t len, dbcom_message* msg)
{
    msg->clear();
    std::size_t taken = len > DBCOM_MAX_BODY ? DBCOM_MAX_BODY : len;
    flags = len > DBCOM_MAX_BODY ? flags | DBCOM_FLAG_MORE : flags & ~DBCOM_FLAG_MORE;
    // GCOVR_EXCL_START: at most 64 KiB, which overcommit never refuses
    if (!msg->resize(DBCOM_HEADER_LEN + taken))
        return -2;
    // GCOVR_EXCL_STOP
    dbcom_header hdr{DBCOM_MSG_RESPONSE, op, flags, static_cast<uint16_t>(taken), reserved, magic};
    dbcom_encode_header(hdr, msg->data());
    if (taken > 0 && data != nullptr)
        std::memcpy(msg->data() + DBCOM_HEADER_LEN, data, taken);
    return static_cast<int>(taken);
}

int dbcom_parse_header(std::span<const uint8_t> msg, dbcom_header* hdr, std::span<const uint8_t>* body)
{
    if (msg.size() < DBCOM_HEADER_LEN)
        return -1;
    dbcom_header h = decode_header(msg.data());
    if (msg.size() - DBCOM_HEADER_LEN < h.body_len)
        return -1;
    if (hdr)
        *hdr = h;
    if (body)
        *body = h.body_len ? msg.subspan(DBCOM_HEADER_LEN, h.body_len) : std::span<const uint8_t>();
    return h.body_len;
}

int dbcom_parse_response(std::span<const uint8_t> msg, dbcom_header* hdr, std::span<const uint8_t>* body,
                         bool* not_response)
{
    dbcom_header h;
    int len = dbcom_parse_header(msg, &h, body);
    if (len < 0)
        return -1;
    if (hdr)
        *hdr = h;
    if (not_response)
        *not_response = h.kind != DBCOM_MSG_RESPONSE;
    return len;
}

int dbcom_parse_request(std::span<const uint8_t> msg, dbcom_request_view* out)
{
    dbcom_request_view view;
    std::span<const uint8_t> body;
    if (dbcom_parse_header(msg, &view.header, &body) < 0)
        return -1;
    uint8_t kind = view.header.kind;
    if (kind != DBCOM_MSG_REQUEST && kind != DBCOM_MSG_REQUEST_EXT)
        return -1;
    std::size_t pos = 0;
    if (!take_item(body, &pos, &view.user) || !take_item(body, &pos, &view.addr))
        return -1;
    if (kind == DBCOM_MSG_REQUEST_EXT) {
        if (body.size() - pos < DBCOM_TRAILER_LEN)
            return -1;
        view.trailer_op = body[pos];
        std::memcpy(&view.trailer_value, &body[pos + 4], sizeof view.trailer_value);
        pos += DBCOM_TRAILER_LEN;
    }
    if (pos < body.size())
        view.data = body.subspan(pos);
    *out = view;
    return 0;
}

int dbcom_read_message(int fd, int transport, uint8_t* buf, std::size_t size)
{
    if (size < DBCOM_HEADER_LEN || transport < 1 || transport > 5)
        return -1;
    if (is_stream(transport))
        return read_stream_message(fd, buf, size);
    return read_datagram_message(fd, buf, size);
}

long dbcom_recv_timed(int fd, uint8_t* buf, std::size_t count, int budget_ms)
{
    if (fd < 0 || fd >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }
    fd_set readset;
    FD_ZERO(&readset);
    FD_SET(fd, &readset);
    // One timeout for every wait: select lowers it by the time spent, so the
    // budget covers the whole read.
    timeval timeout{0, static_cast<suseconds_t>(budget_ms) * 1000};
    std::size_t received = 0;
    while (received < count) {
        fd_set ready = readset;
        int rc = select(fd + 1, &ready, nullptr, nullptr, &timeout);
        if (rc == 0)
            return 0;
        if (rc < 0)
            return -1;
        ssize_t n = recv(fd, buf + received, count - received, MSG_DONTWAIT);
        if (n == 0)
            return 0;
        if (n < 0)
            return -1;
        received += static_cast<std::size_t>(n);
    }
    return static_cast<long>(received);
}
