"""A small RGB canvas with a built-in 5x7 bitmap font, saved as PNG with
zlib alone: enough for the report's charts without any image library."""

from __future__ import annotations

import struct
import zlib
from pathlib import Path

# 5x7 glyphs: seven rows, one hex byte per row, bit 4 the leftmost pixel.
FONT = {
    "0": "0E11131519110E", "1": "040C040404040E", "2": "0E11010204081F", "3": "1F02040201110E",
    "4": "02060A121F0202", "5": "1F101E0101110E", "6": "0608101E11110E", "7": "1F010204080808",
    "8": "0E11110E11110E", "9": "0E11110F01020C", "A": "0E11111F111111", "B": "1E11111E11111E",
    "C": "0E11101010110E", "D": "1C12111111121C", "E": "1F10101E10101F", "F": "1F10101E101010",
    "G": "0E11101711110F", "H": "1111111F111111", "I": "0E04040404040E",
    "J": "0702020202120C", "K": "11121418141211", "L": "1010101010101F",
    "M": "111B1515111111", "N": "11111915131111", "O": "0E11111111110E", "P": "1E11111E101010",
    "Q": "0E11111115120D", "R": "1E11111E141211", "S": "0F10100E01011E", "T": "1F040404040404",
    "U": "1111111111110E", "V": "11111111110A04", "W": "1111111515150A",
    "X": "11110A040A1111", "Y": "1111110A040404", "Z": "1F01020408101F", " ": "00000000000000",
    "-": "0000001F000000", ".": "00000000000C0C", "%": "18190204081303", ":": "000C0C000C0C00",
    "/": "00010204081000", "(": "02040808080402", ")": "08040202020408", ",": "000000000C0408",
    "+": "0004041F040400", "=": "00001F001F0000", "*": "0004150E150400", "#": "0A0A1F0A1F0A0A",
}
GLYPH_W, GLYPH_H = 5, 7


class Canvas:
    def __init__(self, width: int, height: int, background=(255, 255, 255)):
        self.width, self.height = width, height
        self.pixels = bytearray(bytes(background) * (width * height))

    def rect(self, x: int, y: int, w: int, h: int, color) -> None:
        """Fills a rectangle, clipped to the canvas."""
        x0, y0 = max(0, x), max(0, y)
        x1, y1 = min(self.width, x + w), min(self.height, y + h)
        if x1 <= x0 or y1 <= y0:
            return
        row = bytes(color) * (x1 - x0)
        for yy in range(y0, y1):
            start = (yy * self.width + x0) * 3
            self.pixels[start:start + len(row)] = row

    def text(self, x: int, y: int, text: str, color=(0, 0, 0), scale: int = 2) -> int:
        """Draws text upper-cased (unknown characters as blanks) with its top
        left corner at (x, y); returns the x just after it."""
        for ch in text.upper():
            rows = bytes.fromhex(FONT.get(ch, FONT[" "]))
            for r, bits in enumerate(rows):
                for c in range(GLYPH_W):
                    if bits & (0x10 >> c):
                        self.rect(x + c * scale, y + r * scale, scale, scale, color)
            x += (GLYPH_W + 1) * scale
        return x

    def save(self, path: str | Path) -> None:
        Path(path).write_bytes(encode_png(self.width, self.height, bytes(self.pixels)))


def text_width(text: str, scale: int = 2) -> int:
    return len(text) * (GLYPH_W + 1) * scale - scale


def encode_png(width: int, height: int, rgb: bytes) -> bytes:
    """An 8-bit RGB PNG of `rgb` (rows top to bottom, 3 bytes a pixel)."""
    stride = width * 3
    raw = b"".join(b"\0" + rgb[y * stride:(y + 1) * stride] for y in range(height))

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")
