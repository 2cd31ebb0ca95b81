#!/usr/bin/env python3
"""Writes the seed corpus of the network transport's fuzz targets into
fuzz/corpus/<target>/ (fuzz/net_entries.h says what each target reads; the
frames are those of docs/net_frames.md). Run from anywhere; files are
overwritten, and seeds found by fuzzing (named regression-*) are left alone.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
COMMAND = 0x00ABBAFABBAABBAF


def frame(kind, body, correlation=0, remaining=0, version=1, magic=0x464E544B):
    return struct.pack("<IBBHQII", magic, version, kind, 0, correlation, remaining,
                       len(body)) + body


def hello(kind, guid, name):
    return frame(kind, struct.pack("<IIQH", guid, 1, 0x1234, len(name)) + name)


def request(record, correlation=7, remaining=2000):
    return frame(3, struct.pack("<QI", COMMAND, len(record)) + record, correlation, remaining)


def reply(status, records, correlation=7):
    body = struct.pack("<II", status, len(records))
    for record in records:
        body += struct.pack("<I", len(record)) + record
    return frame(4, body, correlation)


NET_FRAME = {
    "hello": hello(1, 0xA1B2C3D4, b"host-17"),
    "welcome": hello(2, 0x01020304, b""),
    "request_get_path": request(struct.pack("<IQ", 1, 0) + b"publishers\0"),
    "request_resource_info": request(struct.pack("<IQ", 4, 0)),
    "request_doc_example": request(b"xyz", 0x0102, 200),
    "reply_two_records": reply(4, [b"q", b""], 0x0102),
    "reply_empty": reply(0, []),
    "reply_trailing_byte": frame(4, struct.pack("<III", 0, 1, 0) + b"!"),
    "heartbeat": frame(5, b""),
    "bye": frame(6, struct.pack("<IH", 1, 8) + b"shutdown"),
    "bad_reply_count": frame(4, struct.pack("<II", 0, 0xFFFFFFFF)),
    "bad_version": frame(5, b"", version=2),
    "bad_magic": frame(5, b"", magic=0x11223344),
    "short": b"KTNF\x01",
}


def record(op, *words, tail=b""):
    return struct.pack("<I", op) + b"".join(struct.pack("<Q", w) for w in words) + tail


NET_SERVE = {
    "get_path": request(record(1, 0, tail=b"publishers/p\0")),
    "get_path_no_nul": request(record(1, 0, tail=b"publishers")),
    "child_count_root": request(record(2, 0, tail=b"\0")),
    "children_root": request(record(3, 0, tail=struct.pack("<I", 4))),
    "children_huge_count": request(record(3, 0, tail=struct.pack("<I", 0xFFFFFFFF))),
    "resource_info_root": request(record(4, 0)),
    "resource_info_short": request(record(4)),
    "descriptor_unknown": request(record(5, 0x1234)),
    "flush": request(record(8, 0)),
    "call_command": request(record(9, COMMAND, 12, tail=record(4, 0))),
    "op_zero": request(record(0, 0)),
    "op_ten": request(record(10, 0)),
}


def write(target, seeds):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as out:
            out.write(data)


if __name__ == "__main__":
    write("net_frame", NET_FRAME)
    write("net_serve", NET_SERVE)
