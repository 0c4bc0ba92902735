"""Captures of the serial line, written and read with the standard library.

A capture is pcapng: one section header, one interface of link type 147
(LINKTYPE_USER0) with nanosecond time stamps, one enhanced packet block per
packet. A packet is a 4-byte pseudo-header (direction, kind, 0, 0) and the
bytes as they crossed the line, doubled DLEs kept.

Besides the file format this module holds a second, small reading of the
frames (DLE doubling, block check, remote checksum, the peer controller's
reply layouts), so that the tests can work out what the dissector must show
without asking the dissector.
"""

import struct

LINKTYPE_USER0 = 147
HOST_TO_CONTROLLER, CONTROLLER_TO_HOST = 0, 1
KIND_DF1, KIND_REMOTE, KIND_UNFRAMED = 0, 1, 2

DLE, STX, ETX, ENQ, ACK, NAK = 0x10, 0x02, 0x03, 0x05, 0x06, 0x15

_SHB, _IDB, _EPB = 0x0A0D0D0A, 0x00000001, 0x00000006
_BYTE_ORDER_MAGIC = 0x1A2B3C4D
_OPT_END, _OPT_IF_NAME, _OPT_IF_TSRESOL = 0, 2, 9


# --------------------------------------------------------------- pcapng --

def _block(block_type, body):
    pad = (-len(body)) % 4
    total = 12 + len(body) + pad
    return struct.pack("<II", block_type, total) + body + b"\0" * pad + struct.pack("<I", total)


def _option(code, value):
    pad = (-len(value)) % 4
    return struct.pack("<HH", code, len(value)) + value + b"\0" * pad


class Packet:
    """One packet: pseudo-header fields and the line bytes; `raw` overrides
    the whole packet data (for packets without a complete pseudo-header)."""

    def __init__(self, direction, kind, data, ts_ns, raw=None):
        self.direction = direction
        self.kind = kind
        self.data = bytes(data)
        self.ts_ns = ts_ns
        self.raw = raw

    def packet_bytes(self):
        if self.raw is not None:
            return bytes(self.raw)
        return bytes([self.direction, self.kind, 0, 0]) + self.data


def write_pcapng(path, packets, interface_name="serial line"):
    with open(path, "wb") as out:
        out.write(_block(_SHB, struct.pack("<IHHq", _BYTE_ORDER_MAGIC, 1, 0, -1)))
        options = (_option(_OPT_IF_NAME, interface_name.encode())
                   + _option(_OPT_IF_TSRESOL, bytes([9])) + _option(_OPT_END, b""))
        out.write(_block(_IDB, struct.pack("<HHI", LINKTYPE_USER0, 0, 0) + options))
        for packet in packets:
            data = packet.packet_bytes()
            ts = packet.ts_ns
            body = struct.pack("<IIIII", 0, ts >> 32, ts & 0xFFFFFFFF, len(data), len(data)) + data
            out.write(_block(_EPB, body))


def read_pcapng(path):
    """The packets of a capture written as above (or by the tools): a list of
    (packet bytes, time stamp in ns). Only what these captures use is read."""
    with open(path, "rb") as f:
        blob = f.read()
    packets = []
    pos = 0
    resolution = 1000  # microseconds unless the interface says otherwise
    endian = "<"
    while pos + 12 <= len(blob):
        block_type, = struct.unpack_from(endian + "I", blob, pos)
        if block_type == _SHB:
            magic, = struct.unpack_from("<I", blob, pos + 8)
            endian = "<" if magic == _BYTE_ORDER_MAGIC else ">"
        total, = struct.unpack_from(endian + "I", blob, pos + 4)
        if total < 12 or pos + total > len(blob):
            raise ValueError("%s: broken block at %d" % (path, pos))
        body = blob[pos + 8:pos + total - 4]
        if block_type == _IDB:
            link_type, = struct.unpack_from(endian + "H", body, 0)
            if link_type != LINKTYPE_USER0:
                raise ValueError("%s: link type %d, not %d" % (path, link_type, LINKTYPE_USER0))
            opt = 8
            while opt + 4 <= len(body):
                code, length = struct.unpack_from(endian + "HH", body, opt)
                if code == _OPT_END:
                    break
                if code == _OPT_IF_TSRESOL:
                    value = body[opt + 4]
                    resolution = 10 ** (value & 0x7F) if not value & 0x80 else 2 ** (value & 0x7F)
                opt += 4 + length + ((-length) % 4)
        elif block_type == _EPB:
            _, hi, lo, captured, _ = struct.unpack_from(endian + "IIIII", body, 0)
            ticks = (hi << 32) | lo
            packets.append((body[20:20 + captured], ticks * 10**9 // resolution))
        pos += total
    return packets


# ------------------------------------------------------------ the frames --

def block_check(body):
    """Two's complement of the 8-bit sum of the un-stuffed body."""
    return (-sum(body)) & 0xFF


def remote_checksum(data):
    return sum(data) & 0xFF


def stuff(body):
    return bytes(body).replace(b"\x10", b"\x10\x10")


def frame(body, bcc=None):
    """DLE STX, the body with every DLE doubled, DLE ETX, the block check."""
    check = block_check(body) if bcc is None else bcc
    return bytes([DLE, STX]) + stuff(body) + bytes([DLE, ETX, check])


def hexbytes(text):
    return bytes.fromhex(text.replace("\n", " "))


def unstuff(line_bytes):
    """(body, bcc) of a data frame as it crossed the line (DLE STX first), or
    None when it has no DLE ETX and check. A DLE followed by a byte other than
    DLE or ETX is kept as data together with that byte."""
    if len(line_bytes) < 2 or line_bytes[0] != DLE or line_bytes[1] != STX:
        return None
    body = bytearray()
    i = 2
    while i < len(line_bytes):
        b = line_bytes[i]
        if b == DLE and i + 1 < len(line_bytes):
            nxt = line_bytes[i + 1]
            if nxt == ETX:
                if i + 2 < len(line_bytes):
                    return bytes(body), line_bytes[i + 2]
                return None
            if nxt == DLE:
                body.append(DLE)
                i += 2
                continue
        body.append(b)
        i += 1
    return None


def split_request(line_bytes):
    """A request as the plug-in sends it (DLE ACK DLE STX ...) becomes two
    packets' bytes: the DLE ACK, then the data frame."""
    assert line_bytes[:4] == bytes([DLE, ACK, DLE, STX])
    return line_bytes[:2], line_bytes[2:]


# ---------------------------------------- the controller's reply layouts --

def cip_tag_reply(service, status=0, extended=None, data_type=None, data=b""):
    """service|0x80, 0, general status, extended size, [extended], [type, data]."""
    out = bytearray([service | 0x80, 0, status, 1 if extended is not None else 0])
    if extended is not None:
        out += struct.pack("<H", extended)
    if data_type is not None:
        out += struct.pack("<H", data_type) + bytes(data)
    return bytes(out)


def cip_msp_reply(replies):
    failed = any(r[2] != 0 for r in replies)
    out = bytearray([0x8A, 0, 0x1E if failed else 0, 0])
    out += struct.pack("<H", len(replies))
    offset = 2 + 2 * len(replies)
    for r in replies:
        out += struct.pack("<H", offset)
        offset += len(r)
    for r in replies:
        out += r
    return bytes(out)


def df1_reply_body(request_body, cip_reply):
    """The controller's answer to a request body: SRC and DST swapped, the
    reply flag in CMD, STS 0, the request's TNS and its two bytes before the
    CIP message, then the CIP reply."""
    return bytes([request_body[1], request_body[0], request_body[2] | 0x40, 0,
                  request_body[4], request_body[5], request_body[6], request_body[7]]) + cip_reply


def remote_read_reply_body(station, transaction, data, status=0):
    body = bytes([station, 0, 0x41, status, transaction, 0]) + bytes(data)
    # Padded so that the framed reply has at least 27 bytes.
    return body + b"\0" * max(0, 20 - len(body))


def remote_write_reply_body(station, transaction, written=True, status=0):
    return bytes([station, 0, 0x42, status, transaction, 0, 0x06 if written else 0x15])
