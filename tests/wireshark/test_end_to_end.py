#!/usr/bin/env python3
"""Captures made by the tools themselves, shown by the dissector in tshark:

    test_end_to_end.py --hostsim P --plcsim P --df1tap P --plugin P
                       [--tshark P] [--lua P] --workdir DIR GROUP

Each group runs the programs for a few seconds over pseudo-terminals at
115200 baud, then checks the capture they wrote with check_capture against
what the host was told to do: the tags, elements and counts it asked for,
the values it wrote, the values the controller was given, and the faults
the controller was told to make.

Groups: reads, writes, remote, bad_bcc, dropped_reply, truncated_reply,
noise, controller_capture.
"""

import argparse
import os
import random
import select
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import check_capture as cc  # noqa: E402
from df1capture import HOST_TO_CONTROLLER, KIND_DF1, KIND_UNFRAMED  # noqa: E402

BAUD = "115200"
# Generous: a loaded machine may hold a reply back a long time, and a reply
# that comes after the host gave up would make a run go another way than the
# one the test expects. Only the runs with lost replies wait for it.
TIMEOUT_MS = "3000"
LOST_REPLY_TIMEOUT_MS = "1000"
RUN_LIMIT_S = 40


class Failed(Exception):
    pass


def expect(condition, text):
    if not condition:
        raise Failed(text)


def expect_no_problems(problems):
    expect(not problems, "\n".join(problems))


# ---------------------------------------------------------- the programs --

def hostsim(args, capture, options, port=None):
    """Runs hostsim to its end; its output. It must end with exit code 0."""
    command = [args.hostsim, "--plugin", args.plugin, "--plain", "--baud", BAUD,
               "--capture", capture] + (["--port", port] if port else []) + options
    env = dict(os.environ)
    if args.first_tns_dle:
        env["LD_PRELOAD"] = args.first_tns_dle
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              stdin=subprocess.DEVNULL, universal_newlines=True,
                              errors="replace", timeout=RUN_LIMIT_S, env=env)
    except subprocess.TimeoutExpired as late:
        raise Failed("hostsim did not end within %d s:\n%s" % (RUN_LIMIT_S, late.output))
    expect(done.returncode == 0, "hostsim ended with %d:\n%s\n%s" % (done.returncode,
                                                                   " ".join(command), done.stdout))
    expect(os.path.exists(capture), "hostsim wrote no capture:\n%s" % done.stdout)
    return done.stdout


class Background:
    """A program that prints the path to open as its first line and runs
    until it is stopped with SIGTERM."""

    def __init__(self, command):
        self.command = command
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        stdin=subprocess.DEVNULL)
        ready, _, _ = select.select([self.process.stdout], [], [], 10)
        first = self.process.stdout.readline().decode(errors="replace").strip() if ready else ""
        if not first.startswith("/"):
            self.stop(check=False)
            raise Failed("%s printed no path to open: %r\n%s" % (" ".join(command), first,
                                                                 self.err))
        self.path = first
        self.err = ""

    def stop(self, check=True):
        """SIGTERM to this one program; it must end with exit code 0."""
        if self.process.poll() is None:
            self.process.terminate()
        try:
            _, err = self.process.communicate(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            _, err = self.process.communicate()
        self.err = err.decode(errors="replace")
        if check:
            expect(self.process.returncode == 0, "%s ended with %s:\n%s" % (
                " ".join(self.command), self.process.returncode, self.err))


def plcsim(args, capture, options=()):
    return Background([args.plcsim, "--print-path", "--no-live", "--quiet", "--baud", BAUD,
                       "--turnaround", "2", "--capture", capture] + list(options))


# ------------------------------------------------------- expectations --

def request_key(view):
    """What a request is, read from its bytes without the dissector:
    ("cip", service, tag, element) or ("remote", "read"/"write", address)."""
    if view.remote is not None:
        r = view.remote
        is_write = bool(r["data"]) or r["aux2"] == 1
        return ("remote", "write" if is_write else "read",
                cc.remote_address_text(r["data_type"], r["address"], is_write))
    if view.cip:
        service, tag, element, _ = view.cip[0]
        return ("cip", service, tag, element)
    return ("unreadable", view.number)


def cip_key(expected):
    return ("cip", cc.SERVICE_CODES[expected["service"]], expected["tag"],
            expected.get("element"))


def remote_key(expected):
    return ("remote", expected["remote"], expected["address"])


def expectations_for(capture, asked, reply_of=None):
    """One expectation per request of the capture, in order: the one of
    `asked` that names the same service, tag and element (or remote address),
    copied, with the reply `reply_of(index, expected)` gives when given.
    Which request is which is read from the capture's bytes; everything the
    expectation then says comes from what the host was asked to do, so the
    dissector must show exactly that."""
    by_key = {}
    for expected in asked:
        by_key[remote_key(expected) if "remote" in expected else cip_key(expected)] = expected
    requests = cc.request_views(cc.read_views(capture))
    out, seen = [], set()
    for index, view in enumerate(requests):
        key = request_key(view)
        expect(key in by_key, "%s: frame %d is a request the host was not asked to make: %r"
               % (os.path.basename(capture), view.number, key))
        seen.add(key)
        expected = dict(by_key[key])
        if reply_of:
            expected["reply"] = reply_of(index, expected)
        out.append(expected)
    missing = [key for key in by_key if key not in seen]
    expect(not missing, "%s: requests asked for but not in the capture: %r"
           % (os.path.basename(capture), missing))
    return out, requests


def first_tns_was_dle(args, requests, output):
    """Whether the plug-in's first transaction number was DLE: one run in
    255, and every run under --first-tns-dle. A DF1 request carries that
    byte; a remote request does not, and there hostsim's report tells: the
    reply, one byte shorter than the plug-in then expects, is retried."""
    if args.first_tns_dle:
        return True
    first = requests[0] if requests else None
    if first is not None and first.remote is None:
        return first.tns is not None and first.tns & 0xFF == 0x10
    return "| retried 1 |" in output


def without_first_retry(args, expected, requests, output):
    """The requests in order, the first counted once: a first request whose
    TNS was DLE fails its reply check and goes out again."""
    if (first_tns_was_dle(args, requests, output) and len(expected) > 1 and
            expected[0] == expected[1]):
        return expected[1:]
    return expected


def check_against(args, capture, expected, malformed=()):
    expect_no_problems(cc.check_capture(capture, expected, args.tshark, args.lua,
                                        malformed_frames=malformed))


def frames_matching(args, capture, display_filter):
    return cc.filtered_frames(args.tshark, args.lua, capture, display_filter)


def expect_clean(args, capture):
    """No frame flagged: no bad check, nothing unframed, nothing malformed."""
    flagged = frames_matching(args, capture, "df1.bcc_bad || df1.remote.sum_bad || df1.unframed"
                              " || df1.stray || _ws.malformed")
    expect(not flagged, "%s: frames flagged in a run without faults: %s"
           % (os.path.basename(capture), flagged))


def controller_replies(views):
    """The controller's answers in order: its data frames and what it sent
    that forms no frame (a cut reply), its DLE ACKs and NAKs left out."""
    return [v for v in views if not v.short and v.direction == 1 and
            ((v.kind == KIND_DF1 and v.body is not None) or v.kind == KIND_UNFRAMED)]


# ------------------------------------------------------------- groups --

# The controller's memory before the start, and the reads of it.
READ_SETS = ["--sim-set", "N7:10=11,-2,4112,16", "--sim-set", "B3:2=32",
             "--sim-set", "F8:3=1.5,-2.25"]
READ_TAGS = ["--tag", "N7:10 x4", "--tag", "B3:2/5", "--tag", "F8:3 x2"]
READS = [
    {"service": "Read Tag Fragmented", "tag": "N007", "element": 10, "count": 4, "offset": 0,
     "reply": {"status": 0, "type": "INT", "values": [11, -2, 4112, 16]}},
    # A bit is read as the word that holds it.
    {"service": "Read Tag Fragmented", "tag": "B003", "element": 2, "count": 1, "offset": 0,
     "reply": {"status": 0, "type": "INT", "values": [32]}},
    {"service": "Read Tag Fragmented", "tag": "F008", "element": 3, "count": 2, "offset": 0,
     "reply": {"status": 0, "type": "REAL", "values": [1.5, -2.25]}},
]


def group_reads(args):
    capture = os.path.join(args.workdir, "reads.pcapng")
    hostsim(args, capture, ["--sim-turnaround-ms", "1", "--timeout-ms", TIMEOUT_MS,
                            "--exchanges", "12"] + READ_SETS + READ_TAGS)
    expected, _ = expectations_for(capture, READS)
    expect(len(expected) >= 6, "only %d requests in 12 exchanges" % len(expected))
    check_against(args, capture, expected)
    expect_clean(args, capture)
    # Every request is answered and every answer paired: as many request_in
    # as response_in, one each per request.
    answered = frames_matching(args, capture, "df1.response_in")
    replies = frames_matching(args, capture, "df1.request_in")
    expect(len(answered) == len(expected) == len(replies),
           "%d requests, %d shown answered, %d replies paired" % (len(expected), len(answered),
                                                                 len(replies)))


WRITES_OPTIONS = [
    "--sim-set", "N7:40=-1",
    "--write", "B3:2/5=1", "--write", "N7:40/4=0", "--write", "N7:20=1234,-5,16",
    "--write", "F8:5=2.5",
    # Read back after the writes.
    "--tag", "N7:20 x3", "--tag", "F8:5", "--tag", "B3:2/5"]
WRITES = [
    {"service": "Read-Modify-Write Tag", "tag": "B003", "element": 2, "or_mask": 0x0020,
     "and_mask": 0xFFFF, "bit": 5, "bit_set": True, "reply": {"status": 0}},
    {"service": "Read-Modify-Write Tag", "tag": "N007", "element": 40, "or_mask": 0x0000,
     "and_mask": 0xFFEF, "bit": 4, "bit_set": False, "reply": {"status": 0}},
    {"service": "Write Tag Fragmented", "tag": "N007", "element": 20, "type": "INT", "count": 3,
     "offset": 0, "values": [1234, -5, 16], "reply": {"status": 0}},
    {"service": "Write Tag Fragmented", "tag": "F008", "element": 5, "type": "REAL", "count": 1,
     "offset": 0, "values": [2.5], "reply": {"status": 0}},
]
READ_BACK = [
    {"service": "Read Tag Fragmented", "tag": "N007", "element": 20, "count": 3, "offset": 0,
     "reply": {"status": 0, "type": "INT", "values": [1234, -5, 16]}},
    {"service": "Read Tag Fragmented", "tag": "F008", "element": 5, "count": 1, "offset": 0,
     "reply": {"status": 0, "type": "REAL", "values": [2.5]}},
    {"service": "Read Tag Fragmented", "tag": "B003", "element": 2, "count": 1, "offset": 0,
     "reply": {"status": 0, "type": "INT", "values": [32]}},
]


def group_writes(args):
    capture = os.path.join(args.workdir, "writes.pcapng")
    output = hostsim(args, capture, ["--sim-turnaround-ms", "1", "--timeout-ms", TIMEOUT_MS,
                                     "--exchanges", "12"] + WRITES_OPTIONS)
    expected, requests = expectations_for(capture, WRITES + READ_BACK)
    if args.first_tns_dle:
        expect(requests and requests[0].tns == 0x10,
               "the preload did not make the first TNS DLE: %r" % (requests[:1],))
    # Writes go first, each once, in the order given.
    in_order = without_first_retry(args, expected, requests, output)
    expect(in_order[:len(WRITES)] == WRITES,
           "the writes are not the first requests, in order: %r" % in_order[:len(WRITES)])
    expect(all(e["service"] == "Read Tag Fragmented" for e in in_order[len(WRITES):]),
           "a write was sent more than once")
    check_against(args, capture, expected)
    expect_clean(args, capture)


REMOTE_OPTIONS = ["--remote", "--sim-set", "N7:10=11,-2,4112,16", "--sim-set", "F8:3=1.5",
                  "--write", "N7:20=1234", "--write", "B3:2/5=1", "--write", "F8:5=2.5",
                  "--tag", "N7:10 x4", "--tag", "B3:2/5", "--tag", "F8:3"]
REMOTE = [
    {"remote": "write", "address": "N7:20", "data_type": 3, "count": 1, "station": 1,
     "values": [1234], "reply": {"status": 0, "written": True}},
    {"remote": "write", "address": "B3:2/5", "data_type": 0, "count": 1, "station": 1,
     "values": [1], "reply": {"status": 0, "written": True}},
    # A REAL write counts its 16-bit units.
    {"remote": "write", "address": "F8:5", "data_type": 4, "count": 2, "station": 1,
     "values": [2.5], "reply": {"status": 0, "written": True}},
    {"remote": "read", "address": "N7:10", "data_type": 3, "count": 4, "station": 1,
     "reply": {"status": 0, "values": [11, -2, 4112, 16]}},
    # The bit tag reads its word, after the write above set bit 5.
    {"remote": "read", "address": "B3:2", "data_type": 0, "count": 1, "station": 1,
     "reply": {"status": 0, "values": [32]}},
    {"remote": "read", "address": "F8:3", "data_type": 4, "count": 1, "station": 1,
     "reply": {"status": 0, "values": [1.5]}},
]


def group_remote(args):
    capture = os.path.join(args.workdir, "remote.pcapng")
    output = hostsim(args, capture, ["--sim-turnaround-ms", "1", "--timeout-ms", TIMEOUT_MS,
                                     "--exchanges", "12"] + REMOTE_OPTIONS)
    expected, requests = expectations_for(capture, REMOTE)
    in_order = without_first_retry(args, expected, requests, output)
    expect(in_order[:3] == REMOTE[:3], "the writes are not the first requests, in order: %r"
           % in_order[:3])
    check_against(args, capture, expected)
    expect_clean(args, capture)
    # Every request went out as a remote frame with a good checksum, and
    # every reply came back in the DF1 envelope with a good block check.
    remote = frames_matching(args, capture, "df1.kind == 1 && df1.remote.checksum"
                             " == df1.remote.checksum.computed")
    expect(remote == [v.number for v in requests],
           "remote frames with a good checksum: %s; requests: %s"
           % (remote, [v.number for v in requests]))
    replies = frames_matching(args, capture, "(df1.cmd == 0x41 || df1.cmd == 0x42) && df1.bcc"
                              " == df1.bcc.computed && df1.request_in")
    expect(len(replies) == len(requests), "%d remote replies shown good and paired, %d requests"
           % (len(replies), len(requests)))


FAULT_EVERY = 3


def fault_run(args, name, fault, timeout_ms):
    """A read run in which the built-in controller makes `fault` on every
    third reply; the capture."""
    capture = os.path.join(args.workdir, name + ".pcapng")
    hostsim(args, capture, ["--sim-turnaround-ms", "1", "--timeout-ms", timeout_ms,
                            "--sim-%s-every" % fault, str(FAULT_EVERY), "--exchanges", "9"]
            + READ_SETS + READ_TAGS)
    return capture


def is_faulty(index):
    """The controller counts its replies from one: every third is made wrong."""
    return (index + 1) % FAULT_EVERY == 0


def group_bad_bcc(args):
    capture = fault_run(args, "bad_bcc", "corrupt", TIMEOUT_MS)

    def reply(index, expected):
        return dict(expected["reply"], bad_bcc=is_faulty(index))
    expected, requests = expectations_for(capture, READS, reply)
    expect(sum(is_faulty(i) for i in range(len(requests))) >= 2,
           "%d requests: fewer than two bad replies" % len(requests))
    check_against(args, capture, expected)
    frames, _ = cc.dissect(args.tshark, args.lua, capture)
    bad = [int(frames[v.number]["df1.response_in"][0])
           for i, v in enumerate(requests) if is_faulty(i)]
    flagged = frames_matching(args, capture, "df1.bcc_bad")
    expect(flagged == bad, "frames flagged df1.bcc_bad: %s; the corrupted replies: %s"
           % (flagged, bad))
    for number in bad:
        expect(any("Bad BCC" in m for m in frames[number].get("_ws.expert.message", [])),
               "frame %d: a bad block check without its expert item" % number)
    # Nothing else is wrong on the line.
    others = frames_matching(args, capture, "df1.remote.sum_bad || df1.unframed || df1.stray"
                             " || _ws.malformed || df1.unanswered")
    expect(not others, "frames flagged besides the bad block checks: %s" % others)


def group_dropped_reply(args):
    capture = fault_run(args, "dropped_reply", "drop", LOST_REPLY_TIMEOUT_MS)

    def reply(index, expected):
        return None if is_faulty(index) else expected["reply"]
    expected, requests = expectations_for(capture, READS, reply)
    check_against(args, capture, expected)
    dropped = [v.number for i, v in enumerate(requests) if is_faulty(i)]
    expect(len(dropped) >= 2, "%d requests: fewer than two dropped replies" % len(requests))
    unanswered = frames_matching(args, capture, "df1.unanswered")
    expect(unanswered == dropped, "requests shown unanswered: %s; those whose reply was "
           "dropped: %s" % (unanswered, dropped))
    # Each one is sent again, with the same TNS, and that one is answered.
    frames, _ = cc.dissect(args.tshark, args.lua, capture)
    for i, v in enumerate(requests[:-1]):
        if is_faulty(i):
            again = requests[i + 1]
            expect(again.tns == v.tns and "df1.response_in" in frames[again.number],
                   "frame %d: the request after a dropped reply is not the same one, answered"
                   % again.number)
    flagged = frames_matching(args, capture, "df1.bcc_bad || df1.unframed || _ws.malformed")
    expect(not flagged, "frames flagged in a run whose replies were only dropped: %s" % flagged)


def group_truncated_reply(args):
    capture = fault_run(args, "truncated_reply", "truncate", LOST_REPLY_TIMEOUT_MS)

    def reply(index, expected):
        return None if is_faulty(index) else expected["reply"]
    expected, requests = expectations_for(capture, READS, reply)
    # A cut reply may be called malformed, never a Lua error.
    views = cc.read_views(capture)
    answers = controller_replies(views)
    cut = [v.number for i, v in enumerate(answers) if is_faulty(i)]
    check_against(args, capture, expected, malformed=cut)
    expect(len(answers) == len(requests) and len(cut) >= 2,
           "%d requests, %d answers, %d of them cut" % (len(requests), len(answers), len(cut)))
    frames, _ = cc.dissect(args.tshark, args.lua, capture)
    for number in cut:
        f = frames[number]
        shown = ("df1.unframed" in f or "df1.bcc_bad" in f or
                 any("cut short" in m or "Malformed" in m
                     for m in f.get("_ws.expert.message", [])))
        expect(shown, "frame %d: a cut reply not shown as such: %s" % (number,
                                                                      f.get("_ws.col.Info")))
        expect("df1.request_in" not in f, "frame %d: a cut reply is paired" % number)
    expect(frames_matching(args, capture, "df1.unframed") == [
        n for n in cut if views[n - 1].kind == KIND_UNFRAMED],
        "df1.unframed is on other frames than the cut replies")
    expect(frames_matching(args, capture, "df1.unanswered") ==
           [v.number for i, v in enumerate(requests) if is_faulty(i)],
           "the requests whose reply was cut are not exactly the unanswered ones")
    expect(not frames_matching(args, capture, "df1.bcc_bad"),
           "a whole reply is flagged with a bad block check")


NOISE_BURSTS = 3


def noise_bursts(seed):
    """Random bytes without a DLE, so that no burst can begin or end a
    frame: a burst between two frames must be shown as one unframed packet."""
    rng = random.Random(seed)
    return [bytes(rng.choice([b for b in range(256) if b != 0x10])
                  for _ in range(rng.randint(4, 12))) for _ in range(NOISE_BURSTS)]


def inject_noise(tap, host, bursts):
    """Writes each burst into the host's side of the tap once the tap has
    shown a request of the host: the host then waits for the reply, and the
    line is quiet. The bursts written."""
    injector = os.open(tap.path, os.O_WRONLY | os.O_NOCTTY)
    sent = []
    deadline = time.monotonic() + RUN_LIMIT_S
    try:
        while host.poll() is None and time.monotonic() < deadline:
            ready, _, _ = select.select([tap.process.stdout], [], [], 0.2)
            if not ready:
                continue
            line = tap.process.stdout.readline().decode(errors="replace")
            if "host>ctl DF1" in line and "CMD 0B" in line and len(sent) < len(bursts):
                burst = bursts[len(sent)]
                expect(os.write(injector, burst) == len(burst), "a burst was not written")
                sent.append(burst)
    finally:
        os.close(injector)
    return sent


def noise_run(args, bursts, tap_capture, plc_capture, host_capture):
    """hostsim -> df1tap -> plcsim, noise written into the host's side of
    the tap; the bursts written."""
    # The controller takes its time, so the line is quiet after a request.
    controller = plcsim(args, plc_capture, ["--turnaround", "150"])
    tap = host = None
    try:
        # The tap's own rate sets only its quiet gap; at 50 baud no pause of
        # a loaded machine cuts a frame in two.
        tap = Background([args.df1tap, "--a-pty", "--print-path", "--b", controller.path,
                          "--baud", "50", "--capture", tap_capture])
        host = subprocess.Popen(
            [args.hostsim, "--plugin", args.plugin, "--plain", "--baud", BAUD, "--port",
             tap.path, "--timeout-ms", TIMEOUT_MS, "--capture", host_capture,
             "--exchanges", "10", "--tag", "N7:0 x4"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        sent = inject_noise(tap, host, bursts)
        try:
            output = host.communicate(timeout=RUN_LIMIT_S)[0].decode(errors="replace")
        except subprocess.TimeoutExpired:
            raise Failed("hostsim did not end within %d s" % RUN_LIMIT_S)
        expect(host.returncode == 0, "hostsim ended with %d:\n%s" % (host.returncode, output))
    finally:
        if host is not None and host.poll() is None:
            host.kill()
            host.wait()
        if tap is not None:
            tap.stop(check=False)
        controller.stop(check=False)
    for name, program in (("df1tap", tap), ("plcsim", controller)):
        expect(program.process.returncode == 0, "%s ended with %s:\n%s"
               % (name, program.process.returncode, program.err))
    return sent


def check_noise_capture(args, capture, bursts, seed):
    name = os.path.basename(capture)
    asked = [{"service": "Read Tag Fragmented", "tag": "N007", "element": 0, "count": 4,
              "offset": 0, "reply": {"status": 0, "type": "INT", "values": [0, 0, 0, 0]}}]
    expected, _ = expectations_for(capture, asked)
    check_against(args, capture, expected)
    views = cc.read_views(capture)
    noise = [v for v in views if not v.short and v.kind == KIND_UNFRAMED]
    expect([v.data for v in noise] == bursts,
           "seed %d, %s: unframed packets %s, bursts written %s"
           % (seed, name, [v.data.hex() for v in noise], [b.hex() for b in bursts]))
    expect(all(v.direction == HOST_TO_CONTROLLER for v in noise),
           "%s: noise shown in the wrong direction" % name)
    frames, _ = cc.dissect(args.tshark, args.lua, capture)
    for v, burst in zip(noise, bursts):
        f = frames[v.number]
        expect(f.get("df1.unframed") == [burst.hex()],
               "%s, frame %d: df1.unframed is %r, the burst %s"
               % (name, v.number, f.get("df1.unframed"), burst.hex()))
        expect(f.get("_ws.col.Info", [""])[0].startswith("Not a frame"),
               "%s, frame %d: Info %r" % (name, v.number, f.get("_ws.col.Info")))
        # The frames on either side of the noise are still whole and
        # decoded: a request with its tag or a paired reply.
        for side in (views[:v.number - 1][::-1], views[v.number:]):
            near = next((w for w in side if w.kind == KIND_DF1 and w.body is not None), None)
            expect(near is not None, "%s: no frame next to the noise in frame %d"
                   % (name, v.number))
            g = frames[near.number]
            expect(("df1.cip.tag" in g or "df1.request_in" in g) and "df1.bcc_bad" not in g,
                   "%s, frame %d next to the noise is not decoded: %s"
                   % (name, near.number, g.get("_ws.col.Info")))
    others = frames_matching(args, capture, "df1.bcc_bad || df1.stray || _ws.malformed")
    expect(not others, "%s: frames flagged besides the noise: %s" % (name, others))


def group_noise(args):
    """hostsim -> df1tap -> plcsim; after some of the host's requests
    random bytes go into the host's side of the tap. The tap passes them on
    to the controller, and both capture them; the host never sees them."""
    tap_capture = os.path.join(args.workdir, "noise_tap.pcapng")
    plc_capture = os.path.join(args.workdir, "noise_plc.pcapng")
    host_capture = os.path.join(args.workdir, "noise_host.pcapng")
    seed = int(time.time())
    bursts = noise_bursts(seed)
    sent = noise_run(args, bursts, tap_capture, plc_capture, host_capture)
    expect(sent == bursts, "seed %d: %d bursts written, the run ended first" % (seed, len(sent)))
    for capture in (tap_capture, plc_capture):
        check_noise_capture(args, capture, bursts, seed)
    expect(not frames_matching(args, host_capture, "df1.unframed"),
           "the host's capture shows noise it did not send")


# Fields that say what a packet is, without its time.
SAME_FIELDS = ["df1.direction", "df1.kind", "df1.control", "df1.ack_of", "df1.nak_of",
               "df1.bcc", "df1.bcc_bad", "df1.tns", "df1.cmd", "df1.cip.service",
               "df1.cip.tag", "df1.cip.element", "df1.cip.count", "df1.cip.type",
               "df1.cip.value", "df1.cip.or_mask", "df1.cip.and_mask", "df1.cip.status",
               "df1.response_in", "df1.request_in", "df1.unanswered", "df1.unframed",
               "_ws.col.Info"]


def decoded_rows(args, capture):
    frames, _ = cc.dissect(args.tshark, args.lua, capture)
    return [[frames[n].get(field, []) for field in SAME_FIELDS] for n in sorted(frames)]


def group_controller_capture(args):
    """hostsim on plcsim's pseudo-terminal, both capturing; plcsim spoils
    every fourth reply's block check. The two captures show the same
    exchanges, field by field, requests as host to controller."""
    host_capture = os.path.join(args.workdir, "pair_host.pcapng")
    plc_capture = os.path.join(args.workdir, "pair_plc.pcapng")
    every = 4
    controller = plcsim(args, plc_capture, ["--corrupt-every", str(every)])
    try:
        # The same writes and reads as in the writes group; plcsim's memory
        # starts at zero, so the cleared bit was clear already.
        hostsim(args, host_capture, ["--timeout-ms", TIMEOUT_MS, "--exchanges", "12"]
                + WRITES_OPTIONS[2:], port=controller.path)
    finally:
        controller.stop(check=False)
    expect(controller.process.returncode == 0, "plcsim ended with %s:\n%s"
           % (controller.process.returncode, controller.err))

    def reply(index, expected):
        return dict(expected["reply"], bad_bcc=(index + 1) % every == 0)
    for capture in (host_capture, plc_capture):
        expected, requests = expectations_for(capture, WRITES + READ_BACK, reply)
        expect(len(requests) >= every, "%s: %d requests" % (capture, len(requests)))
        check_against(args, capture, expected)
        directions = {v.direction for v in requests}
        expect(directions == {HOST_TO_CONTROLLER}, "%s: requests in direction %s"
               % (os.path.basename(capture), directions))
    host_rows = decoded_rows(args, host_capture)
    plc_rows = decoded_rows(args, plc_capture)
    expect(len(host_rows) == len(plc_rows), "the host's capture has %d packets, the "
           "controller's %d" % (len(host_rows), len(plc_rows)))
    for number, (h, p) in enumerate(zip(host_rows, plc_rows), start=1):
        differing = [(field, a, b) for field, a, b in zip(SAME_FIELDS, h, p) if a != b]
        expect(not differing, "frame %d differs between the host's and the controller's "
               "capture: %s" % (number, differing))


GROUPS = {
    "reads": group_reads,
    "writes": group_writes,
    "remote": group_remote,
    "bad_bcc": group_bad_bcc,
    "dropped_reply": group_dropped_reply,
    "truncated_reply": group_truncated_reply,
    "noise": group_noise,
    "controller_capture": group_controller_capture,
}


def main(argv):
    parser = argparse.ArgumentParser()
    for program in ("hostsim", "plcsim", "df1tap", "plugin"):
        parser.add_argument("--" + program, required=True)
    parser.add_argument("--tshark")
    parser.add_argument("--lua", default=cc.DEFAULT_LUA)
    parser.add_argument("--workdir", default=os.getcwd())
    parser.add_argument("--first-tns-dle", metavar="LIBRARY",
                        help="preload LIBRARY into hostsim: a qrand() that makes the"
                             " plug-in's first transaction number DLE")
    parser.add_argument("group", choices=sorted(GROUPS))
    args = parser.parse_args(argv[1:])
    try:
        args.tshark = cc.find_tshark(args.tshark)
    except cc.TsharkMissing as missing:
        print("FAIL: %s" % missing)
        return 1
    for program in (args.hostsim, args.plcsim, args.df1tap, args.plugin):
        if not os.path.exists(program):
            print("FAIL: %s is not built (build the tools and the plug-in first)" % program)
            return 1
    os.makedirs(args.workdir, exist_ok=True)
    started = time.monotonic()
    try:
        GROUPS[args.group](args)
    except Failed as failure:
        print("FAIL %s:\n%s" % (args.group, failure))
        return 1
    print("ok %s (%.1f s)" % (args.group, time.monotonic() - started))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
