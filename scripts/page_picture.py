"""The picture of the page in the README, which knows the words that the page had then."""

import struct
import zlib
from pathlib import Path

PICTURE = Path(__file__).resolve().parent.parent / "docs/page.png"

# The page's own words: what a picture of it shows, whatever is counted.
WORDS = """
return [...document.querySelectorAll('h1, th[scope=colgroup], thead button, label, footer a')]
  .filter((element) => element.checkVisibility())
  .map((element) => element.textContent.trim()).join('|');
"""
KEYWORD = b"Comment"


def words_in(picture):
    """What the page's words were when the picture was taken; it contains them as a comment."""
    data = picture.read_bytes()
    at = 8
    while at < len(data):
        length, kind = struct.unpack_from(">I4s", data, at)
        body = data[at + 8:at + 8 + length]
        if kind == b"iTXt" and body.startswith(KEYWORD + b"\0"):
            return body[len(KEYWORD) + 5:].decode()
        at += length + 12
    return None


def with_words(png, words):
    body = KEYWORD + b"\0" * 5 + words.encode()
    chunk = b"iTXt" + body
    after_header = 8 + 25
    return (png[:after_header] + struct.pack(">I", len(body)) + chunk
            + struct.pack(">I", zlib.crc32(chunk)) + png[after_header:])
