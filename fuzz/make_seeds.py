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
