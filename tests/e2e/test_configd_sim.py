"""The simulated configd against requests built by hand from the message
format, byte for byte, so that a mistake shared with the daemon's client
shows: headers, escaping, the answer kinds and the ways it misbehaves."""

import os
import socket

import pytest

from sim.configd_sim import ConfigdSim


def request(data, flags=0, magic=b"\xa5\xa5\xa5\xa5"):
    """A get request with the user item "root", an absent address item and data."""
    body = b"\x01\x00\x00\x04root\0\0\0\0" + data
    return b"\x01\x01" + flags.to_bytes(2, "big") + len(body).to_bytes(2, "big") + b"\0\0" + magic + body


def read_reply(conn):
    """(kind, op, flags, body) of the next message, or None when closed."""
    head = b""
    while len(head) < 12:
        part = conn.recv(12 - len(head))
        if not part:
            return None
        head += part
    assert head[8:12] == b"\xa5\xa5\xa5\xa5", "responses echo the magic"
    body = b""
    while len(body) < int.from_bytes(head[4:6], "big"):
        part = conn.recv(int.from_bytes(head[4:6], "big") - len(body))
        assert part, "connection closed inside a body"
        body += part
    return head[0], head[1], int.from_bytes(head[2:4], "big"), body


@pytest.fixture
def sim(tmp_path):
    s = ConfigdSim(str(tmp_path / "confd_get"), {"a b": "x y:z", "k": "1", "k" * 70000: "v"}).start()
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


@pytest.mark.parametrize("setup, key, flags, answer", [
    (lambda s: None, b"a\\ b", [0], b"a\\ b x\\ y\\:z\n"),
    (lambda s: None, b"zz", [0], b""),
    (lambda s: s.answer_failure("denied\n"), b"k", [0x0001], b"denied\n"),
    (lambda s: s.answer_diagnostic("note\n"), b"k", [0x0002], b"note\n"),
    (lambda s: s.split_answer(3), b"k" * 70000, [0x1000, 0x1000, 0], b"k" * 70000 + b" v\n"),
], ids=["escaped", "unknown key", "failure", "diagnostic", "split long request and answer"])
def test_configd_sim_answers(sim, conn, setup, key, flags, answer):
    """A request is answered with one escaped line, nothing for an unknown key, a flagged failure or diagnostic, or
    0x1000 parts; a request sent in two messages, the first flagged 0x1000, is joined."""
    setup(sim)
    data = key + b"\n\0"
    conn.sendall(request(data[:65523], flags=0x1000) + request(data[65523:]) if len(data) > 65523 else request(data))
    got = [read_reply(conn) for _ in flags]
    assert [g[:3] for g in got] == [(2, 1, f) for f in flags]
    assert b"".join(g[3] for g in got) == answer
    assert [k for k, _ in sim.requests()] == [key.decode().replace("\\ ", " ")]


def test_configd_sim_bad_magic_stall_and_close(sim, conn):
    """A stalled request is never answered and the next one is; close_after_request hangs up, and so does a request
    with another magic."""
    sim.stall(times=1)
    conn.sendall(request(b"k\n\0"))
    assert sim.wait_for_requests(1, 10)
    sim.set_value("k", "2")
    conn.sendall(request(b"k\n\0"))
    assert read_reply(conn) == (2, 1, 0, b"k 2\n"), "the stalled request stays unanswered"
    sim.close_after_request(times=1)
    conn.sendall(request(b"k\n\0"))
    assert read_reply(conn) is None
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as other:
        other.settimeout(10)
        other.connect(sim.path)
        other.sendall(request(b"k\n\0", magic=b"\0\0\0\0"))
        assert read_reply(other) is None
