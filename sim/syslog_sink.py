"""The sandbox's /dev/log: a unix datagram socket that collects the daemon's
syslog lines, kept in memory and appended to a file."""

import socket
import threading
from pathlib import Path


class SyslogSink:
    def __init__(self, sock_path: str, keep_file: Path):
        self.sock_path = sock_path
        self.keep_file = keep_file
        self._sock: socket.socket | None = None
        self._thread: threading.Thread | None = None
        self._stop = threading.Event()
        self._lines: list[str] = []
        self._lock = threading.Lock()

    def start(self) -> None:
        """Binds the socket; lines are read on a thread of their own, so a
        talkative daemon never blocks on a full socket."""
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(self.sock_path)
        sock.settimeout(0.1)
        self._sock = sock
        self._thread = threading.Thread(target=self._collect, name="syslog", daemon=True)
        self._thread.start()

    def stop(self) -> None:
        if self._thread:
            self._stop.set()
            self._thread.join(2)
            self._thread = None
        if self._sock:
            self._sock.close()
            self._sock = None

    def lines(self) -> list[str]:
        """Every datagram received so far, as text, headers included."""
        with self._lock:
            return list(self._lines)

    def _collect(self) -> None:
        with open(self.keep_file, "a", encoding="utf-8", errors="replace") as keep:
            while not self._stop.is_set():
                try:
                    data = self._sock.recv(65536)
                except socket.timeout:
                    continue
                except OSError:
                    return
                line = data.decode("utf-8", "replace")
                with self._lock:
                    self._lines.append(line)
                keep.write(line.rstrip("\n") + "\n")
                keep.flush()
