#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into fuzz/corpus/<target>/.

Each seed is a named starting point in the input layout that the target's
source describes: real replies framed from the DF1 reply layout, the address
texts hosts write (and the odd ones), the variable lists of a panel. Inputs
that a fuzz run found interesting are added beside them by scripts/fuzz.sh
(minimised, under names starting with "found-"); this script only rewrites the
seeds it owns (names starting with "seed-").

    python3 fuzz/make_seeds.py
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")
DLE = 0x10


def i16(v):
    return struct.pack("<h", v)


def i32(v):
    return struct.pack("<i", v)


def framed(body):
    """DLE ACK DLE STX, the body with each DLE doubled, DLE ETX, block check."""
    out = bytearray(b"\x10\x06\x10\x02")
    for b in body:
        out.append(b)
        if b == DLE:
            out.append(b)
    out += b"\x10\x03"
    out.append((0x100 - (sum(body) & 0xFF)) & 0xFF)
    return bytes(out)


def reply_body(service, payload, tns=0x21, status=0x00):
    head = bytes([0x00, 0x00, 0x4B, 0x00, tns, 0x00, 0x00, 0x00, 0x8A, 0x00,
                  0x00, 0x00, 0x01, 0x00, 0x04, 0x00, service | 0x80, 0x00, status, 0x00])
    return head + payload


def word_read_reply(words):
    return framed(reply_body(0x52, b"\xC3\x00" + b"".join(struct.pack("<H", w) for w in words)))


def real_read_reply(values):
    return framed(reply_body(0x52, b"\xCA\x00" + b"".join(struct.pack("<I", v) for v in values)))


def write_reply(service=0x53):
    return framed(reply_body(service, b""))


# ---------------------------------------------------------------- fuzz_reply --

CYCLIC, WRITE, ONESHOT, WRITE_AND_CYCLIC = 0, 1, 2, 3


def request(kind, data_type, address, count, aux2=0, var_id=0, station=1, tns=0x21,
            retry_limit=2, data=b"", remote=False, multi=False, remote_link=False,
            small=False, host_zeroes_reply_done=False):
    flags = (1 if remote else 0) | (2 if multi else 0) | (4 if remote_link else 0) | \
            (8 if small else 0) | (kind << 4) | (0x40 if host_zeroes_reply_done else 0)
    return bytes([flags, data_type + 1]) + i32(address) + i32(count) + \
        bytes([aux2, var_id, station, tns, retry_limit, len(data)]) + data


def exchange(reply, length_mode=0, delta=0, frame=False, savers=None, learnt=False,
             reply_done=None, length=None):
    control = length_mode | (0x08 if frame else 0) | (0x10 if savers else 0) | \
        (0x20 if learnt else 0) | (0x80 if reply_done is not None else 0)
    long_size = len(reply) > 255
    if long_size:
        control |= 0x40
    out = bytes([control])
    if reply_done is not None:
        out += bytes([reply_done])
    out += bytes([delta])
    out += struct.pack("<H", len(reply)) if long_size else bytes([len(reply)])
    out += reply
    if length_mode == 7:
        out += i32(length)
    if savers:
        data_pos, data_bytes, address, data_type = savers
        out += i32(data_pos) + i32(data_bytes) + i32(address) + bytes([(data_type + 1) % 256])
    return out


def reply_seeds():
    ten = [0x2000 + 0x0101 * (i + 1) for i in range(10)]
    with_dle = [0x0010, 0x1010, 0x1234, 0x0110]
    r10 = word_read_reply(ten)
    seeds = {
        # A cyclic read of N007 elements 0-9: one exchange learns the length,
        # the second stores the words.
        "cyclic-word-read": request(CYCLIC, 3, 0x700, 10) + exchange(r10) + exchange(r10),
        "cyclic-word-read-doubled-dle": request(CYCLIC, 2, 0x300, 4)
        + exchange(word_read_reply(with_dle)) * 2,
        "cyclic-real-read": request(CYCLIC, 4, 0x804, 3)
        + exchange(real_read_reply([0x3FC00000, 0x40100000])) * 2,
        "cyclic-bit-read": request(CYCLIC, 0, 0x70A, 2) + exchange(word_read_reply([0x0008, 0x8000])) * 2,
        "oneshot-word-read": request(ONESHOT, 2, 1802, 5, var_id=4)
        + exchange(word_read_reply([1, 2, 3, 4, 5])) * 2,
        "oneshot-bit-read": request(ONESHOT, 1, 28832, 1, var_id=2)
        + exchange(word_read_reply([0xFFFF])) * 2,
        "write-words": request(WRITE, 3, 1794, 2, aux2=1, var_id=3, data=b"\x34\x12\x10\x00")
        + exchange(write_reply()),
        "write-bit-set": request(WRITE, 1, 28676, 1, aux2=1, data=b"\x01") + exchange(write_reply(0x4E)),
        "write-real": request(WRITE, 4, 2052, 2, aux2=1, data=b"\x00\x00\xC0\x3F") + exchange(write_reply()),
        "write-then-cyclic": request(WRITE_AND_CYCLIC, 3, 0x700, 10, aux2=0, data=bytes(20))
        + exchange(write_reply()) + exchange(r10) * 2,
        # Failures: silence until the retry limit, a wrong length, a bad block
        # check, lengths that do not match the bytes.
        "no-reply-until-reported": request(WRITE, 3, 0x700, 1, aux2=1, var_id=11, retry_limit=2,
                                           data=b"\x05\x00") + exchange(b"", 3) * 3,
        "wrong-length": request(WRITE, 2, 768, 1, aux2=1, var_id=3, data=b"\x05\x00")
        + exchange(write_reply(), 4, 1) * 3,
        "bad-block-check": request(CYCLIC, 3, 0x700, 10)
        + exchange(r10[:-1] + bytes([r10[-1] ^ 0xFF])) * 2,
        "length-beyond-bytes": request(CYCLIC, 3, 0x700, 10) + exchange(r10, learnt=True, length_mode=5, delta=9),
        "negative-length": request(WRITE, 3, 0x700, 1, aux2=1, data=b"\x05\x00") + exchange(write_reply(), 6, 4),
        "length-int-min": request(WRITE, 3, 0x700, 1, aux2=1, data=b"\x05\x00")
        + exchange(write_reply(), 7, length=-2**31),
        "short-reply": request(CYCLIC, 3, 0x700, 10) + exchange(r10[:26]) * 2,
        "reply-done-confirms-silence": request(WRITE, 3, 0x700, 1, aux2=1, data=b"\x05\x00")
        + exchange(b"", 3, reply_done=1),
        "foreign-link-read": request(CYCLIC, 3, 0x700, 10, remote_link=True) + exchange(r10) * 2,
        "several-stations": request(WRITE_AND_CYCLIC, 3, 0x700, 10, multi=True, station=9,
                                    data=bytes(20)) + exchange(b"", 3) * 4,
        # Remote mode: the partner's replies carry the same DF1 envelope.
        "remote-read": request(CYCLIC, 3, 0x705, 4, remote=True, var_id=1)
        + exchange(framed(bytes(6) + b"\x01\x02\x03\x04\x05\x06\x07\x08" + bytes(12))) * 2,
        "remote-write": request(WRITE, 3, 0x705, 1, aux2=1, remote=True, host_zeroes_reply_done=True,
                                data=b"\x34\x12") + exchange(framed(bytes(7))),
        "remote-write-station-dle": request(WRITE, 3, 0x705, 1, aux2=1, remote=True, station=0x10,
                                            host_zeroes_reply_done=True, data=b"\x34\x12")
        + exchange(framed(bytes(8))),
        # The savers on their own, at the edges of the image.
        "savers-read-reply": request(CYCLIC, 3, 0x700, 10)
        + exchange(r10, savers=(26, 20, 100, 2)),
        "savers-doubled-dle": request(CYCLIC, 3, 0x700, 10)
        + exchange(word_read_reply(with_dle), savers=(26, 8, 65534, 4)),
        "savers-timer-elements": request(CYCLIC, 3, 0x700, 10)
        + exchange(word_read_reply([1, 0x10, 3, 4, 0x1010, 6, 7, 8, 9]), savers=(26, 18, 65535, 3)),
        "savers-huge-size": request(CYCLIC, 3, 0x700, 10)
        + exchange(r10, savers=(26, 2**31 - 1, -5, 0)),
        "savers-negative-position": request(CYCLIC, 3, 0x700, 10)
        + exchange(r10, savers=(-3, 40, 0, 1)),
        "framed-payload": request(CYCLIC, 4, 0x800, 5, small=True)
        + exchange(bytes(range(0x0C, 0x30)), frame=True, savers=(24, 16, 10, 4)),
    }
    return seeds


# -------------------------------------------------------------- fuzz_address --

def address_input(text, data_type=2, count=10, write_mode=2, latin1=True, multi=False,
                  comm_error=False, host_bytes=0, max_count=32, station=1, values=b""):
    flags = (1 if latin1 else 0) | (2 if write_mode == 2 else 0) | (4 if multi else 0) | \
        (8 if comm_error else 0) | (host_bytes << 4)
    raw = text.encode("latin-1") if latin1 else text.encode("utf-8")
    long_run = 0x80 if abs(count) > 64 else 0
    return bytes([flags, (data_type + 1) % 256]) + i16(count) + bytes([max_count | long_run, station, len(raw)]) \
        + raw + values


def address_seeds():
    vals = bytes([1, 0, 5, 0x34, 0x12, 0x10, 0, 0xFF, 0x80, 0x3F] * 3)
    s = {
        "bit-7-10-3": address_input("7:10/3", 0, 3, values=b"\x01\x00\x05"),
        "bit-image-only": address_input("7:10/3", 1, 20, write_mode=1, values=vals),
        "bit-link-failed": address_input("7:10/3", 1, 3, comm_error=True, values=b"\x01\x00\x05"),
        "word-n7-10": address_input("N7:10", 2, 4, values=vals),
        "word-7-colon": address_input("7:", 3, 2, values=vals),
        "word-minus-one": address_input("-1", 2, 2),
        "bit-int-max-file": address_input("2147483647:0/0", 0, 1),
        "word-7-300": address_input("7:300", 3, 10, max_count=4, comm_error=True, values=vals),
        "word-8-44": address_input("8:44", 3, 10, max_count=4, values=vals),
        "bit-slash-before-colon": address_input("7/1:3", 0, 4, write_mode=1, values=vals),
        "bit-slash-in-file": address_input("7/3:10", 1, 1),
        "bit-negative": address_input("0:0/-1", 0, 5),
        "word-three-pieces": address_input("7:10:99", 2, 1, values=b"\x01\x02"),
        "empty-text": address_input("", 2, 1),
        "letters": address_input("abc", 5, 1),
        "plain-number-other-type": address_input("1802", -1, 1),
        "last-bit-of-area": address_input("4095:255/15", 0, 4, write_mode=1, values=b"\x01\x01\x01\x01"),
        "bit-past-area": address_input("4096:0/0", 1, 2, write_mode=1, values=b"\x01\x01"),
        "last-word-of-area": address_input("255:255", 2, 3, write_mode=1, values=vals, host_bytes=15),
        "word-past-area": address_input("256:0", 3, 2, write_mode=1, values=vals),
        "real-last-values": address_input("255:254", 4, 8, write_mode=1, values=vals),
        "real-pieces": address_input("8:4", 4, 9, max_count=4, comm_error=True, values=vals),
        "real-count-one": address_input("8:1", 4, 1, values=vals),
        "negative-element": address_input("-1:5", 2, 2),
        "negative-count": address_input("7:0", 2, -5, max_count=0, values=vals),
        "zero-max-count": address_input("7:0", 3, 70, max_count=0, values=vals),
        "many-bits": address_input("7:0/0", 0, 256, values=vals),
        "many-pieces": address_input("7:0", 2, 1024, max_count=1, values=vals),
        "write-queue-full": address_input("7:0", 3, 1100, max_count=1, values=vals),
        "get-large-count": address_input("7:0", 2, 4096, write_mode=1, values=vals),
        "several-stations": address_input("7:10", 3, 4, multi=True, station=7, values=vals, host_bytes=6),
        "fullwidth-digits-utf8": address_input("\uff17:\uff11\uff10", 2, 1, latin1=False),
        "latin1-superscript": address_input("7:1\u00b2", 3, 1),
        "blanks-and-signs": address_input(" 7 : +10 ", 2, 1),
        "hex-like": address_input("0x10:5", 2, 1),
        "huge-number": address_input("99999999999:1", 3, 1),
        "extra-slash": address_input("7:10/3/4", 1, 2, values=b"\x01\x01"),
        "malformed-utf8": bytes([0x02, 3]) + i16(2) + bytes([32, 1, 6]) + b"7:\xc3\x28\xff1",
    }
    return s


# ------------------------------------------------------------ fuzz_read_list --

def list_input(max_count, items, multi=False, no_list=False, null_entries=False, remote=False,
               station=1, link=0):
    flags = (1 if multi else 0) | (2 if no_list else 0) | (4 if null_entries else 0) | (8 if remote else 0)
    out = i16(max_count) + bytes([flags, station, link])
    for data_type, count, text in items:
        raw = text.encode("latin-1")
        out += bytes([data_type % 256]) + i32(count) + bytes([len(raw)]) + raw
    return out


def read_list_seeds():
    return {
        "merge-gap": list_input(32, [(2, 5, "0:10"), (2, 4, "0:20")]),
        "no-merge-past-max": list_input(32, [(2, 5, "0:10"), (2, 4, "0:40")]),
        "covered": list_input(32, [(2, 5, "0:10"), (2, 2, "0:12")]),
        "exactly-max": list_input(32, [(3, 16, "7:0"), (3, 16, "7:16"), (3, 1, "7:32")]),
        "accumulating-split": list_input(10, [(2, 35, "0:100")]),
        "split-20-30": list_input(10, [(3, 20, "0:100"), (2, 30, "0:100")]),
        "bit-words": list_input(32, [(0, 20, "7:10/3"), (1, 1, "7:10/15"), (1, 16, "7:10/0")]),
        "types-apart": list_input(32, [(2, 4, "7:0"), (3, 4, "7:0"), (4, 4, "7:0"), (0, 4, "7:0/0")]),
        "empty-list": list_input(32, []),
        "several-stations": list_input(32, [(2, 4, "7:0")], multi=True),
        "no-list": list_input(32, [], no_list=True),
        "null-entries": list_input(32, [(2, 4, "7:0"), (3, 2, "7:1")], null_entries=True),
        "zero-max-count": list_input(0, [(2, 100, "7:0"), (2, 3, "7:10"), (2, 5, "7:98")]),
        "negative-max-count": list_input(-3, [(2, -10, "7:0"), (2, 10, "7:0")]),
        "invalid-items": list_input(32, [(7, 4, "7:0"), (255, 4, "7:0"), (2, 4, "7"), (0, 4, "7:0"),
                                        (2, 0, "7:0"), (2, -4, "7:0")]),
        "count-int-max": list_input(0, [(2, 2**31 - 1, "0:0"), (3, -2**31, "0:1")]),
        "address-near-int-max": list_input(32, [(2, 100, "8388607:255"), (4, 40, "8388607:200")]),
        "bits-near-int-max": list_input(16, [(0, 64, "524287:255/15")]),
        "remote-template": list_input(32, [(3, 10, "7:0")], remote=True, station=5, link=3),
        "panel-mix": list_input(20, [(t % 5, 1 + (7 * t) % 23, "%d:%d%s" % (t % 16, (37 * t) % 256,
                                                                             "/%d" % (t % 16) if t % 5 < 2 else ""))
                                     for t in range(40)]),
        "odd-texts": list_input(32, [(2, 3, "N7:10"), (3, 3, "7:"), (0, 3, "7/1:3"), (1, 3, "0:0/-1"),
                                     (2, 3, "7:300"), (4, 3, " 7:1"), (2, 3, "-1:300")]),
    }


# ------------------------------------------------------------------ fuzz_api --
# Sequences of entry-point calls in the layout of fuzz/fuzz_api.cpp.

INT_MAX, INT_MIN = 2**31 - 1, -2**31
WRITE_MODES = {0: 0, 1: 1, 2: 2, 7: 3}
SHAPED, CONTROLLER, RAW, SILENCE = 0, 1, 2, 3
OP = dict(register=0, redirect=1, callback=2, finish=3, convert=4, add_read=5, rebuild=6,
          add_write=7, add_once=8, set_data=9, get_data=10, exchange=11, settings=12)
SETTING = dict(max_count=0, multi=1, remote=2, write_mode=3, retry_limit=4, retry_count=5,
               reply_done=6, reply_total=7, link=8, station=9, context=10, cycle_done=11)


def api_header(max_count=32, remote=False, multi=False, write_mode=2, callback=True,
               no_record=False, retry_limit=2, station=1, link=0, tns=0x21):
    """Settings flags and fields; max_count is a byte % 65 unless it is one of
    the extreme values (kind 3) or negative (kind 2)."""
    extreme = [INT_MAX, INT_MIN, 65536, -65536, 1, -1, 4096, 0]
    if max_count in extreme and max_count not in range(0, 65):
        kind, byte = 3, extreme.index(max_count)
    elif max_count < 0:
        kind, byte = 2, -max_count
    else:
        kind, byte = 0, max_count
    flags = (1 if remote else 0) | (2 if multi else 0) | (WRITE_MODES[write_mode] << 2) | \
        (0 if callback else 0x10) | (0x20 if no_record else 0) | (kind << 6)
    return bytes([flags, byte, retry_limit % 256, station, link, tns])


def api_count(v):
    if 0 <= v <= 255:
        return bytes([0, v])
    if -255 <= v < 0:
        return bytes([3, -v])
    if 0 <= v <= 65535:
        return bytes([4]) + struct.pack("<H", v)
    if v in (INT_MAX, INT_MIN):
        return bytes([5, 1 if v == INT_MAX else 0])
    return bytes([6]) + i32(v)


def api_text(text):
    """Simple "f:e" and "f:e/b" texts as numbers, anything else as Latin-1."""
    if text is None:
        return bytes([4])
    parts = text.replace("/", ":").split(":")
    if all(p.isdigit() and int(p) < 256 for p in parts) and len(parts) in (2, 3) and \
            text.count(":") == 1 and (len(parts) == 2 or int(parts[2]) < 17):
        return bytes([len(parts) - 2] + [int(p) for p in parts])
    raw = text.encode("latin-1")
    return bytes([2, len(raw)]) + raw


def api_type(data_type):
    return bytes([(data_type + 1) % 256])


def api_var(data_type, text, count, var_id=0, sub_id=0, station=1, address=0, data=b"",
            aux2=0, link=0, null=False):
    form = (0x81 if null else 0) | (2 if not 0 <= address <= 65535 else 0) | (aux2 << 3) | (link << 5)
    addr = i32(address) if form & 2 else struct.pack("<H", address)
    return bytes([form]) + api_type(data_type) + api_count(count) + \
        bytes([var_id, sub_id + 1, station]) + addr + api_text(text) + bytes([len(data)]) + data


def add_read(*args, **kw):
    return bytes([OP["add_read"]]) + api_var(*args, **kw)


def add_write(mode, *args, **kw):
    return bytes([OP["add_write"], {0: 0, 1: 1, 2: 2, -1: 3}[mode]]) + api_var(*args, **kw)


def add_once(mode, *args, **kw):
    return bytes([OP["add_once"], {0: 0, 1: 1, 2: 2, -1: 3}[mode]]) + api_var(*args, **kw)


def rebuild(items, no_list=False, null_entries=False):
    form = len(items) | (0x60 if no_list else 0) | (0x80 if null_entries else 0)
    out = bytes([OP["rebuild"], form])
    for data_type, count, text in items:
        out += bytes([data_type % 256]) + api_count(count) + api_text(text)
    return out


def set_data(data_type, text, count, values=b"", station=1, var_id=5, sub_id=6, null_in=False):
    return bytes([OP["set_data"], 1 if null_in else 0]) + api_type(data_type) + api_text(text) + \
        bytes([station, len(values)]) + values + api_count(count) + bytes([var_id, sub_id])


def get_data(data_type, text, count, host_bytes=0, null_out=False):
    return bytes([OP["get_data"], (host_bytes << 2) | (1 if null_out else 0)]) + api_type(data_type) + \
        api_text(text) + api_count(count) + bytes([0])


def settings(field, value):
    return bytes([OP["settings"], SETTING[field], value % 256])


def api_exchange(turns=1, source=SHAPED, length_mode=0, delta=0, seed=0x21, mutations=(),
                 raw=b"", frame_raw=False, zero_reply_done=False, length=0):
    """mutations: (kind, position, value) with kind 0 flip, 1 cut, 2 extend
    (value % 32 bytes of 0xA5), 3 insert DLE."""
    control = source | (4 if frame_raw else 0) | (length_mode << 3) | \
        (0x40 if mutations else 0) | (0x80 if zero_reply_done else 0)
    out = bytes([OP["exchange"], control, (turns - 1) % 8, delta, seed])
    for i, (kind, position, value) in enumerate(mutations):
        more = 0x80 if i + 1 < len(mutations) else 0
        out += bytes([kind | more]) + struct.pack("<H", position) + bytes([value])
        if kind == 2:
            out += b"\xA5" * (value % 32)
    if source == RAW:
        out += bytes([len(raw)]) + raw
    if length_mode == 7:
        out += i32(length)
    return out


def exchanges(n, **kw):
    out = b""
    while n > 0:
        out += api_exchange(turns=min(n, 8), **kw)
        n -= 8
    return out


def api_seeds():
    panel = [(3, 10, "7:0"), (4, 8, "8:0"), (0, 20, "3:0/0"), (2, 4, "3:10")]
    words = bytes([0x34, 0x12, 0x10, 0x00, 0xFF, 0x7F, 0x01, 0x80])
    return {
        "panel-start-up": api_header() + bytes([OP["register"], 0x15, 0, 0]) + rebuild(panel)
        + exchanges(12) + get_data(3, "7:0", 10) + get_data(4, "8:0", 8) + get_data(0, "3:0/0", 20),
        "write-then-read-back": api_header() + rebuild(panel[:1]) + set_data(3, "7:2", 4, words)
        + exchanges(6) + get_data(3, "7:0", 10, host_bytes=24),
        "write-image-only": api_header(write_mode=1) + set_data(2, "3:5", 4, words)
        + set_data(1, "7:1/3", 3, b"\x01\x00\x05") + get_data(2, "3:5", 4) + get_data(1, "7:1/0", 8),
        "one-shot-split-callback": api_header(max_count=4) + add_once(0, 2, "7:10", 10, var_id=3)
        + exchanges(8),
        "one-shot-twice-one-callback": api_header() + add_once(0, 3, "7:0", 4, var_id=50, sub_id=1)
        + add_once(1, 3, "7:0", 4, var_id=50, sub_id=1) + add_once(0, 3, "7:0", 4, var_id=50, sub_id=2)
        + exchanges(8),
        "one-shot-bits": api_header(max_count=1) + add_once(0, 0, "7:10/3", 20, var_id=2) + exchanges(6),
        "one-shot-real": api_header() + add_once(0, 4, "8:0", 6, var_id=4) + exchanges(4),
        "retry-then-purge": api_header(retry_limit=2) + set_data(3, "7:0", 2, words)
        + add_once(0, 3, "7:4", 2, var_id=9) + exchanges(4, source=SILENCE, length_mode=3)
        + exchanges(4),
        "several-stations-purge": api_header(multi=True, retry_limit=1)
        + set_data(3, "7:0", 1, words, station=1) + set_data(3, "7:1", 1, words, station=2)
        + add_once(0, 3, "7:2", 1, station=2, var_id=7) + exchanges(3, source=SILENCE, length_mode=3)
        + exchanges(4),
        "failure-sub-codes": api_header(retry_limit=0) + add_write(0, 3, "7:0", 1, var_id=3, address=1792,
                                                                  data=b"\x05\x00", aux2=1)
        + add_write(0, 3, "7:0", 1, var_id=12, address=1793, data=b"\x05\x00", aux2=1)
        + exchanges(2, length_mode=4, delta=1),
        "remote-mode": api_header(remote=True) + add_read(3, "7:5", 4, address=0x705, var_id=1)
        + set_data(3, "7:5", 1, words) + add_once(0, 3, "7:5", 2, var_id=4)
        + exchanges(8, zero_reply_done=True),
        "remote-link-of-variable": api_header(link=1) + add_read(3, "7:0", 10, address=0x700, link=0)
        + add_once(0, 3, "7:0", 2, var_id=3) + exchanges(6),
        "controller-answers": api_header() + rebuild(panel) + set_data(0, "3:0/4", 2, b"\x01\x01")
        + exchanges(12, source=CONTROLLER) + get_data(3, "7:0", 10),
        "controller-remote": api_header(remote=True) + rebuild(panel[:2])
        + exchanges(6, source=CONTROLLER, zero_reply_done=True),
        "mutated-replies": api_header() + rebuild(panel[:1]) + api_exchange(turns=2)
        + api_exchange(mutations=[(0, 30, 0x55)]) + api_exchange(mutations=[(1, 20, 0)])
        + api_exchange(mutations=[(2, 0, 5)]) + api_exchange(mutations=[(3, 27, 0), (0, 3, 1)])
        + api_exchange(length_mode=5, delta=3) + api_exchange(length_mode=7, length=INT_MIN),
        "raw-replies": api_header() + rebuild(panel[:1])
        + api_exchange(source=RAW, raw=bytes(range(0x0C, 0x30)), frame_raw=True, turns=3)
        + api_exchange(source=RAW, raw=b"\x10\x06\x10\x02\x10\x03\x00", turns=2),
        "rebuild-between-exchanges": api_header() + rebuild(panel) + api_exchange(turns=3)
        + rebuild([(2, 40, "3:0"), (3, 1, "7:200")]) + api_exchange(turns=4)
        + rebuild([], no_list=True) + api_exchange(turns=3),
        "rebuild-null-entries": api_header() + rebuild([(3, 5, "7:0"), (1, 3, "7:0/1"), (7, 4, "7:0")],
                                                       null_entries=True) + exchanges(4),
        "write-queue-full": api_header(max_count=1) + set_data(1, "7:0/0", 1100, bytes(range(64)))
        + add_write(1, 3, "7:0", 1, address=1792, data=b"\x01\x00", aux2=1)
        + set_data(3, "7:9", 1, b"\x09\x00") + exchanges(8),
        "one-shot-queue-full": api_header(max_count=1) + add_once(0, 3, "7:0", 1100, var_id=1)
        + add_once(1, 3, "7:0", 1, var_id=1) + add_once(0, 2, "3:0", 2, var_id=2) + exchanges(8),
        "null-pointers": api_header() + bytes([OP["register"], 0x00, 0, 0]) + add_read(3, "7:0", 1, null=True)
        + add_write(0, 3, "7:0", 1, null=True) + add_once(0, 3, "7:0", 1, null=True)
        + rebuild([], no_list=True) + get_data(3, "7:0", 4, null_out=True)
        + set_data(3, "7:0", 2, null_in=True) + bytes([OP["callback"], 1]) + i32(0)
        + add_once(0, 3, "7:0", 1, var_id=3) + exchanges(3) + bytes([OP["redirect"], 2])
        + exchanges(2) + bytes([OP["finish"]]),
        "extreme-counts": api_header(max_count=INT_MIN) + add_once(0, 2, "7:0", INT_MIN, var_id=1)
        + set_data(3, "7:0", INT_MAX) + set_data(2, "7:0", INT_MIN, words)
        + rebuild([(2, INT_MIN, "0:0"), (3, INT_MAX, "0:1")]) + add_read(4, "8:0", INT_MAX)
        + exchanges(6) + get_data(0, "0:0/0", INT_MAX) + get_data(4, "255:254", INT_MAX),
        "zero-max-count": api_header(max_count=0) + rebuild([(2, 100, "7:0"), (2, 3, "7:10")])
        + set_data(3, "7:0", 70, words) + add_once(0, 3, "7:0", 300, var_id=2) + exchanges(8),
        "negative-max-count": api_header(max_count=-3) + rebuild([(2, -10, "7:0"), (2, 10, "7:0")])
        + set_data(2, "7:0", -9, words) + add_once(0, 2, "7:0", -7, var_id=2) + exchanges(6),
        "types-out-of-range": api_header() + add_write(1, 6, "7:0", 2, data=words, aux2=1)
        + add_write(1, INT_MAX, "7:0", 2, aux2=1) + add_once(1, 5, "7:0", 1, var_id=1)
        + add_read(-1, "7:0", 4) + add_read(3, "7:0", 4, address=1792) + exchanges(16),
        "burst-of-writes": api_header() + rebuild(panel[:1])
        + b"".join(set_data(3, "7:%d" % i, 1, words[:2]) for i in range(7)) + exchanges(16),
        "tns-around-dle": api_header(tns=14) + rebuild(panel[:1]) + exchanges(8)
        + settings("retry_count", 0) + exchanges(4),
        "tns-wrap": api_header(tns=253) + set_data(3, "7:0", 1, words) + set_data(3, "7:1", 1, words)
        + set_data(3, "7:2", 1, words) + exchanges(4),
        "settings-changes": api_header() + rebuild(panel) + api_exchange(turns=3)
        + settings("max_count", 7) + settings("remote", 1) + set_data(3, "7:0", 1, words)
        + api_exchange(turns=3, zero_reply_done=True) + settings("remote", 0)
        + settings("reply_total", 2) + settings("reply_done", 1) + api_exchange(turns=3)
        + settings("multi", 1) + settings("retry_limit", -1) + api_exchange(turns=3, source=SILENCE)
        + settings("write_mode", 1) + set_data(3, "7:0", 1, words) + settings("link", 2)
        + api_exchange(turns=4),
        "remote-write-counters": api_header(remote=True) + settings("reply_total", 2)
        + set_data(3, "7:0", 1, words) + api_exchange(turns=2) + api_exchange(turns=2, zero_reply_done=True),
        "settings-record-moves": api_header() + rebuild(panel[:2]) + api_exchange(turns=2)
        + bytes([OP["redirect"], 1]) + api_exchange(turns=3) + bytes([OP["redirect"], 2])
        + set_data(3, "7:0", 1, words) + api_exchange(turns=3) + bytes([OP["redirect"], 0])
        + api_exchange(turns=3),
        "no-record-at-start": api_header(no_record=True) + rebuild(panel) + set_data(3, "7:0", 1, words)
        + add_once(0, 3, "7:0", 4, var_id=1) + exchanges(8),
        "address-texts": api_header() + b"".join(
            bytes([OP["convert"]]) + api_type(t) + api_text(x)
            for t, x in [(0, "7:10/3"), (1, "7/1:3"), (2, "N7:10"), (3, "7:"), (4, "-1:5"),
                         (-1, "1802"), (5, "7:0"), (2, "2147483647:0/0"), (0, "0:0/-1"),
                         (3, "99999999999:1"), (2, " 7 : +10 "), (0, None)]),
        "image-edges": api_header(write_mode=1) + set_data(0, "4095:255/15", 4, b"\x01\x01\x01\x01")
        + set_data(3, "255:255", 3, words) + set_data(4, "255:254", 8, words)
        + get_data(0, "4095:255/12", 8, host_bytes=31) + get_data(3, "255:254", 5, host_bytes=12)
        + get_data(4, "255:250", 20, host_bytes=3) + get_data(2, "-1:5", 4),
        "learning-fails": api_header() + rebuild(panel[:1]) + api_exchange(source=RAW, raw=b"\x10\x06",
                                                                          turns=3)
        + api_exchange(mutations=[(1, 26, 0)], turns=2) + api_exchange(turns=2),
    }


def write(target, seeds):
    directory = os.path.join(CORPUS, target)
    os.makedirs(directory, exist_ok=True)
    for name in os.listdir(directory):
        if name.startswith("seed-"):
            os.remove(os.path.join(directory, name))
    for name, data in seeds.items():
        with open(os.path.join(directory, "seed-" + name), "wb") as f:
            f.write(data)
    print("%s: %d seeds" % (target, len(seeds)))


if __name__ == "__main__":
    write("fuzz_reply", reply_seeds())
    write("fuzz_address", address_seeds())
    write("fuzz_read_list", read_list_seeds())
    write("fuzz_api", api_seeds())
