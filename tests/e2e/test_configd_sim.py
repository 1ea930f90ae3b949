"""The simulated configd against hand-built requests, byte for byte."""

import os
import socket
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
from configd_sim import ConfigdSim  # noqa: E402


def request(data, op=1, flags=0, user=b"root"):
    """A kind-1 request with a user item, an absent address item and data."""
    body = bytes([1, 0]) + len(user).to_bytes(2, "big") + user + b"\0\0\0\0" + data
    return bytes([1, op]) + flags.to_bytes(2, "big") + len(body).to_bytes(2, "big") + b"\0\0\xa5\xa5\xa5\xa5" + body


def read_reply(conn):
    """(kind, op, flags, body) of the next message, or None when closed."""
    head = b""
    while len(head) < 12:
        part = conn.recv(12 - len(head))
        if not part:
            return None
        head += part
    assert head[8:12] == b"\xa5\xa5\xa5\xa5", "responses echo the magic"
    body_len = int.from_bytes(head[4:6], "big")
    body = b""
    while len(body) < body_len:
        part = conn.recv(body_len - len(body))
        assert part, "connection closed inside a body"
        body += part
    return head[0], head[1], int.from_bytes(head[2:4], "big"), body


@pytest.fixture
def sim(tmp_path):
    s = ConfigdSim(str(tmp_path / "confd_get"), {"a b": "x y:z", "k": "1"}).start()
    yield s
    s.stop()
    assert not os.path.exists(s.path), "stop removes the socket"


@pytest.fixture
def conn(sim):
    c = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    c.settimeout(10)
    c.connect(sim.path)
    yield c
    c.close()


def test_configd_sim_bad_magic_closes_the_connection(conn):
    """A request with another magic ends the connection unanswered."""
    conn.sendall(request(b"k\n\0")[:8] + b"\0\0\0\0" + request(b"k\n\0")[12:])
    assert read_reply(conn) is None


def test_configd_sim_get_answer_bytes(sim, conn):
    """A known key is answered with one escaped line; the request is recorded."""
    conn.sendall(request(b"a\\ b\n\0"))
    assert read_reply(conn) == (2, 1, 0, b"a\\ b x\\ y\\:z\n")
    assert [key for key, _ in sim.requests()] == ["a b"]


@pytest.mark.parametrize(
    "setup, replies",
    [
        (lambda s: None, [(0, b"")]),
        (lambda s: s.answer_failure("denied\n"), [(0x0001, b"denied\n")]),
        (lambda s: s.answer_diagnostic("note\n"), [(0x0002, b"note\n")]),
        (lambda s: s.set_value("zz", "on"), [(0, b"zz on\n")]),
    ],
    ids=["unknown key", "failure", "diagnostic", "changed value"],
)
def test_configd_sim_answer_kinds(sim, conn, setup, replies):
    """Unknown keys get no result text; failures and diagnostics carry their flag."""
    setup(sim)
    conn.sendall(request(b"zz\n\0"))
    for flags, body in replies:
        assert read_reply(conn) == (2, 1, flags, body)


def test_configd_sim_split_answer_and_long_request(sim, conn):
    """Answers split into 0x1000 parts; a request run in two messages is joined."""
    sim.set_value("k" * 70000, "v")
    sim.split_answer(3, times=1)
    key = b"k" * 70000 + b"\n\0"
    first = key[:65523]
    conn.sendall(request(first, flags=0x1000) + request(key[65523:]))
    parts = [read_reply(conn) for _ in range(3)]
    assert [p[2] for p in parts] == [0x1000, 0x1000, 0]
    assert b"".join(p[3] for p in parts) == b"k" * 70000 + b" v\n"
    assert [key for key, _ in sim.requests()] == ["k" * 70000]


def test_configd_sim_stall_then_close(sim, conn):
    """A stalled request is never answered; close_after_request hangs up."""
    sim.stall(times=1)
    conn.sendall(request(b"k\n\0"))
    assert sim.wait_for_requests(1, 10)
    sim.set_value("k", "2")
    conn.sendall(request(b"k\n\0"))
    assert read_reply(conn) == (2, 1, 0, b"k 2\n"), "the stalled request stays unanswered"
    sim.close_after_request()
    conn.sendall(request(b"k\n\0"))
    assert read_reply(conn) is None
    times = [t for _, t in sim.requests()]
    assert len(times) == 3 and times == sorted(times)
