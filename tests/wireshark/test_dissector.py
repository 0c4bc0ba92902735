#!/usr/bin/env python3
"""The dissector's tests, one group per CTest test:

    test_dissector.py --tshark PATH --workdir DIR GROUP

Groups: reads, writes, remote, faults (a committed capture each, checked with
check_capture against its expectations, plus display filters and the Info
column), big_packets, damaged_packets, crc_preference,
fixtures_match_generator, checker_catches_mismatch.
"""

import argparse
import copy
import json
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import check_capture as cc  # noqa: E402
import make_captures  # noqa: E402
from df1capture import (CONTROLLER_TO_HOST, ETX, HOST_TO_CONTROLLER,  # noqa: E402
                        KIND_DF1, KIND_UNFRAMED, Packet, hexbytes, stuff, write_pcapng)

CAPTURES = os.path.join(HERE, "captures")


class Failed(Exception):
    pass


def expect(condition, text):
    if not condition:
        raise Failed(text)


def load(name):
    with open(os.path.join(CAPTURES, name + ".json")) as f:
        return json.load(f)


def fixture(args, name, filters, info):
    """check_capture on the committed capture, then each display filter
    selects exactly the frames the independent reading says, and the Info
    column of the frames named reads as given."""
    path = os.path.join(CAPTURES, name + ".pcapng")
    wanted = load(name)
    problems = cc.check_capture(path, wanted["requests"], args.tshark, args.lua,
                                malformed_frames=wanted.get("malformed_frames", ()))
    expect(not problems, "\n".join(problems))

    views = cc.read_views(path)
    for display_filter, select, at_least in filters(views, wanted):
        want = [v.number for v in views if select(v)]
        expect(len(want) >= at_least, "filter %s: the capture has %d such frames, the test needs "
               "%d" % (display_filter, len(want), at_least))
        got = cc.filtered_frames(args.tshark, args.lua, path, display_filter)
        expect(got == want, "filter %s selects %s, expected %s" % (display_filter, got, want))

    frames, _ = cc.dissect(args.tshark, args.lua, path)
    for number, text in info.items():
        got = frames[number].get("_ws.col.Info", [""])[0]
        expect(got == text, "frame %d: Info is %r, expected %r" % (number, got, text))


def tns_filters(views):
    values = sorted({v.tns for v in views if v.tns is not None})
    return [("df1.tns == 0x%04x" % t, lambda v, t=t: v.tns == t, 1) for t in values]


def common_filters(views, wanted):
    unanswered = {r["frame"] for r in wanted["requests"] if r.get("reply", 0) is None}
    return tns_filters(views) + [
        ("df1.bcc_bad", lambda v: v.bcc_bad, 0),
        ('cip.symbol == "N007"', lambda v: any(r[1] == "N007" for r in v.cip or []), 0),
        ('df1.cip.tag == "B003"', lambda v: any(r[1] == "B003" for r in v.cip or []), 0),
        ("df1.remote.sum_bad", lambda v: v.remote_bad, 0),
        ("df1.unframed", lambda v: v.kind == KIND_UNFRAMED and bool(v.data), 0),
        ("df1.unanswered", lambda v: v.number in unanswered, 0),
    ]


def group_reads(args):
    def filters(views, wanted):
        return common_filters(views, wanted) + [
            ('cip.symbol == "N007"', lambda v: any(r[1] == "N007" for r in v.cip or []), 1),
            ("df1.cip.service == 0x52 && df1.cip.response == 0",
             lambda v: v.direction == 0 and bool(v.cip), 3),
        ]
    fixture(args, "reads", filters, {
        1: "ACK",
        2: "Read Tag Fragmented N007[0] \u00d710 TNS 0x0021",
        4: "Reply TNS 0x0021 status 0x00, 10 INT = 0, 1, 2, 16, \u2026",
        6: "Read Tag Fragmented B003[16] \u00d72 TNS 0x0005",
        12: "Reply TNS 0x0021 status 0x00, 1 REAL = 1.5",
    })


def group_writes(args):
    def filters(views, wanted):
        return common_filters(views, wanted) + [
            ("df1.cip.service == 0x4e && df1.cip.response == 0",
             lambda v: v.direction == 0 and bool(v.cip) and v.cip[0][0] == 0x4E, 3),
            ("df1.cip.type == 0x00ca", lambda v: v.direction == 0 and bool(v.cip)
             and v.cip[0][1] == "F008", 3),
            ("df1.cip.value == 4660", lambda v: v.number == 14, 1),
        ]
    fixture(args, "writes", filters, {
        2: "Read-Modify-Write Tag B003[10] set bit 5 TNS 0x0021",
        6: "Read-Modify-Write Tag N007[0] clear bit 4 TNS 0x0005",
        14: "Write Tag Fragmented N007[2] \u00d72 INT = 4660, 16 TNS 0x0021",
        26: "Write Tag Fragmented F008[0] \u00d72 REAL = 1, 2 TNS 0x000A",
        28: "Reply TNS 0x000A status 0x00",
    })


def group_remote(args):
    def filters(views, wanted):
        return common_filters(views, wanted) + [
            ("df1.remote.sum_bad", lambda v: v.remote_bad, 1),
            ("df1.remote.count == 10", lambda v: v.remote is not None and v.remote["count"] == 10,
             2),
        ]
    fixture(args, "remote", filters, {
        1: "Remote read N7:5 \u00d710",
        3: "Remote read reply, 10 INT = 10, 20, 30, 16, \u2026",
        4: "Remote write N7:5 \u00d71 = 4660",
        6: "Remote write reply, Written",
        7: "Remote read N7:5 \u00d710 [bad checksum]",
    })


def group_faults(args):
    def filters(views, wanted):
        return common_filters(views, wanted) + [
            ("df1.bcc_bad", lambda v: v.bcc_bad, 2),
            ("df1.unanswered", lambda v: v.number in {r["frame"] for r in wanted["requests"]
                                                      if r.get("reply", 0) is None}, 2),
            ("df1.unframed", lambda v: v.kind == KIND_UNFRAMED and bool(v.data), 2),
            ("df1.control == 0x15", lambda v: v.data[:2] == b"\x10\x15", 2),
            # The tag service's own status sits after the Multiple Service
            # Packet's reply header, count and offset.
            ("df1.cip.status == 0xff",
             lambda v: v.cmd == 0x4B and len(v.body) > 18 and v.body[18] == 0xFF, 1),
        ]
    fixture(args, "faults", filters, {
        4: "Reply TNS 0x0021 status 0x00, 10 INT = 0, 1, 2, 3, \u2026 [bad BCC]",
        5: "NAK",
        18: "Read Tag Fragmented F008[4] \u00d71 TNS 0x0021 [bad BCC]",
        23: "Reply TNS 0x0021 status 0xFF (General error, 0x2105 Elements beyond end of tag)",
        32: "ACK; Read Tag Fragmented B003[16] \u00d72 TNS 0x0005",
        35: "Not a frame, 5 bytes",
        36: "Not a frame, 9 bytes (a frame cut short)",
        38: "Malformed: 0 bytes, no pseudo-header",
        39: "Malformed: 2 bytes, no pseudo-header",
    })
    # Every damaged or unknown packet carries an expert item saying so.
    frames, _ = cc.dissect(args.tshark, args.lua, os.path.join(CAPTURES, "faults.pcapng"))
    for number in (4, 18, 29, 35, 36) + tuple(range(38, 53)):
        expect(frames[number].get("_ws.expert.message"),
               "frame %d: no expert item for a damaged or unusual packet" % number)
    for number in (2, 7, 9, 14, 16, 21):
        expect(not any("Bad" in m or "Malformed" in m
                       for m in frames[number].get("_ws.expert.message", [])),
               "frame %d: a good frame is flagged: %s"
               % (number, frames[number].get("_ws.expert.message")))


def group_big_packets(args):
    path = os.path.join(args.workdir, "big.pcapng")
    make_captures.big(path)
    started = time.monotonic()
    problems = cc.check_capture(path, None, args.tshark, args.lua)
    elapsed = time.monotonic() - started
    expect(not problems, "\n".join(problems))
    expect(elapsed < 60, "64 KiB packets took %.1f s" % elapsed)
    frames, _ = cc.dissect(args.tshark, args.lua, path)
    expect(len(frames) == 5, "%d frames shown, 5 written" % len(frames))
    for number in (1, 2, 3, 5):
        expect(frames[number].get("_ws.expert.message"),
               "frame %d: 64 KiB of noise without an expert item" % number)


def group_damaged_packets(args):
    """Packets damaged at random never raise a Lua error, and what is shown
    of them still agrees with the independent reading: checks flagged, the
    requests that remain whole decoded, replies paired. Wireshark's CIP
    dissector may call a damaged message malformed; that is allowed here."""
    fixtures = [os.path.join(CAPTURES, n + ".pcapng") for n in ("reads", "writes", "remote",
                                                                "faults")]
    for seed in (1, 2, 3):
        path = os.path.join(args.workdir, "damaged-%d.pcapng" % seed)
        make_captures.damaged(path, seed, fixtures)
        views = cc.read_views(path)
        problems = cc.check_capture(path, None, args.tshark, args.lua,
                                    malformed_frames=range(1, len(views) + 1))
        expect(not problems, "seed %d:\n%s" % (seed, "\n".join(problems)))


def crc16(data):
    crc = 0
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return crc


def group_crc_preference(args):
    expect(crc16(b"123456789") == 0xBB3D, "the test's own CRC-16 is wrong")
    body = hexbytes("00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30"
                    " 37 29 00 00 00 0A 00 00 00 00 00 00 00")
    crc = crc16(body + bytes([ETX]))
    good = b"\x10\x02" + stuff(body) + b"\x10\x03" + bytes([crc & 0xFF, crc >> 8])
    bad = good[:-1] + bytes([good[-1] ^ 0x01])
    path = os.path.join(args.workdir, "crc.pcapng")
    write_pcapng(path, [Packet(HOST_TO_CONTROLLER, KIND_DF1, good, 1_000_000_000),
                        Packet(CONTROLLER_TO_HOST, KIND_DF1, bad, 2_000_000_000)])
    command = [args.tshark, "-n", "-X", "lua_script:" + args.lua, "-o", "df1.check:CRC-16",
               "-r", path, "-T", "fields", "-E", "separator=|", "-e", "df1.crc",
               "-e", "df1.crc.computed", "-e", "df1.crc_bad", "-e", "df1.bcc", "-e", "df1.cip.tag"]
    out = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                         universal_newlines=True)
    expect(out.returncode == 0, "tshark failed: %s" % out.stderr)
    expect("Lua Error" not in out.stdout + out.stderr, out.stdout + out.stderr)
    rows = [line.split("|") for line in out.stdout.splitlines()]
    expect(len(rows) == 2, "expected 2 rows, got %r" % rows)
    expect(int(rows[0][0], 0) == crc and int(rows[0][1], 0) == crc and rows[0][2] == "",
           "good CRC frame: %r (CRC 0x%04x)" % (rows[0], crc))
    expect(rows[1][2] in ("1", "True") and int(rows[1][1], 0) == crc,
           "bad CRC frame not flagged: %r" % rows[1])
    expect(rows[0][3] == "" and rows[0][4] == "N007", "CRC frame decoded as: %r" % rows[0])


def group_fixtures_match_generator(args):
    fresh = os.path.join(args.workdir, "fresh")
    make_captures.main(["make_captures.py", fresh])
    names = sorted(n for n in os.listdir(CAPTURES) if n.endswith((".pcapng", ".json")))
    expect(names == sorted(os.listdir(fresh)),
           "captures/ holds %s, the generator writes %s" % (names, sorted(os.listdir(fresh))))
    for name in names:
        with open(os.path.join(CAPTURES, name), "rb") as a, open(os.path.join(fresh, name),
                                                                 "rb") as b:
            expect(a.read() == b.read(), "captures/%s differs from what make_captures.py writes "
                   "now; run it and commit the result" % name)
    total = sum(os.path.getsize(os.path.join(CAPTURES, n)) for n in names)
    expect(total < 16384, "the committed fixtures take %d bytes" % total)


def group_checker_catches_mismatch(args):
    """check_capture must report a capture that does not show what the
    expectations say: a wrong value, tag, count, reply status, a missing
    reply and a missing request each give a problem naming the field."""
    path = os.path.join(CAPTURES, "writes.pcapng")
    wanted = load("writes")
    mutations = [
        ("df1.cip.value", lambda r: r[3].update(values=[0x1234, 0x0011])),
        ("df1.cip.tag", lambda r: r[0].update(tag="N007")),
        ("df1.cip.bit", lambda r: r[1].update(bit=5)),
        ("df1.cip.count", lambda r: r[4].update(count=2)),
        ("df1.cip.status", lambda r: r[5]["reply"].update(status=0x05)),
        ("expected no reply", lambda r: r[6].update(reply=None)),
        ("requests in the capture", lambda r: r.pop()),
    ]
    for field, mutate in mutations:
        requests = copy.deepcopy(wanted["requests"])
        mutate(requests)
        problems = cc.check_capture(path, requests, args.tshark, args.lua)
        expect(any(field in p for p in problems),
               "a wrong expectation on %s went unnoticed: %s" % (field, problems))

    # A few requests picked out of a longer capture, without frame numbers,
    # as a long run's expectations are written: found in order, and a wrong
    # value in one of them is still noticed.
    sparse = []
    for index in (1, 5, 6):
        request = copy.deepcopy(wanted["requests"][index])
        request.pop("frame")
        request["reply"].pop("frame")
        sparse.append(request)
    problems = cc.check_capture(path, sparse, args.tshark, args.lua, subsequence=True)
    expect(not problems, "picked requests not found: %s" % problems)
    problems = cc.check_capture(path, [sparse[1], sparse[0]], args.tshark, args.lua,
                                subsequence=True)
    expect(any("not found" in p for p in problems), "requests out of order went unnoticed")
    sparse[2]["values"] = [2.0, 1.0]
    problems = cc.check_capture(path, sparse, args.tshark, args.lua, subsequence=True)
    expect(any("not found" in p and "df1.cip.value" in p for p in problems),
           "a wrong value among picked requests went unnoticed: %s" % problems)


GROUPS = {
    "reads": group_reads,
    "writes": group_writes,
    "remote": group_remote,
    "faults": group_faults,
    "big_packets": group_big_packets,
    "damaged_packets": group_damaged_packets,
    "crc_preference": group_crc_preference,
    "fixtures_match_generator": group_fixtures_match_generator,
    "checker_catches_mismatch": group_checker_catches_mismatch,
}


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--tshark")
    parser.add_argument("--lua", default=cc.DEFAULT_LUA)
    parser.add_argument("--workdir", default=os.getcwd())
    parser.add_argument("group", choices=sorted(GROUPS))
    args = parser.parse_args(argv[1:])
    try:
        args.tshark = cc.find_tshark(args.tshark)
    except cc.TsharkMissing as missing:
        print("FAIL: %s" % missing)
        return 1
    os.makedirs(args.workdir, exist_ok=True)
    try:
        GROUPS[args.group](args)
    except Failed as failure:
        print("FAIL %s:\n%s" % (args.group, failure))
        return 1
    print("ok %s" % args.group)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
