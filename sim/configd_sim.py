#!/usr/bin/python3
"""A simulated configuration daemon (configd) for end-to-end tests.

Serves the get side of configd's request/response protocol on a unix stream
socket from a key -> value table, and can be told at run time to misbehave
(empty answers, diagnostics, failures, answers in parts, stalls, closed
connections). Every request is recorded with its key and arrival time.

Standalone use:  python3 sim/configd_sim.py SOCKET KEY=VALUE...
"""

import collections
import os
import select
import signal
import socket
import struct
import sys
import threading
import time

KIND_REQUEST = 1
KIND_RESPONSE = 2
KIND_REQUEST_EXT = 4

OP_GET = 1
OP_GET_ONE = 2
OP_LIST = 4

FLAG_FAIL = 0x0001
FLAG_DIAGNOSTIC = 0x0002
FLAG_MORE = 0x1000

MAGIC = 0xA5A5A5A5
HEADER = struct.Struct(">BBHHHI")  # kind, op, flags, body_len, reserved, magic
ITEM_HEAD = struct.Struct(">BBH")  # type, 0, len
TRAILER_LEN = 8
MAX_BODY = 65535

Request = collections.namedtuple("Request", "key time")


class ProtocolError(Exception):
    """A request that does not follow the message format."""


def escape_key(key):
    """Key part of an answer line: space and line feed get a backslash."""
    return key.replace(" ", "\\ ").replace("\n", "\\\n")


def escape_value(value):
    """Value part of an answer line: space, line feed, backslash and ':'."""
    out = []
    for ch in value:
        if ch in " \n\\:":
            out.append("\\")
        out.append(ch)
    return "".join(out)


def answer_line(key, value):
    """The escaped "key value\\n" line for one key."""
    return "%s %s\n" % (escape_key(key), escape_value(value))


def unescape_request_key(text):
    """A request line's key: every backslash-space stands for a space."""
    return text.replace("\\ ", " ")


def request_keys(data):
    """Keys named by the data of a get request (one per line, NUL ends)."""
    text = data.split(b"\0", 1)[0].decode("utf-8", "replace")
    return [unescape_request_key(line) for line in text.split("\n") if line]


def response_messages(op, flags, body):
    """Kind-2 messages carrying body; long bodies go out in 65535-byte parts."""
    chunks = [body[i:i + MAX_BODY] for i in range(0, len(body), MAX_BODY)] or [b""]
    out = []
    for n, chunk in enumerate(chunks):
        more = FLAG_MORE if n < len(chunks) - 1 else 0
        out.append(HEADER.pack(KIND_RESPONSE, op, (flags & ~FLAG_MORE) | more, len(chunk), 0, MAGIC) + chunk)
    return out


def parse_request(msg):
    """Splits one request message into a dict of its header fields and parts."""
    if len(msg) < HEADER.size:
        raise ProtocolError("short header")
    kind, op, flags, body_len, _reserved, magic = HEADER.unpack_from(msg)
    if magic != MAGIC:
        raise ProtocolError("magic %#x" % magic)
    if kind not in (KIND_REQUEST, KIND_REQUEST_EXT):
        raise ProtocolError("kind %d" % kind)
    body = msg[HEADER.size:HEADER.size + body_len]
    if len(body) != body_len:
        raise ProtocolError("short body")
    items = []
    pos = 0
    for _ in range(2):
        if len(body) - pos < ITEM_HEAD.size:
            raise ProtocolError("short item")
        item_type, _zero, length = ITEM_HEAD.unpack_from(body, pos)
        pos += ITEM_HEAD.size
        if len(body) - pos < length:
            raise ProtocolError("item runs past the body")
        items.append((item_type, body[pos:pos + length]))
        pos += length
    if kind == KIND_REQUEST_EXT:
        pos += TRAILER_LEN
        if pos > len(body):
            raise ProtocolError("short trailer")
    return {"kind": kind, "op": op, "flags": flags, "user": items[0][1], "addr": items[1][1], "data": body[pos:]}


def recv_exact(conn, count):
    """Exactly count bytes, or None when the peer closed first."""
    buf = b""
    while len(buf) < count:
        try:
            part = conn.recv(count - len(buf))
        except OSError:
            return None
        if not part:
            return None
        buf += part
    return buf


class ConfigdSim:
    """configd's get side on a unix stream socket, one thread per connection."""

    def __init__(self, path, table=None, unknown_key_line=False, clock=None):
        """path: socket to bind; table: key -> value. An unknown key is answered
        with no result text, or with the bare "key\\n" line when
        unknown_key_line is true. clock: an EventClock, which counts every
        thread of this server as part of the sandbox (time stands still while
        one answers)."""
        self.path = path
        self._table = dict(table or {})
        self._unknown_key_line = unknown_key_line
        self._lock = threading.Lock()
        self._cond = threading.Condition(self._lock)
        self._requests = []
        self._mode = ("normal", None)
        self._mode_left = None
        self._listener = None
        self._wake_r, self._wake_w = None, None
        self._threads = []
        self._conns = set()
        self._stopping = False
        self._clock = clock

    # --- life cycle -----------------------------------------------------

    def start(self):
        if os.path.lexists(self.path):
            os.unlink(self.path)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.path)
        self._listener.listen(16)
        self._wake_r, self._wake_w = os.pipe()
        self._stopping = False
        self._spawn(self._accept_loop)
        return self

    def stop(self):
        with self._lock:
            self._stopping = True
            conns = list(self._conns)
        if self._wake_w is not None:
            os.write(self._wake_w, b"x")
        for conn in conns:
            try:
                conn.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        for thread in list(self._threads):
            thread.join(timeout=10)
        self._threads = []
        if self._listener is not None:
            self._listener.close()
            self._listener = None
        for fd in (self._wake_r, self._wake_w):
            if fd is not None:
                os.close(fd)
        self._wake_r = self._wake_w = None
        if os.path.lexists(self.path):
            os.unlink(self.path)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    # --- run-time control -----------------------------------------------

    def set_value(self, key, value):
        """Changes a key's value; None removes the key."""
        with self._lock:
            if value is None:
                self._table.pop(key, None)
            else:
                self._table[key] = value

    def answer_normally(self):
        self._set_mode("normal", None, None)

    def answer_empty(self, times=None):
        """Answers with no result text at all."""
        self._set_mode("empty", None, times)

    def answer_diagnostic(self, text, times=None, with_value=False):
        """Answers with text flagged 0x0002 (a diagnostic, not a failure),
        followed by the normal answer when with_value is true."""
        self._set_mode("diagnostic", (text, with_value), times)

    def answer_failure(self, text, times=None):
        """Answers with text flagged 0x0001 (the operation failed)."""
        self._set_mode("failure", text, times)

    def split_answer(self, parts, times=None):
        """Sends the normal answer in `parts` messages, all but the last 0x1000."""
        self._set_mode("split", max(1, int(parts)), times)

    def stall(self, times=None):
        """Reads requests and never answers them."""
        self._set_mode("stall", None, times)

    def close_after_request(self, times=None):
        """Closes the connection after reading a request, without answering."""
        self._set_mode("close", None, times)

    def requests(self):
        """Every request so far as (key, time) pairs, oldest first."""
        with self._lock:
            return list(self._requests)

    def wait_for_requests(self, count, timeout):
        """Waits until `count` requests have arrived; True when they did."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while len(self._requests) < count:
                left = deadline - time.monotonic()
                if left <= 0:
                    return False
                self._cond.wait(left)
            return True

    # --- internals --------------------------------------------------------

    def _set_mode(self, name, arg, times):
        """A behaviour for the next `times` requests (all of them when None)."""
        with self._lock:
            self._mode = (name, arg)
            self._mode_left = times

    def _take_mode(self):
        with self._lock:
            mode = self._mode
            if self._mode_left is not None:
                self._mode_left -= 1
                if self._mode_left <= 0:
                    self._mode, self._mode_left = ("normal", None), None
            return mode

    def _spawn(self, target, *args):
        thread = threading.Thread(target=target, args=args, daemon=True)
        self._threads.append(thread)
        if self._clock:
            self._clock.enlist(thread)
        thread.start()

    def _accept_loop(self):
        while True:
            ready, _, _ = select.select([self._listener, self._wake_r], [], [])
            if self._wake_r in ready:
                return
            try:
                conn, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                if self._stopping:
                    conn.close()
                    return
                self._conns.add(conn)
            self._spawn(self._serve, conn)

    def _read_request(self, conn):
        """One request run (messages until one without 0x1000), or None."""
        data = b""
        while True:
            head = recv_exact(conn, HEADER.size)
            if head is None:
                return None
            body_len = HEADER.unpack(head)[3]
            body = recv_exact(conn, body_len) if body_len else b""
            if body is None:
                return None
            req = parse_request(head + body)
            data += req["data"]
            if not req["flags"] & FLAG_MORE:
                req["data"] = data
                return req

    def _serve(self, conn):
        try:
            while True:
                try:
                    req = self._read_request(conn)
                except ProtocolError:
                    return
                if req is None:
                    return
                if not self._answer(conn, req):
                    return
        finally:
            with self._lock:
                self._conns.discard(conn)
            conn.close()

    def _record(self, keys):
        now = time.time()
        with self._cond:
            for key in keys or [""]:
                self._requests.append(Request(key, now))
            self._cond.notify_all()

    def _result_text(self, op, data):
        with self._lock:
            table = dict(self._table)
        if op == OP_LIST:
            pattern = data.split(b"\0", 1)[0].decode("utf-8", "replace").strip("\n")
            prefix = pattern[:-1] if pattern.endswith("*") else pattern
            return "".join(answer_line(k, v) for k, v in sorted(table.items()) if k.startswith(prefix))
        lines = []
        for key in request_keys(data):
            if key in table:
                lines.append(answer_line(key, table[key]))
            elif self._unknown_key_line:
                lines.append(escape_key(key) + "\n")
        return "".join(lines)

    def _messages_for(self, req, mode):
        op = req["op"]
        name, arg = mode
        if op not in (OP_GET, OP_GET_ONE, OP_LIST):
            return response_messages(op, FLAG_FAIL, b"operation not supported\n")
        result = self._result_text(op, req["data"]).encode()
        if name == "empty":
            return response_messages(op, 0, b"")
        if name == "failure":
            return response_messages(op, FLAG_FAIL, arg.encode())
        if name == "diagnostic":
            text, with_value = arg
            if not with_value:
                return response_messages(op, FLAG_DIAGNOSTIC, text.encode())
            return response_messages(op, FLAG_DIAGNOSTIC | FLAG_MORE, text.encode()) + response_messages(op, 0, result)
        if name == "split":
            size = -(-len(result) // arg) if result else 0
            parts = [result[i * size:(i + 1) * size] for i in range(arg)]
            return [
                HEADER.pack(KIND_RESPONSE, op, FLAG_MORE if n < arg - 1 else 0, len(p), 0, MAGIC) + p
                for n, p in enumerate(parts)
            ]
        return response_messages(op, 0, result)

    def _answer(self, conn, req):
        """Answers one request; False when the connection is to be closed."""
        keys = request_keys(req["data"]) if req["op"] in (OP_GET, OP_GET_ONE) else []
        self._record(keys)
        mode = self._take_mode()
        if mode[0] == "close":
            return False
        if mode[0] == "stall":
            return True
        try:
            for msg in self._messages_for(req, mode):
                conn.sendall(msg)
        except OSError:
            return False
        return True


def main(argv):
    if len(argv) < 2:
        sys.stderr.write("usage: %s SOCKET KEY=VALUE...\n" % argv[0])
        return 2
    table = {}
    for arg in argv[2:]:
        key, sep, value = arg.partition("=")
        if not sep:
            sys.stderr.write("not KEY=VALUE: %s\n" % arg)
            return 2
        table[key] = value
    sim = ConfigdSim(argv[1], table).start()
    done = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: done.set())
    print("configd_sim: serving %d keys on %s" % (len(table), argv[1]), flush=True)
    try:
        while not done.wait(1.0):
            pass
    finally:
        sim.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
