#!/usr/bin/env python3
"""Writes the capture fixtures of the dissector tests and their expectations.

    make_captures.py [OUTDIR]        (default: the captures/ folder beside this file)
    make_captures.py --big FILE      one capture of 64 KiB packets (made at test time)

damaged() writes the fixtures' packets damaged at random, also at test time.

The requests are frames the plug-in builds, byte for byte (reads, bit writes,
INT and REAL writes, remote read and write, each DLE doubling case among
them); the replies are laid out as the peer's controller answers (SRC and DST
swapped, reply flag in CMD, the request's TNS, a Multiple Service Packet
reply). Each NAME.pcapng comes with NAME.json: the requests it carries in
order, what each must be decoded as, and the reply each must be paired with.
"""

import json
import os
import random
import struct
import sys

from df1capture import (ACK, CONTROLLER_TO_HOST, DLE, ENQ, HOST_TO_CONTROLLER, KIND_DF1, STX,
                        KIND_REMOTE, KIND_UNFRAMED, NAK, Packet, block_check, cip_msp_reply,
                        cip_tag_reply, df1_reply_body, frame, hexbytes, read_pcapng,
                        remote_read_reply_body, remote_write_reply_body,
                        split_request, unstuff, write_pcapng)

# --------------------------------------------------- the plug-in's frames --

READ_N7_0_X10 = hexbytes("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                         " 52 05 91 04 4E 30 30 37 29 00 00 00 0A 00 00 00 00 00 00 00 10 03 78")
READ_B3_16_X2 = hexbytes("10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                         " 52 05 91 04 42 30 30 33 29 00 10 10 00 02 00 00 00 00 00 00 00 10 03 9C")
READ_F8_4_X1 = hexbytes("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                        " 52 05 91 04 46 30 30 38 29 00 04 00 01 00 00 00 00 00 00 00 10 03 84")
SET_B3_10_BIT5 = hexbytes("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                          " 4E 05 91 04 42 30 30 33 29 00 0A 00 02 00 20 00 FF FF 00 00 10 03 6C")
CLEAR_N7_0_BIT4 = hexbytes("10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                           " 4E 05 91 04 4E 30 30 37 29 00 00 00 02 00 00 00 EF FF 00 00 10 03 B2")
SET_N7_0_BIT4 = hexbytes("10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                         " 4E 05 91 04 4E 30 30 37 29 00 00 00 02 00 10 10 00 FF FF 00 00 10 03 92")
WRITE_N7_2_INTS = hexbytes("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                           " 53 05 91 04 4E 30 30 37 29 00 02 00 C3 00 02 00 00 00 00 00 34 12"
                           " 10 10 00 10 03 64")
WRITE_B3_0_INT = hexbytes("10 06 10 02 00 00 0B 00 42 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                          " 53 05 91 04 42 30 30 33 29 00 00 00 C3 00 01 00 00 00 00 00 05 00"
                          " 10 03 A7")
WRITE_F8_4_REAL = hexbytes("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                           " 53 05 91 04 46 30 30 38 29 00 04 00 CA 00 01 00 00 00 00 00 00 00"
                           " C0 3F 10 03 BA")
WRITE_F8_0_REALS = hexbytes("10 06 10 02 00 00 0B 00 0A 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                            " 53 05 91 04 46 30 30 38 29 00 00 00 CA 00 02 00 00 00 00 00 00 00"
                            " 80 3F 00 00 00 40 10 03 D4")
WRITE_F8_1_ZERO = hexbytes("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00"
                           " 53 05 91 04 46 30 30 38 29 00 01 00 CA 00 01 00 00 00 00 00 00 00"
                           " 00 00 10 03 BC")
REMOTE_READ_N7_5_X10 = hexbytes("16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33")
REMOTE_WRITE_N7_5 = hexbytes("18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00"
                             " 34 12 72")

SVC_READ_FRAG, SVC_WRITE_FRAG, SVC_RMW = 0x52, 0x53, 0x4E
TYPE_INT, TYPE_REAL = 0xC3, 0xCA


def ints(values):
    return b"".join(struct.pack("<h", v) for v in values)


def reals(values):
    return b"".join(struct.pack("<f", v) for v in values)


def read_reply(service, data_type, data):
    return cip_msp_reply([cip_tag_reply(service, data_type=data_type, data=data)])


def write_reply(service):
    return cip_msp_reply([cip_tag_reply(service)])


class Line:
    """Builds one capture: packets with time stamps 1 ms apart (10 ms
    before a reply), and the expectation list."""

    def __init__(self):
        self.packets = []
        self.expected = []
        self.ts = 1_700_000_000_000_000_000

    def add(self, direction, kind, data, gap_ms=1, raw=None):
        self.ts += gap_ms * 1_000_000
        self.packets.append(Packet(direction, kind, data, self.ts, raw))
        return len(self.packets)  # frame number

    def ack(self, direction):
        return self.add(direction, KIND_DF1, bytes([DLE, ACK]))

    def request(self, line_bytes, expectation=None, ack_first=True):
        """The plug-in's request: its DLE ACK, then its data frame."""
        ack, data = split_request(line_bytes)
        if ack_first:
            self.add(HOST_TO_CONTROLLER, KIND_DF1, ack)
        number = self.add(HOST_TO_CONTROLLER, KIND_DF1, data)
        if expectation is not None:
            expectation["frame"] = number
            self.expected.append(expectation)
        return number

    def reply(self, request_line_bytes, cip_reply, bcc=None, reply_expectation=None):
        """The controller's DLE ACK, then its reply frame."""
        self.ack(CONTROLLER_TO_HOST)
        body, _ = unstuff(split_request(request_line_bytes)[1])
        reply_body = df1_reply_body(body, cip_reply)
        number = self.add(CONTROLLER_TO_HOST, KIND_DF1, frame(reply_body, bcc), gap_ms=10)
        if reply_expectation is not None and self.expected:
            reply_expectation["frame"] = number
            self.expected[-1]["reply"] = reply_expectation
        return number

    def exchange(self, request_line_bytes, expectation, cip_reply, reply_expectation):
        self.request(request_line_bytes, expectation)
        self.reply(request_line_bytes, cip_reply, reply_expectation=reply_expectation)

    def remote(self, request_bytes, expectation, reply_body, reply_expectation):
        number = self.add(HOST_TO_CONTROLLER, KIND_REMOTE, request_bytes)
        expectation["frame"] = number
        self.expected.append(expectation)
        if reply_body is not None:
            # Remote replies come back in the DF1 envelope.
            self.ack(CONTROLLER_TO_HOST)
            reply_expectation["frame"] = self.add(CONTROLLER_TO_HOST, KIND_DF1, frame(reply_body),
                                                  gap_ms=10)
            expectation["reply"] = reply_expectation
        else:
            expectation["reply"] = None

    def save(self, folder, name, **extra):
        write_pcapng(os.path.join(folder, name + ".pcapng"), self.packets)
        with open(os.path.join(folder, name + ".json"), "w") as out:
            json.dump(dict(requests=self.expected, **extra), out, indent=1)
            out.write("\n")


def read(tag, element, count, tns, **more):
    return dict(service="Read Tag Fragmented", tag=tag, element=element, count=count, offset=0,
                tns=tns, **more)


def write(tag, element, count, tns, type_name, values):
    return dict(service="Write Tag Fragmented", tag=tag, element=element, count=count, offset=0,
                tns=tns, type=type_name, values=values)


def rmw(tag, element, tns, or_mask, and_mask, bit, bit_set):
    return dict(service="Read-Modify-Write Tag", tag=tag, element=element, tns=tns,
                or_mask=or_mask, and_mask=and_mask, bit=bit, bit_set=bit_set)


def reads(folder):
    line = Line()
    n7 = [0, 1, 2, 16, -1, 1234, 0, 0, 4112, 7]  # 16 and 4112 carry DLE bytes
    line.exchange(READ_N7_0_X10, read("N007", 0, 10, 0x21),
                  read_reply(SVC_READ_FRAG, TYPE_INT, ints(n7)),
                  dict(status=0, type="INT", values=n7))
    b3 = [4096, 5]
    line.exchange(READ_B3_16_X2, read("B003", 16, 2, 0x05),
                  read_reply(SVC_READ_FRAG, TYPE_INT, ints(b3)),
                  dict(status=0, type="INT", values=b3))
    line.exchange(READ_F8_4_X1, read("F008", 4, 1, 0x21),
                  read_reply(SVC_READ_FRAG, TYPE_REAL, reals([1.5])),
                  dict(status=0, type="REAL", values=[1.5]))
    line.ack(HOST_TO_CONTROLLER)
    line.save(folder, "reads")


def writes(folder):
    line = Line()
    line.exchange(SET_B3_10_BIT5, rmw("B003", 10, 0x21, 0x0020, 0xFFFF, 5, True),
                  write_reply(SVC_RMW), dict(status=0))
    line.exchange(CLEAR_N7_0_BIT4, rmw("N007", 0, 0x05, 0x0000, 0xFFEF, 4, False),
                  write_reply(SVC_RMW), dict(status=0))
    line.exchange(SET_N7_0_BIT4, rmw("N007", 0, 0x05, 0x0010, 0xFFFF, 4, True),
                  write_reply(SVC_RMW), dict(status=0))
    line.exchange(WRITE_N7_2_INTS, write("N007", 2, 2, 0x21, "INT", [0x1234, 0x0010]),
                  write_reply(SVC_WRITE_FRAG), dict(status=0))
    line.exchange(WRITE_B3_0_INT, write("B003", 0, 1, 0x42, "INT", [5]),
                  write_reply(SVC_WRITE_FRAG), dict(status=0))
    line.exchange(WRITE_F8_4_REAL, write("F008", 4, 1, 0x21, "REAL", [1.5]),
                  write_reply(SVC_WRITE_FRAG), dict(status=0))
    line.exchange(WRITE_F8_0_REALS, write("F008", 0, 2, 0x0A, "REAL", [1.0, 2.0]),
                  write_reply(SVC_WRITE_FRAG), dict(status=0))
    line.exchange(WRITE_F8_1_ZERO, write("F008", 1, 1, 0x21, "REAL", [0.0]),
                  write_reply(SVC_WRITE_FRAG), dict(status=0))
    line.ack(HOST_TO_CONTROLLER)
    line.save(folder, "writes")


def remote(folder):
    line = Line()
    words = [10, 20, 30, 16, 0, 0, 0, 0, 0, 0x1234]
    line.remote(REMOTE_READ_N7_5_X10,
                dict(remote="read", address="N7:5", data_type=3, count=10, var_id=1, station=2),
                remote_read_reply_body(2, 1, ints(words)), dict(status=0, values=words))
    line.remote(REMOTE_WRITE_N7_5,
                dict(remote="write", address="N7:5", data_type=3, count=1, var_id=1, station=2,
                     values=[0x1234]),
                remote_write_reply_body(2, 2), dict(status=0, written=True))
    # A request whose checksum is wrong gets no reply.
    damaged = bytearray(REMOTE_READ_N7_5_X10)
    damaged[-1] ^= 0xFF
    line.add(HOST_TO_CONTROLLER, KIND_REMOTE, damaged)
    line.save(folder, "remote")


def with_tns(line_bytes, tns):
    """The read frame again with another TNS byte, written undoubled as the
    plug-in writes it (a TNS of 0x10 goes out once), and its BCC redone."""
    out = bytearray(line_bytes)
    out[8] = tns
    body, _ = unstuff(bytes(out[2:]))
    out[-1] = block_check(body)
    return bytes(out)


def faults(folder):
    line = Line()
    n7 = [0, 1, 2, 3, 4, 5, 6, 7, 8, 9]
    n7_reply = read_reply(SVC_READ_FRAG, TYPE_INT, ints(n7))
    # 1: a reply whose block check is wrong, refused by the host, then the
    # retry of the same request (same TNS) and its good reply.
    line.request(READ_N7_0_X10, read("N007", 0, 10, 0x21))
    good_bcc = frame(df1_reply_body(unstuff(READ_N7_0_X10[2:])[0], n7_reply))[-1]
    line.reply(READ_N7_0_X10, n7_reply, bcc=good_bcc ^ 0xFF,
               reply_expectation=dict(status=0, type="INT", values=n7, bad_bcc=True))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, bytes([DLE, NAK]))
    line.exchange(READ_N7_0_X10, read("N007", 0, 10, 0x21), n7_reply,
                  dict(status=0, type="INT", values=n7))
    # 2: a dropped reply: the controller acknowledges the write and never
    # answers; the host's retry is answered.
    line.request(WRITE_B3_0_INT, write("B003", 0, 1, 0x42, "INT", [5]))
    line.ack(CONTROLLER_TO_HOST)
    line.expected[-1]["reply"] = None
    line.exchange(WRITE_B3_0_INT, write("B003", 0, 1, 0x42, "INT", [5]),
                  write_reply(SVC_WRITE_FRAG), dict(status=0))
    # 3: a request damaged on the way, refused by the controller with DLE NAK.
    damaged = bytearray(READ_F8_4_X1)
    damaged[-1] ^= 0x5A
    line.add(HOST_TO_CONTROLLER, KIND_DF1, bytes([DLE, ACK]))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, bytes(damaged[2:]))
    line.add(CONTROLLER_TO_HOST, KIND_DF1, bytes([DLE, NAK]))
    # 4: error replies of the controller: an extended status, then a path error.
    line.exchange(READ_F8_4_X1, read("F008", 4, 1, 0x21),
                  cip_msp_reply([cip_tag_reply(SVC_READ_FRAG, 0xFF, extended=0x2105)]),
                  dict(status=0xFF, ext_status=0x2105))
    line.exchange(READ_B3_16_X2, read("B003", 16, 2, 0x05),
                  cip_msp_reply([cip_tag_reply(SVC_READ_FRAG, 0x04)]), dict(status=0x04))
    # 5: the first request after start may carry TNS 0x10 undoubled.
    tns10 = with_tns(READ_N7_0_X10, 0x10)
    line.exchange(tns10, read("N007", 0, 10, 0x10), n7_reply,
                  dict(status=0, type="INT", values=n7))
    # 6: a request whose DLE ACK lead-in was not cut into a packet of its own.
    line.add(HOST_TO_CONTROLLER, KIND_DF1, READ_B3_16_X2)
    line.expected.append(dict(read("B003", 16, 2, 0x05), frame=len(line.packets)))
    line.reply(READ_B3_16_X2, read_reply(SVC_READ_FRAG, TYPE_INT, ints([1, 2])),
               reply_expectation=dict(status=0, type="INT", values=[1, 2]))
    # 7: what is not a frame: noise, a frame cut short, an ENQ, and packets
    # that are damaged themselves.
    line.add(CONTROLLER_TO_HOST, KIND_UNFRAMED, hexbytes("55 AA 00 FF 13"))
    line.add(CONTROLLER_TO_HOST, KIND_UNFRAMED, hexbytes("10 02 00 00 4B 00 21 00 00"))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, bytes([DLE, ENQ]))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, b"", raw=b"")
    line.add(HOST_TO_CONTROLLER, KIND_DF1, b"", raw=b"\x00\x01")
    line.add(HOST_TO_CONTROLLER, 7, hexbytes("01 02 03"))
    line.add(5, KIND_DF1, bytes([DLE, ACK]))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, hexbytes("41 42 43"))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, hexbytes("10 02 00 00 0B 00 21 00 00 00 0A"))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, hexbytes("10 02 00 00 0B 10 03"))
    # A request cut inside its CIP path: Wireshark's CIP dissector reports it
    # as a malformed packet.
    cut_cip = line.add(HOST_TO_CONTROLLER, KIND_DF1,
                       frame(hexbytes("00 00 0B 00 22 00 00 00 0A 02 20")))
    line.expected.append(dict(tns=0x22, frame=cut_cip, reply=None))
    line.add(HOST_TO_CONTROLLER, KIND_REMOTE, hexbytes("16 01 00 01 02"))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, b"")
    line.add(HOST_TO_CONTROLLER, KIND_REMOTE, b"")
    line.add(CONTROLLER_TO_HOST, KIND_UNFRAMED, b"")
    line.add(HOST_TO_CONTROLLER, KIND_DF1, bytes([DLE]))
    line.add(HOST_TO_CONTROLLER, KIND_DF1, bytes([DLE, STX]))
    line.add(CONTROLLER_TO_HOST, KIND_REMOTE, hexbytes("10 02 00"))
    line.save(folder, "faults", malformed_frames=[cut_cip])


def big(path):
    """Packets of 64 KiB: noise as a DF1 item, as a remote frame and as
    unframed bytes, and a data frame whose body is all DLE bytes."""
    noise = bytes((i * 37 + 11) & 0xFF for i in range(65536))
    ts = 1_700_000_000_000_000_000
    packets = [
        Packet(HOST_TO_CONTROLLER, KIND_DF1, noise, ts),
        Packet(HOST_TO_CONTROLLER, KIND_REMOTE, noise, ts + 1_000_000),
        Packet(CONTROLLER_TO_HOST, KIND_UNFRAMED, noise, ts + 2_000_000),
        Packet(CONTROLLER_TO_HOST, KIND_DF1, frame(bytes([DLE]) * 32768), ts + 3_000_000),
        Packet(HOST_TO_CONTROLLER, KIND_DF1, b"", ts + 4_000_000, raw=bytes(65536)),
    ]
    write_pcapng(path, packets)


def damaged(path, seed, fixtures):
    """Every packet of the fixture captures, damaged six ways at random (a
    fixed seed, so a failure can be repeated): cut short, bytes overwritten,
    a byte inserted (DLE, STX, ETX, ACK, 0x00 or 0xFF), another kind; half
    of the DF1 ones get their block check made right again, so that the
    damage reaches the CIP decoding."""
    rnd = random.Random(seed)
    packets = []
    ts = 1_700_000_000_000_000_000
    for name in fixtures:
        for original, _ in read_pcapng(name):
            if len(original) < 8:
                continue
            for _ in range(6):
                q = bytearray(original)
                how = rnd.randrange(4)
                if how == 0:
                    del q[rnd.randrange(4, len(q)):]
                elif how == 1:
                    for _ in range(rnd.randrange(1, 4)):
                        q[rnd.randrange(4, len(q))] = rnd.randrange(256)
                elif how == 2:
                    q.insert(rnd.randrange(4, len(q)),
                             rnd.choice([0x10, 0x02, 0x03, 0x06, 0x00, 0xFF]))
                else:
                    q[1] = rnd.randrange(3)
                if q[1] == KIND_DF1 and rnd.random() < 0.5:
                    whole = unstuff(bytes(q[4:]))
                    if whole:
                        q = q[:4] + frame(whole[0])
                ts += 1_000_000
                packets.append(Packet(0, 0, b"", ts, raw=bytes(q)))
    write_pcapng(path, packets)


def main(argv):
    if len(argv) == 3 and argv[1] == "--big":
        big(argv[2])
        return 0
    folder = argv[1] if len(argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                        "captures")
    os.makedirs(folder, exist_ok=True)
    reads(folder)
    writes(folder)
    remote(folder)
    faults(folder)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
