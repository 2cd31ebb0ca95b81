#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets into fuzz/corpus/<target>/.

Each seed is a valid record or program (docs/remote_records.md for the
records; fuzz/entries.h for what each target reads). Seeds are small: the
fuzzer grows its own working copy from them. Run from anywhere; files are
overwritten, and seeds found by fuzzing (named regression-*) are left alone.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))

# Handle words of the client-command target: "KTHD" in the upper half, the
# index into ServedProcess::Handles() in the lower.
NODES = ["", "publishers", "publishers/p", "publishers/p/m", "publishers/p/m2",
         "publishers/p/pm", "publishers/p/probe_types/type", "consumers", "consumers/k",
         "conduits", "conduits/local", "methods", "methods/ClientCommandMethod",
         "methods/echo", "tree", "tree/a/b", "tree/a/b/c", "peers", "n" * 300,
         "well-known command handle"]


# Between two requests of one client-command input.
SEPARATOR = b"\xfe\xffRQ"


def h(node):
    return struct.pack("<II", NODES.index(node), 0x4B544844)


def words(op, *values):
    return struct.pack("<I", op) + b"".join(
        v if isinstance(v, bytes) else struct.pack("<Q", v) for v in values)


def text_request(op, a, text):
    return words(op, a) + text + b"\0"


def payload_request(op, a, payload):
    return words(op, a) + struct.pack("<Q", len(payload)) + payload


def client_command():
    root, m, k, local = h(""), h("publishers/p/m"), h("consumers/k"), h("conduits/local")
    inner = text_request(2, root, b"")
    return {
        "get_path": text_request(1, root, b"publishers/p/m"),
        "get_path_from_zero": text_request(1, 0, b"tree/a/b/c"),
        "get_path_rest": text_request(1, h("tree"), b"a//b\\c/missing"),
        "child_count_root": text_request(2, root, b""),
        "children_root": words(3, root, 3),
        "children_of_publisher": words(3, h("publishers/p"), 4),
        "resource_info": words(4, m),
        "resource_info_long_name": words(4, h("n" * 300)),
        "descriptor": words(5, m),
        "descriptor_probe_metric": words(5, h("publishers/p/pm")),
        "subscribe": words(6, k, local, m),
        "subscribe_other_order": words(6, k, m, local),
        "unsubscribe": words(7, k, local, m),
        "flush": words(8, local),
        "subscribe_flush_unsubscribe": SEPARATOR.join([
            words(6, k, local, m), words(6, k, local, h("publishers/p/m2")), words(8, local),
            words(3, m, 1), words(7, k, local, m), words(8, local), words(6, k, local, m)]),
        "call_echo": payload_request(9, h("methods/echo"), b"hello"),
        "call_command_nested": payload_request(9, h("well-known command handle"),
                                               payload_request(9, h("methods/ClientCommandMethod"),
                                                               inner)),
    }


def proxy_buffer():
    return {
        "text_request": text_request(1, 7, b"a/b"),
        "three_words": words(6, 1, 2, 3),
        "payload_request": payload_request(9, 5, b"xyz"),
        "payload_past_record": words(9, 5) + struct.pack("<Q", 4),
        "reply": struct.pack("<I", 10) + b"data",
        "short": struct.pack("<II", 3, 1),
    }


def blob(id_=0xFFFFFFFF, flags=0, list1=(), word1=0, set_ids=(), word2=0, byte1=0,
         texts=(b"",) * 6, word3=0, block=(0, 0), byte3=0, word4=0xFFFFFFFF,
         word5=0xFFFFFFFF):
    def lst(values):
        return struct.pack("<I", len(values)) + b"".join(struct.pack("<I", v) for v in values)
    return (struct.pack("<II", id_, flags) + lst(list1) + struct.pack("<I", word1) +
            lst(set_ids) + struct.pack("<IB", word2, byte1) +
            b"".join(t + b"\0" for t in texts[:6]) + struct.pack("<I", word3) +
            texts[5] + b"\0" + struct.pack("<BQQBII", 0, block[0], block[1], byte3, word4,
                                           word5))


def descriptor_blob():
    full = blob(17, 0x104, (1, 2), 3, (4,), 5, 6,
                (b"m", b"one", b"two", b"three", b"four", b"five"), 7, (8, 9), 10, 11, 12)
    return {
        "default": blob(texts=(b"",) * 6)[:62],
        "full": full,
        "ends_early": full[:40],
        "trailing_bytes": full + b"\x01\x02\x03",
    }


def step(op, flags, text):
    return struct.pack("<BBB", op, flags, len(text)) + text


def path():
    create, unlisted, no_entry = 1, 2, 4
    return {
        "create_then_find": step(0, create, b"a/b/c") + step(1, 0, b"a/b/c/d"),
        "separators": step(0, create, b"\\a//b\\\\c/") + step(3, 0, b"a/b/c") +
                      step(0, create, b"//lead") + step(1, 0, b".."),
        "named_with_nul": step(2, create, b"x\0y") + step(0, 0, b"x"),
        "long_name": step(8, create, b"n") + step(8 | 1, 0, b"n"),
        "long_name_after_path": step(8, create | unlisted, b"seg/x\\"),
        "rename_and_remove": step(0, create, b"a/b") + step(6, 0, b"c") + step(0, 0, b"a") +
                             step(4, 0, b"") + step(0, create | no_entry, b"z") + step(7, 0, b"") +
                             step(5, 0, b"") + step(0, 0, b"a") + step(7, 0, b""),
    }


def main():
    for target, seeds in [("client_command", client_command()), ("proxy_buffer", proxy_buffer()),
                          ("descriptor_blob", descriptor_blob()), ("path", path())]:
        folder = os.path.join(HERE, "corpus", target)
        os.makedirs(folder, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(folder, name), "wb") as out:
                out.write(data)


if __name__ == "__main__":
    main()
