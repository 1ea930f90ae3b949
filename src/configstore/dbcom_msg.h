// The layers of the configd client below dbcom.h: the binary message format,
// the channels and the request/response transaction, and the text helpers of
// the get operation. Shared by the library's own files and its unit tests.
//
// Nothing here is re-entrant where it touches a socket: transactions share
// process-wide buffers, so the whole process runs at most one at a time.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/files.h"
#include "base/growable.h"
#include "base/paths.h"
#include "configstore/dbcom.h"

// ---------------------------------------------------------------------------
// Message format
// ---------------------------------------------------------------------------

inline constexpr uint8_t DBCOM_MSG_REQUEST = 1;
inline constexpr uint8_t DBCOM_MSG_RESPONSE = 2;
inline constexpr uint8_t DBCOM_MSG_REQUEST_EXT = 4;

inline constexpr uint8_t DBCOM_OP_GET = 1;
inline constexpr uint8_t DBCOM_OP_SET = 3;
inline constexpr uint8_t DBCOM_OP_LIST = 4;

inline constexpr uint16_t DBCOM_FLAG_MORE = 0x1000;
inline constexpr uint16_t DBCOM_FLAG_TEXT = 0x0007;
inline constexpr uint16_t DBCOM_FLAG_FAIL = 0x0001;

inline constexpr uint8_t DBCOM_TLV_USER = 1;
inline constexpr uint8_t DBCOM_TLV_ADDR = 3;

inline constexpr uint32_t DBCOM_MAGIC = 0xA5A5A5A5;

inline constexpr std::size_t DBCOM_HEADER_LEN = 12;
inline constexpr std::size_t DBCOM_ITEM_HEAD_LEN = 4;
inline constexpr std::size_t DBCOM_TRAILER_LEN = 8;
inline constexpr std::size_t DBCOM_MAX_BODY = 65535;
inline constexpr std::size_t DBCOM_MAX_MSG = DBCOM_HEADER_LEN + DBCOM_MAX_BODY;  // 65547

// The 12-byte message header, fields in host order. On the wire every field
// is big-endian at the offsets below; encode and decode with the functions
// of this header, never by copying the struct.
struct dbcom_header {
    uint8_t kind = 0;       // offset 0
    uint8_t op = 0;         // offset 1
    uint16_t flags = 0;     // offset 2
    uint16_t body_len = 0;  // offset 4
    uint16_t reserved = 0;  // offset 6
    uint32_t magic = 0;     // offset 8
};
static_assert(sizeof(dbcom_header) == DBCOM_HEADER_LEN);
static_assert(offsetof(dbcom_header, op) == 1 && offsetof(dbcom_header, flags) == 2);
static_assert(offsetof(dbcom_header, body_len) == 4 && offsetof(dbcom_header, reserved) == 6);
static_assert(offsetof(dbcom_header, magic) == 8);

// One message as built for sending: a single heap block.
using dbcom_message = growable_array<uint8_t>;

// Writes `hdr` in wire order into out[0..11].
void dbcom_encode_header(const dbcom_header& hdr, uint8_t* out);

// Builds one kind-1 request carrying the handle's user and address items
// (a null handle sends both as absent) and as much of `data` as fits; sets
// DBCOM_FLAG_MORE when not all of it did. Returns the number of data bytes
// placed in the message, or -2 when it cannot be built (out of memory, or
// items too long to leave room for data); `msg` then is empty. A null `data`
// with a length places that many zero bytes.
int dbcom_build_request(const dbcom_handle* handle, uint8_t op, uint16_t flags, uint16_t reserved, uint32_t magic,
                        const uint8_t* data, std::size_t len, dbcom_message* msg);

// The kind-2 counterpart: at most 65535 data bytes (zero bytes for a null
// `data`), DBCOM_FLAG_MORE when more remain. Returns the data bytes placed,
// or -2 (out of memory).
int dbcom_build_response(uint8_t op, uint16_t flags, uint16_t reserved, uint32_t magic, const uint8_t* data,
                         std::size_t len, dbcom_message* msg);

// Decodes the header of `msg` into `hdr` and points `body` at the body
// (empty when body_len is 0); either output may be null. Returns body_len,
// or -1 when the message is shorter than its header or its announced body.
int dbcom_parse_header(std::span<const uint8_t> msg, dbcom_header* hdr, std::span<const uint8_t>* body);

// dbcom_parse_header that also sets *not_response (when given) to whether
// the kind differs from 2.
int dbcom_parse_response(std::span<const uint8_t> msg, dbcom_header* hdr, std::span<const uint8_t>* body,
                         bool* not_response);

struct dbcom_item {
    uint8_t type = 0;
    uint16_t len = 0;
    std::span<const uint8_t> value;
};

struct dbcom_request_view {
    dbcom_header header;
    dbcom_item user;
    dbcom_item addr;
    uint8_t trailer_op = 0;         // kind 4 only
    uint32_t trailer_value = 0;     // kind 4 only, in the sender's byte order
    std::span<const uint8_t> data;  // empty when nothing follows the items
};

// The server side's decoder of a kind-1 or kind-4 request. Returns 0, or -1
// for any other kind or when an item or the trailer runs past the body.
int dbcom_parse_request(std::span<const uint8_t> msg, dbcom_request_view* out);

// Reads one whole message (header and body) from `fd` into buf[0..size).
// Streams (transports 1, 3, 5) check magic and op and drain the socket on a
// bad header; datagrams (2, 4) only check lengths. Returns 1 or -1. Errors
// go to syslog.
int dbcom_read_message(int fd, int transport, uint8_t* buf, std::size_t size);

// Reads exactly `count` bytes within `budget_ms` for the whole read. Returns
// the count read (the full count on success), 0 when the budget ran out or
// the peer closed, -1 on error.
long dbcom_recv_timed(int fd, uint8_t* buf, std::size_t count, int budget_ms);

// ---------------------------------------------------------------------------
// Channels and transaction
// ---------------------------------------------------------------------------

// Seconds a transaction waits for each response. 300 in the daemon; only
// unit tests lower it.
extern int dbcom_response_wait;

// A socket address owned by the handle, with its length.
struct dbcom_addr {
    sockaddr_storage storage{};
    socklen_t len = 0;
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

struct dbcom_channel {
    int open = 0;                             // 1 while fd is usable
    std::optional<dbcom_addr> server_addr;    // where requests go
    unique_fd fd;                             // owned; invalid (-1) while closed
    std::optional<dbcom_addr> local_un_addr;  // transport 2: own bound path
    sockaddr_in local_in_addr{};              // transport 4: never filled by dbcom_init
    socklen_t local_addr_len = 0;
};

struct dbcom_handle {
    std::optional<std::string> user;         // item 1 of every request
    std::optional<std::string> client_addr;  // item 2; never set by the daemon
    int protocol = 0;
    dbcom_channel set;  // operations 3 and 5
    dbcom_channel get;  // every other operation
};

inline constexpr int DBCOM_SET_CHANNEL = 1;
inline constexpr int DBCOM_GET_CHANNEL = 0;

// A unix-domain address for `path` (at most 100 characters; longer ones give
// nothing), length path + 3.
std::optional<dbcom_addr> make_un_addr(const char* path);
// An IPv4 address from a host name or dotted text and a service name or port
// number. Nothing when the host cannot be resolved.
std::optional<dbcom_addr> make_in_addr(const char* host, const char* service);
// Splits "host:service" at the first ':' (no ':': all host, empty service).
// Returns 1 when an argument is missing, else 0.
int split_servname(const char* text, std::string* host, std::string* service);

// Sockets with close-on-exec and 64 KiB buffers; invalid on failure. The
// stream helpers only create the socket; the bind helpers bind it (the unix
// one removes a stale file at the path first) and print "bind" via perror on
// failure.
unique_fd make_un_stream_socket(const sockaddr* addr, socklen_t len);
unique_fd make_in_stream_socket(const sockaddr* addr, socklen_t len);
unique_fd bind_unix_domain(const sockaddr* addr, socklen_t len);
unique_fd bind_inet_domain(const sockaddr* addr, socklen_t len);

// Creates or truncates `path`. 0 or -1.
int touch_file(const char* path);

// Append to a growable text, creating it when it is none. The old text is
// kept up to its first NUL; bytes are appended as they are. A null slot or
// text changes nothing.
void str_append(std::optional<std::string>* str, const char* text);
void str_append_bytes(std::optional<std::string>* str, const uint8_t* bytes, std::size_t count);

// Opens channel `which` (DBCOM_SET_CHANNEL or DBCOM_GET_CHANNEL). Returns 0
// when it is usable, 1 on failure with the reason appended to `error`.
int dbcom_connect(dbcom_handle* handle, int which, std::optional<std::string>* error);
// Closes channel `which` (and removes its local socket file); nothing when
// it is not open.
void dbcom_disconnect(dbcom_handle* handle, int which);

// Sends one request of operation `op` carrying data[0..length) and collects
// its responses: result text is appended to `result`, diagnostics to
// `error` (both must start empty). Returns 0, or 1 after closing the channel
// with `result` reset to none. Blocks up to dbcom_response_wait seconds per
// wait for a response.
int dbcom_do_transaction(dbcom_handle* handle, uint8_t op, uint16_t flags, const uint8_t* data, int length,
                         std::optional<std::string>* result, std::optional<std::string>* error);

// Takes in one response of a transaction of operation `op` (msg: what was
// read, header and body): its body goes to `error` when the text flag is
// set (the fail flag also sets *failed), else to `result`. Returns true when
// more parts of the answer are to come, or the message was not for this
// transaction (too short, another operation or magic).
bool dbcom_take_response(std::span<const uint8_t> msg, uint8_t op, std::optional<std::string>* result,
                         std::optional<std::string>* error, bool* failed);

// ---------------------------------------------------------------------------
// Text lines of the get operation
// ---------------------------------------------------------------------------

// `text` with a backslash before every space. Returns 0, or 1 when an
// argument is missing.
int dbcom_escape_spaces(const char* text, std::string* copy);

// Splits an answer line "key value\n" and unescapes both parts. An empty
// part gives nothing. `rest` (when given) points behind the consumed line,
// or nothing when no text follows. Scanning stops at a NUL. Returns 0, or 1
// when the line is missing or memory runs out.
int dbcom_parse_line(const std::string* line, std::optional<std::string>* key, std::optional<std::string>* value,
                     std::optional<std::string_view>* rest);
// The value part of the first line of `line`.
int dbcom_line_value(const std::string* line, std::optional<std::string>* value);

// One request with up to three attempts. A non-empty `text` that does not
// end in a line feed gets a line feed and a NUL appended in place. Returns 0
// as soon as an attempt gives result text (error reset to none), else the
// third attempt's code with the error texts of all attempts.
int dbcom_request(dbcom_handle* handle, uint8_t op, std::string* text, std::optional<std::string>* result,
                  std::optional<std::string>* error);
