#!/usr/bin/env python3
"""Checks what the dissector shows for a capture of the serial line.

    check_capture.py [--tshark PATH] [--lua PATH] [--subsequence] CAPTURE [EXPECTATIONS.json]

Every capture, with or without expectations, is checked against a second,
independent reading of its packets (df1capture.py):
  - tshark reads it with the dissector without a Lua error;
  - "[Malformed" appears only in frames the expectations allow;
  - every packet shows the direction and kind of its pseudo-header;
  - df1.bcc_bad is present exactly on the data frames whose block check is
    wrong, df1.remote.sum_bad exactly on the remote frames whose checksum is;
  - every reply is paired with the request it answers (same TNS and station
    pair; remote frames by order) in both directions, and nothing else is;
  - every DLE ACK and DLE NAK points at the other side's last data frame;
  - every CIP request names the services, tags, elements and counts its
    bytes carry.

EXPECTATIONS.json holds {"requests": [...], "malformed_frames": [...]}: the
requests of the capture in order (data frames with a good check; a request
sent again after a failure is listed again), each with what it must be
decoded as and its reply, or "reply": null when none came. With
--subsequence the listed requests need only appear in that order among
others (captures of long runs). The keys are those make_captures.py writes:
service, tag, element, count, offset, type, values, or_mask, and_mask, bit,
bit_set, tns; remote requests: remote ("read"/"write"), address ("N7:5",
"B3:10/5"), data_type, count, var_id, station, values; replies: status,
ext_status, type, values, bad_bcc, written, frame.

Exit status 0 when everything holds; otherwise each problem on its own line.
"""

import argparse
import json
import math
import os
import re
import shutil
import struct
import subprocess
import sys

from df1capture import (ACK, DLE, ENQ, ETX, KIND_DF1, KIND_REMOTE, KIND_UNFRAMED, NAK, STX,
                        block_check, read_pcapng, remote_checksum)

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_LUA = os.path.normpath(os.path.join(HERE, "..", "..", "tools", "wireshark", "df1.lua"))

FIELDS = [
    "frame.number", "df1.direction", "df1.kind", "df1.control", "df1.ack_of", "df1.nak_of",
    "df1.bcc", "df1.bcc.computed", "df1.bcc_bad", "df1.dst", "df1.src", "df1.cmd", "df1.sts",
    "df1.tns", "df1.response_in", "df1.request_in", "df1.time", "df1.unanswered",
    "df1.cip.service", "df1.cip.tag", "df1.cip.element", "df1.cip.count", "df1.cip.offset",
    "df1.cip.type", "df1.cip.value", "df1.cip.or_mask", "df1.cip.and_mask", "df1.cip.bit",
    "df1.cip.bit_set", "df1.cip.status", "df1.cip.ext_status",
    "df1.remote.length", "df1.remote.var_id", "df1.remote.station", "df1.remote.data_type",
    "df1.remote.address", "df1.remote.file", "df1.remote.element", "df1.remote.bit",
    "df1.remote.count", "df1.remote.value", "df1.remote.sum_bad", "df1.remote.write_result",
    "df1.remote.status", "df1.unframed", "cip.symbol", "_ws.col.Info", "_ws.expert.message",
]

SERVICE_CODES = {
    "Multiple Service Packet": 0x0A, "Read Tag": 0x4C, "Write Tag": 0x4D,
    "Read-Modify-Write Tag": 0x4E, "Read Tag Fragmented": 0x52, "Write Tag Fragmented": 0x53,
}
TYPE_CODES = {"INT": 0xC3, "REAL": 0xCA, "DINT": 0xC4, "SINT": 0xC2, "BOOL": 0xC1}
LUA_ERROR_MARKS = ("Lua Error", "Lua: Error", "[Lua")


class TsharkMissing(Exception):
    pass


def find_tshark(given=None):
    path = given or shutil.which("tshark")
    if not path or not os.access(path, os.X_OK):
        raise TsharkMissing(
            "tshark not found%s: install it (apt-get install tshark; scripts/test.sh installs it "
            "with the other packages)" % (" at " + given if given else ""))
    return path


def run_tshark(tshark, lua, capture, args):
    command = [tshark, "-n", "-2", "-X", "lua_script:" + lua, "-r", capture] + list(args)
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          universal_newlines=True, errors="replace")
    # tshark warns when run as root; that is not the dissector's concern.
    stderr = "\n".join(line for line in done.stderr.splitlines()
                       if "Running as user" not in line)
    return done.returncode, done.stdout, stderr


def dissect(tshark, lua, capture, display_filter=None):
    """{frame number: {field: [values as strings]}} for every frame."""
    args = ["-T", "json"]
    for field in FIELDS:
        args += ["-e", field]
    if display_filter:
        args += ["-Y", display_filter]
    code, out, err = run_tshark(tshark, lua, capture, args)
    if code != 0:
        raise RuntimeError("tshark failed (%d) on %s:\n%s" % (code, capture, err))
    frames = {}
    for packet in json.loads(out or "[]"):
        layers = packet["_source"]["layers"]
        frames[int(layers["frame.number"][0])] = layers
    return frames, err


def verbose_by_frame(tshark, lua, capture):
    code, out, err = run_tshark(tshark, lua, capture, ["-V"])
    texts = {}
    current = None
    for line in out.splitlines():
        m = re.match(r"Frame (\d+):", line)
        if m:
            current = int(m.group(1))
            texts[current] = []
        if current is not None:
            texts[current].append(line)
    return code, {n: "\n".join(lines) for n, lines in texts.items()}, out, err


def filtered_frames(tshark, lua, capture, display_filter):
    code, out, err = run_tshark(tshark, lua, capture,
                                ["-Y", display_filter, "-T", "fields", "-e", "frame.number"])
    if code != 0:
        raise RuntimeError("tshark -Y '%s' failed (%d):\n%s" % (display_filter, code, err))
    return [int(line) for line in out.split()]


# ------------------------------------------- the independent reading --

class View:
    """What one packet holds, read without the dissector."""

    def __init__(self, number, packet):
        self.number = number
        self.raw = packet
        self.short = len(packet) < 4
        self.direction = packet[0] if not self.short else None
        self.kind = packet[1] if not self.short else None
        self.data = packet[4:]
        self.body = None          # un-stuffed message of a data frame
        self.complete = False     # DLE ETX and the check are there
        self.bcc_bad = False
        self.remote = None        # fields of a remote request
        self.remote_bad = False
        self.symbols = []         # DLE ACK/NAK/ENQ in the packet, in order
        self.cip = None           # [(service, tag, element, count)] of a CIP request
        if self.short:
            return
        # A remote reply may come in the DF1 envelope under kind 1 as well.
        if self.kind == KIND_DF1 or (self.kind == KIND_REMOTE and
                                     self.data[:2] in (bytes([DLE, STX]), bytes([DLE, ACK]))):
            self._read_df1()
        elif self.kind == KIND_REMOTE:
            self._read_remote()

    def _read_df1(self):
        # Items one after the other, as a receiver takes them: link symbols,
        # data frames (the first one is kept) and stray bytes between them.
        data = self.data
        i = 0
        while i + 1 < len(data):
            if data[i] == DLE and data[i + 1] in (ACK, NAK, ENQ):
                self.symbols.append(data[i + 1])
                i += 2
            elif data[i] == DLE and data[i + 1] == STX:
                i = self._read_frame(data, i)
            else:
                item = re.search(b"\x10[\x02\x05\x06\x15]", data[i + 1:])
                if not item:
                    return
                i += 1 + item.start()

    def _read_frame(self, data, start):
        """Reads the data frame at start; returns where the next item starts."""
        body = bytearray()
        i = start + 2
        end = len(data)
        complete = bcc_bad = False
        while i < len(data):
            b = data[i]
            if b == DLE and i + 1 < len(data) and data[i + 1] == ETX:
                complete = i + 2 < len(data)
                if complete:
                    bcc_bad = block_check(body) != data[i + 2]
                end = min(i + 3, len(data))
                break
            if b == DLE and i + 1 < len(data) and data[i + 1] == DLE:
                i += 1
            body.append(b)
            i += 1
        if self.body is None:
            self.body, self.complete, self.bcc_bad = bytes(body), complete, bcc_bad
            if len(body) >= 8 and body[2] == 0x0B and complete and not bcc_bad:
                self.cip = parse_cip_request(self.body[8:])
        return end

    def _read_remote(self):
        d = self.data
        if len(d) < 22:
            return
        self.remote = dict(
            var_id=d[1], aux2=d[2], station=d[4], data_type=struct.unpack(">H", d[5:7])[0],
            address=struct.unpack(">I", d[7:11])[0], count=struct.unpack(">H", d[11:13])[0],
            data=d[21:-1])
        self.remote_bad = remote_checksum(d[:-1]) != d[-1]

    @property
    def cmd(self):
        return self.body[2] if self.body is not None and len(self.body) >= 6 else None

    @property
    def tns(self):
        if self.body is None or len(self.body) < 6:
            return None
        return self.body[4] | (self.body[5] << 8)


def parse_tag_request(p):
    """(service, tag, element, count) of one embedded tag service request, or
    None when it is not laid out as one (a damaged frame): the tests compare
    only what a well-formed request says."""
    if len(p) < 2 or p[0] not in (0x4C, 0x4D, 0x4E, 0x52, 0x53):
        return None
    service, path_end = p[0], 2 + 2 * p[1]
    if path_end > len(p) or p[2:3] != b"\x91":
        return None
    n = p[3]
    i = 4 + n + (n & 1)
    tag = p[4:4 + n]
    if i > path_end or not all(0x20 < b < 0x7F for b in tag):
        return None
    element = None
    if i < path_end:
        if p[i] == 0x28 and i + 2 == path_end:
            element = p[i + 1]
        elif p[i] == 0x29 and i + 4 == path_end:
            element = p[i + 2] | (p[i + 3] << 8)
        else:
            return None
    rest = p[path_end:]
    count = None
    if service in (0x4C, 0x52):
        if len(rest) < 2:
            return None
        count = rest[0] | (rest[1] << 8)
    elif service in (0x4D, 0x53):
        if len(rest) < 4:
            return None
        count = rest[2] | (rest[3] << 8)
    return (service, tag.decode("ascii"), element, count)


def parse_cip_request(p):
    """The embedded requests of a Multiple Service Packet to the Message
    Router, or None when the message is not one, whole."""
    if len(p) < 6 or p[:6] != bytes([0x0A, 0x02, 0x20, 0x02, 0x24, 0x01]):
        return None
    base = 6
    if len(p) < base + 2:
        return None
    count = p[base] | (p[base + 1] << 8)
    if count == 0 or len(p) < base + 2 + 2 * count:
        return None
    offsets = [p[base + 2 + 2 * k] | (p[base + 3 + 2 * k] << 8) for k in range(count)]
    out = []
    for k, offset in enumerate(offsets):
        end = base + offsets[k + 1] if k + 1 < count else len(p)
        if offset < 2 + 2 * count or base + offset >= end or end > len(p):
            return None
        request = parse_tag_request(p[base + offset:end])
        if request is None:
            return None
        out.append(request)
    return out


def read_views(capture):
    return [View(n + 1, packet) for n, (packet, _) in enumerate(read_pcapng(capture))]


def model_pairs(views):
    """{request frame: reply frame} as the line's rules pair them."""
    pairs = {}
    pending = {}
    pending_remote = None
    for v in views:
        if v.short:
            continue
        if v.remote is not None and v.direction == 0 and not v.remote_bad:
            pending_remote = v.number
        cmd = v.cmd
        if cmd is None:
            continue
        src, dst, tns = v.body[1], v.body[0], v.tns
        if cmd == 0x0B and v.complete and not v.bcc_bad:
            pending[(tns, src, dst)] = v.number
        elif cmd == 0x4B:
            key = (tns, dst, src)
            if key in pending:
                pairs[pending.pop(key)] = v.number
        elif cmd in (0x41, 0x42) and pending_remote is not None:
            pairs[pending_remote] = v.number
            pending_remote = None
    return pairs


def model_links(views):
    """{frame of a DLE ACK or NAK: ("ack" or "nak", the other side's last
    complete data frame or remote frame before it)}."""
    links = {}
    last_data = {}
    for v in views:
        if v.short or v.kind not in (KIND_DF1, KIND_REMOTE):
            continue
        direction = v.direction if v.direction in (0, 1) else 0
        symbol = None
        if ACK in v.symbols:
            symbol = "ack"
        elif NAK in v.symbols:
            symbol = "nak"
        if symbol and (1 - direction) in last_data:
            links[v.number] = (symbol, last_data[1 - direction])
        if v.complete or v.remote is not None:
            last_data[direction] = v.number
    return links


def request_views(views):
    """The requests a host sent whole: CIP data frames with a good check and
    remote frames with a good checksum."""
    return [v for v in views if not v.short and v.direction == 0 and (
        (v.cmd == 0x0B and v.complete and not v.bcc_bad) or
        (v.remote is not None and not v.remote_bad))]


# ------------------------------------------------------------ checks --

def ints(values):
    return [int(v, 0) for v in values]


def numbers(values):
    return [float(v) for v in values]


def same_numbers(got, want):
    return len(got) == len(want) and all(
        math.isclose(g, w, rel_tol=1e-6, abs_tol=1e-9) for g, w in zip(got, want))


def remote_address_text(data_type, address, is_write):
    letter = {0: "B", 1: "N", 2: "B", 3: "N", 4: "F"}.get(data_type, "?")
    if is_write and data_type in (0, 1):
        return "%s%d:%d/%d" % (letter, address // 4096, address // 16 % 256, address % 16)
    return "%s%d:%d" % (letter, address // 256, address % 256)


class Checker:
    def __init__(self, capture):
        self.capture = capture
        self.problems = []

    def fail(self, frame, text):
        where = "frame %s" % frame if frame is not None else "capture"
        self.problems.append("%s: %s: %s" % (os.path.basename(self.capture), where, text))

    def equal(self, frame, what, got, want):
        if got != want:
            self.fail(frame, "%s is %r, expected %r" % (what, got, want))


def check_general(c, views, frames, pairs):
    for v in views:
        f = frames.get(v.number)
        if f is None:
            c.fail(v.number, "not in tshark's output")
            continue
        if v.short:
            if not any("shorter than" in m for m in f.get("_ws.expert.message", [])):
                c.fail(v.number, "a packet without a pseudo-header is not flagged")
            continue
        c.equal(v.number, "df1.direction", ints(f.get("df1.direction", [])), [v.direction])
        c.equal(v.number, "df1.kind", ints(f.get("df1.kind", [])), [v.kind])
        c.equal(v.number, "df1.bcc_bad present", "df1.bcc_bad" in f, v.bcc_bad)
        c.equal(v.number, "df1.remote.sum_bad present", "df1.remote.sum_bad" in f, v.remote_bad)
        if v.kind == KIND_UNFRAMED and v.data:
            c.equal(v.number, "df1.unframed present", "df1.unframed" in f, True)
        if v.tns is not None:
            c.equal(v.number, "df1.tns", ints(f.get("df1.tns", [])), [v.tns])
        if v.cip:
            c.equal(v.number, "df1.cip.service", ints(f.get("df1.cip.service", [])),
                    [0x0A] + [r[0] for r in v.cip])
            c.equal(v.number, "df1.cip.tag", f.get("df1.cip.tag", []), [r[1] for r in v.cip])
            c.equal(v.number, "cip.symbol", f.get("cip.symbol", []), [r[1] for r in v.cip])
            c.equal(v.number, "df1.cip.element", ints(f.get("df1.cip.element", [])),
                    [r[2] for r in v.cip if r[2] is not None])
            c.equal(v.number, "df1.cip.count", ints(f.get("df1.cip.count", [])),
                    [r[3] for r in v.cip if r[3] is not None])
    links = model_links(views)
    for v in views:
        f = frames.get(v.number, {})
        symbol, target = links.get(v.number, (None, None))
        c.equal(v.number, "df1.ack_of", ints(f.get("df1.ack_of", [])),
                [target] if symbol == "ack" else [])
        c.equal(v.number, "df1.nak_of", ints(f.get("df1.nak_of", [])),
                [target] if symbol == "nak" else [])
    replies = {reply: request for request, reply in pairs.items()}
    for v in views:
        f = frames.get(v.number, {})
        c.equal(v.number, "df1.response_in", ints(f.get("df1.response_in", [])),
                [pairs[v.number]] if v.number in pairs else [])
        c.equal(v.number, "df1.request_in", ints(f.get("df1.request_in", [])),
                [replies[v.number]] if v.number in replies else [])
        if v.number in replies and "df1.time" not in f:
            c.fail(v.number, "a paired reply shows no response time")


def check_request(c, expected, view, f):
    n = view.number
    if "remote" in expected:
        r = view.remote
        if r is None:
            c.fail(n, "expected a remote %s, found another packet" % expected["remote"])
            return
        is_write = bool(r["data"]) or r["aux2"] == 1
        c.equal(n, "remote request", "write" if is_write else "read", expected["remote"])
        if "address" in expected:
            c.equal(n, "remote address (from the frame)",
                    remote_address_text(r["data_type"], r["address"], is_write),
                    expected["address"])
            m = re.match(r"[BNF](\d+):(\d+)(?:/(\d+))?$", expected["address"])
            c.equal(n, "df1.remote.file", ints(f.get("df1.remote.file", [])), [int(m.group(1))])
            c.equal(n, "df1.remote.element", ints(f.get("df1.remote.element", [])),
                    [int(m.group(2))])
            if m.group(3) is not None:
                c.equal(n, "df1.remote.bit", ints(f.get("df1.remote.bit", [])), [int(m.group(3))])
        for key in ("data_type", "count", "var_id", "station"):
            if key in expected:
                c.equal(n, "df1.remote." + key, ints(f.get("df1.remote." + key, [])),
                        [expected[key]])
        if "values" in expected and not same_numbers(numbers(f.get("df1.remote.value", [])),
                                                     expected["values"]):
            c.fail(n, "df1.remote.value is %r, expected %r" % (f.get("df1.remote.value"),
                                                               expected["values"]))
        return

    if view.cmd != 0x0B:
        c.fail(n, "expected a CIP request, found another packet")
        return
    services = ints(f.get("df1.cip.service", []))
    if "service" in expected:
        c.equal(n, "df1.cip.service", services[1:], [SERVICE_CODES[expected["service"]]])
    if "tag" in expected:
        c.equal(n, "df1.cip.tag", f.get("df1.cip.tag", []), [expected["tag"]])
        c.equal(n, "cip.symbol", f.get("cip.symbol", []), [expected["tag"]])
    for key in ("element", "count", "offset", "or_mask", "and_mask", "bit"):
        if key in expected:
            c.equal(n, "df1.cip." + key, ints(f.get("df1.cip." + key, [])), [expected[key]])
    if "bit_set" in expected:
        c.equal(n, "df1.cip.bit_set", ints(f.get("df1.cip.bit_set", [])),
                [1 if expected["bit_set"] else 0])
    if "type" in expected:
        c.equal(n, "df1.cip.type", ints(f.get("df1.cip.type", [])), [TYPE_CODES[expected["type"]]])
    if "values" in expected and not same_numbers(numbers(f.get("df1.cip.value", [])),
                                                 expected["values"]):
        c.fail(n, "df1.cip.value is %r, expected %r" % (f.get("df1.cip.value"), expected["values"]))
    if "tns" in expected:
        c.equal(n, "df1.tns", ints(f.get("df1.tns", [])), [expected["tns"]])


def check_reply(c, expected, is_remote, request, frames):
    n = request.number
    f = frames.get(n, {})
    if expected is None:
        if "df1.response_in" in f:
            c.fail(n, "expected no reply, shown paired with frame %s" % f["df1.response_in"])
        if "df1.unanswered" not in f:
            c.fail(n, "a request without a reply is not marked df1.unanswered")
        return
    if "df1.response_in" not in f:
        c.fail(n, "no df1.response_in: the reply is not paired")
        return
    reply_number = int(f["df1.response_in"][0])
    if "frame" in expected:
        c.equal(n, "df1.response_in", reply_number, expected["frame"])
    r = frames.get(reply_number, {})
    c.equal(reply_number, "df1.request_in", ints(r.get("df1.request_in", [])), [n])
    if "bad_bcc" in expected:
        c.equal(reply_number, "df1.bcc_bad present", "df1.bcc_bad" in r, expected["bad_bcc"])
    if is_remote:
        if "status" in expected:
            c.equal(reply_number, "df1.remote.status", ints(r.get("df1.remote.status", [])),
                    [expected["status"]])
        if "written" in expected:
            c.equal(reply_number, "df1.remote.write_result",
                    ints(r.get("df1.remote.write_result", [])),
                    [0x06 if expected["written"] else 0x15])
        if "values" in expected and not same_numbers(numbers(r.get("df1.remote.value", [])),
                                                     expected["values"]):
            c.fail(reply_number, "df1.remote.value is %r, expected %r"
                   % (r.get("df1.remote.value"), expected["values"]))
        return
    statuses = ints(r.get("df1.cip.status", []))
    if "status" in expected:
        c.equal(reply_number, "df1.cip.status (of the tag service)", statuses[-1:],
                [expected["status"]])
    if "ext_status" in expected:
        c.equal(reply_number, "df1.cip.ext_status", ints(r.get("df1.cip.ext_status", [])),
                [expected["ext_status"]])
    if "type" in expected:
        c.equal(reply_number, "df1.cip.type", ints(r.get("df1.cip.type", [])),
                [TYPE_CODES[expected["type"]]])
    if "values" in expected and not same_numbers(numbers(r.get("df1.cip.value", [])),
                                                 expected["values"]):
        c.fail(reply_number, "df1.cip.value is %r, expected %r"
               % (r.get("df1.cip.value"), expected["values"]))


def check_one(c, expected, view, frames):
    if "frame" in expected:
        c.equal(view.number, "frame of the request", view.number, expected["frame"])
    check_request(c, expected, view, frames.get(view.number, {}))
    if "reply" in expected:
        check_reply(c, expected["reply"], "remote" in expected, view, frames)


def check_requests(c, expected_requests, views, frames, subsequence):
    requests = request_views(views)
    if not subsequence:
        if len(requests) != len(expected_requests):
            c.fail(None, "%d requests in the capture, %d expected" % (len(requests),
                                                                     len(expected_requests)))
        for expected, view in zip(expected_requests, requests):
            check_one(c, expected, view, frames)
        return
    # Each expected request is the next request of the capture that shows
    # everything it lists; the ones in between (retries, cyclic reads) are
    # passed over.
    position = 0
    for expected in expected_requests:
        first_miss = None
        while position < len(requests):
            trial = Checker(c.capture)
            check_one(trial, expected, requests[position], frames)
            position += 1
            if not trial.problems:
                break
            first_miss = first_miss or trial.problems
        else:
            c.fail(None, "expected request %s not found after the previous one%s" % (
                json.dumps(expected), "; the first candidate: " + first_miss[0]
                if first_miss else ""))
            return


def check_capture(capture, expected_requests=None, tshark=None, lua=DEFAULT_LUA,
                  subsequence=False, malformed_frames=()):
    """Every problem found in what the dissector shows for the capture, as a
    list of lines (empty when all holds)."""
    tshark = find_tshark(tshark)
    c = Checker(capture)
    views = read_views(capture)
    frames, err = dissect(tshark, lua, capture)
    code, verbose, whole, verr = verbose_by_frame(tshark, lua, capture)
    if code != 0:
        c.fail(None, "tshark -V failed (%d): %s" % (code, verr))
    for text in (err, verr, whole):
        for mark in LUA_ERROR_MARKS:
            if mark in text:
                line = next(l for l in text.splitlines() if mark in l)
                c.fail(None, "Lua error in tshark's output: %s" % line.strip())
    for number, text in verbose.items():
        if "[Malformed" in text and number not in malformed_frames:
            c.fail(number, "shown as malformed")
    check_general(c, views, frames, model_pairs(views))
    if expected_requests is not None:
        check_requests(c, expected_requests, views, frames, subsequence)
    return c.problems


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("capture")
    parser.add_argument("expectations", nargs="?")
    parser.add_argument("--tshark")
    parser.add_argument("--lua", default=DEFAULT_LUA)
    parser.add_argument("--subsequence", action="store_true")
    args = parser.parse_args(argv[1:])
    expected, malformed = None, ()
    if args.expectations:
        with open(args.expectations) as f:
            wanted = json.load(f)
        expected, malformed = wanted.get("requests"), wanted.get("malformed_frames", ())
    try:
        problems = check_capture(args.capture, expected, args.tshark, args.lua, args.subsequence,
                                 malformed)
    except TsharkMissing as missing:
        print("FAIL: %s" % missing)
        return 1
    for problem in problems:
        print(problem)
    if problems:
        return 1
    print("%s: all checks hold" % args.capture)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
