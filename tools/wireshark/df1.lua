-- Wireshark dissector for captures of the plug-in's serial line.
--
-- A capture (pcapng, link type 147 = LINKTYPE_USER0) holds one packet per
-- item that crossed the line. Each packet starts with a 4-byte pseudo-header:
--   byte 0  direction: 0 host -> controller, 1 controller -> host
--   byte 1  kind: 0 a DF1 item (DLE ACK/NAK/ENQ, or DLE STX ... DLE ETX and
--           its block check), 1 a remote-mode frame, 2 bytes that form no
--           frame (noise, a frame cut short)
--   bytes 2 and 3: 0
-- followed by the bytes exactly as they crossed the line, doubled DLEs kept.
--
-- DF1 data frames of command 0x0B carry a CIP Multiple Service Packet for the
-- Message Router. The embedded request and reply are handed to Wireshark's own
-- CIP dissector (so cip.* filters such as cip.symbol work), and decoded here as
-- well, because the tag services (Read Tag Fragmented, Write Tag Fragmented,
-- Read-Modify-Write Tag) are shown there only as unknown services.
--
-- Requests and replies are paired by transaction number (TNS) and station
-- pair; remote-mode frames, which carry no transaction number, by order.
-- Pairing is done on the first pass over the capture: in tshark use -2 so
-- that a request also shows the frame its reply is in.
--
-- Load it with `tshark -X lua_script:df1.lua` or copy it into the personal
-- plugins folder (~/.local/lib/wireshark/plugins/).

local df1 = Proto("df1", "DF1 serial line (CIP over DF1, remote frames)")

---------------------------------------------------------------------------
-- Protocol numbers
---------------------------------------------------------------------------

local DLE, STX, ETX, ENQ, ACK, NAK = 0x10, 0x02, 0x03, 0x05, 0x06, 0x15

local PSEUDO_HEADER_SIZE = 4
local KIND_DF1, KIND_REMOTE, KIND_UNFRAMED = 0, 1, 2
local HOST_TO_CONTROLLER, CONTROLLER_TO_HOST = 0, 1

local DF1_HEADER_SIZE = 6        -- DST SRC CMD STS TNS(2)
local CIP_PREFIX_SIZE = 2        -- two bytes between the DF1 header and the CIP message
local CMD_CIP = 0x0B
local CMD_REPLY_FLAG = 0x40
local CMD_REMOTE_READ_REPLY, CMD_REMOTE_WRITE_REPLY = 0x41, 0x42

local SVC_MULTIPLE = 0x0A
local SVC_READ_TAG, SVC_WRITE_TAG, SVC_RMW = 0x4C, 0x4D, 0x4E
local SVC_READ_FRAG, SVC_WRITE_FRAG = 0x52, 0x53
local SVC_REPLY_FLAG = 0x80
local CIP_EMBEDDED_SERVICE_ERROR = 0x1E

local SEG_CLASS8, SEG_INSTANCE8 = 0x20, 0x24
local SEG_MEMBER8, SEG_MEMBER16, SEG_MEMBER32 = 0x28, 0x29, 0x2A
local SEG_SYMBOL = 0x91

local REMOTE_FIXED_SIZE = 22     -- a remote request without value bytes
local REMOTE_WRITE_DONE, REMOTE_WRITE_REFUSED = 0x06, 0x15

-- How many values the Info column lists before it abbreviates.
local INFO_VALUES = 4

---------------------------------------------------------------------------
-- Names
---------------------------------------------------------------------------

local direction_names = {
    [HOST_TO_CONTROLLER] = "Host \226\134\146 Controller",
    [CONTROLLER_TO_HOST] = "Controller \226\134\146 Host",
}
local kind_names = {
    [KIND_DF1] = "DF1 item",
    [KIND_REMOTE] = "Remote-mode frame",
    [KIND_UNFRAMED] = "Not a frame",
}
local control_names = { [ACK] = "ACK", [NAK] = "NAK", [ENQ] = "ENQ" }
local cmd_names = {
    [CMD_CIP] = "CIP request",
    [CMD_CIP + CMD_REPLY_FLAG] = "CIP reply",
    [CMD_REMOTE_READ_REPLY] = "Remote read reply",
    [CMD_REMOTE_WRITE_REPLY] = "Remote write reply",
}
local sts_names = { [0x00] = "Success", [0x10] = "Illegal command or format" }
local service_names = {
    [SVC_MULTIPLE] = "Multiple Service Packet",
    [SVC_READ_TAG] = "Read Tag",
    [SVC_WRITE_TAG] = "Write Tag",
    [SVC_RMW] = "Read-Modify-Write Tag",
    [SVC_READ_FRAG] = "Read Tag Fragmented",
    [SVC_WRITE_FRAG] = "Write Tag Fragmented",
}
local cip_status_names = {
    [0x00] = "Success",
    [0x01] = "Connection failure",
    [0x02] = "Resource unavailable",
    [0x03] = "Invalid parameter value",
    [0x04] = "Path segment error",
    [0x05] = "Path destination unknown",
    [0x06] = "Partial transfer",
    [0x07] = "Connection lost",
    [0x08] = "Service not supported",
    [0x09] = "Invalid attribute value",
    [0x0A] = "Attribute list error",
    [0x0C] = "Object state conflict",
    [0x0E] = "Attribute not settable",
    [0x0F] = "Privilege violation",
    [0x10] = "Device state conflict",
    [0x11] = "Reply data too large",
    [0x13] = "Not enough data",
    [0x14] = "Attribute not supported",
    [0x15] = "Too much data",
    [0x16] = "Object does not exist",
    [0x1E] = "Embedded service error",
    [0x1F] = "Vendor specific error",
    [0x20] = "Invalid parameter",
    [0x26] = "Path size invalid",
    [0xFF] = "General error",
}
local ext_status_names = {
    [0x2104] = "Offset beyond end of tag",
    [0x2105] = "Elements beyond end of tag",
    [0x2107] = "Data type mismatch",
}
local type_names = {
    [0xC1] = "BOOL", [0xC2] = "SINT", [0xC3] = "INT", [0xC4] = "DINT",
    [0xC6] = "USINT", [0xC7] = "UINT", [0xC8] = "UDINT", [0xCA] = "REAL",
    [0xD3] = "DWORD",
}
-- Element size and how to read one element of each type the decoder knows.
local type_layout = {
    [0xC1] = { size = 1, read = function(r) return r:le_int() end },
    [0xC2] = { size = 1, read = function(r) return r:le_int() end },
    [0xC3] = { size = 2, read = function(r) return r:le_int() end },
    [0xC4] = { size = 4, read = function(r) return r:le_int() end },
    [0xC6] = { size = 1, read = function(r) return r:le_uint() end },
    [0xC7] = { size = 2, read = function(r) return r:le_uint() end },
    [0xC8] = { size = 4, read = function(r) return r:le_uint() end },
    [0xCA] = { size = 4, read = function(r) return r:le_float() end },
    [0xD3] = { size = 4, read = function(r) return r:le_uint() end },
}
local remote_type_names = {
    [0] = "bit of a B file", [1] = "bit of an N file",
    [2] = "word of a B file", [3] = "word of an N file",
    [4] = "REAL of an F file",
}
local remote_letters = { [0] = "B", [1] = "N", [2] = "B", [3] = "N", [4] = "F" }
local remote_status_names = {
    [0x00] = "Success", [0x05] = "No such address",
    [0x08] = "Data type not supported", [0x13] = "Not enough data",
}
local remote_write_result_names = {
    [REMOTE_WRITE_DONE] = "Written", [REMOTE_WRITE_REFUSED] = "Refused",
}

---------------------------------------------------------------------------
-- Fields
---------------------------------------------------------------------------

local f = {
    direction = ProtoField.uint8("df1.direction", "Direction", base.DEC, direction_names),
    kind = ProtoField.uint8("df1.kind", "Kind", base.DEC, kind_names),
    reserved = ProtoField.uint16("df1.reserved", "Reserved", base.HEX),

    control = ProtoField.uint8("df1.control", "Link symbol", base.HEX, control_names),
    ack_of = ProtoField.framenum("df1.ack_of", "Acknowledges frame", base.NONE, frametype.ACK),
    nak_of = ProtoField.framenum("df1.nak_of", "Refuses frame", base.NONE),
    stray = ProtoField.bytes("df1.stray", "Bytes outside any item"),

    doubled = ProtoField.uint16("df1.dle_doubled", "Doubled DLEs", base.DEC),
    lone_dle = ProtoField.uint16("df1.lone_dle", "Undoubled DLEs kept as data", base.DEC),
    bcc = ProtoField.uint8("df1.bcc", "BCC", base.HEX),
    bcc_computed = ProtoField.uint8("df1.bcc.computed", "Computed BCC", base.HEX),
    bcc_bad = ProtoField.bool("df1.bcc_bad", "Bad BCC"),
    crc = ProtoField.uint16("df1.crc", "CRC-16", base.HEX),
    crc_computed = ProtoField.uint16("df1.crc.computed", "Computed CRC-16", base.HEX),
    crc_bad = ProtoField.bool("df1.crc_bad", "Bad CRC-16"),

    dst = ProtoField.uint8("df1.dst", "DST", base.HEX),
    src = ProtoField.uint8("df1.src", "SRC", base.HEX),
    cmd = ProtoField.uint8("df1.cmd", "CMD", base.HEX, cmd_names),
    sts = ProtoField.uint8("df1.sts", "STS", base.HEX, sts_names),
    tns = ProtoField.uint16("df1.tns", "TNS", base.HEX),
    prefix = ProtoField.uint16("df1.prefix", "Bytes before the CIP message", base.HEX),
    data = ProtoField.bytes("df1.data", "Data"),

    response_in = ProtoField.framenum("df1.response_in", "Response in", base.NONE,
        frametype.RESPONSE),
    request_in = ProtoField.framenum("df1.request_in", "Request in", base.NONE,
        frametype.REQUEST),
    time = ProtoField.relative_time("df1.time", "Response time"),
    unanswered = ProtoField.bool("df1.unanswered", "No reply in this capture"),

    cip_service = ProtoField.uint8("df1.cip.service", "Service", base.HEX, service_names, 0x7F),
    cip_response = ProtoField.bool("df1.cip.response", "Response", 8, nil, SVC_REPLY_FLAG),
    cip_path_size = ProtoField.uint8("df1.cip.path_size", "Path size (words)", base.DEC),
    cip_class = ProtoField.uint8("df1.cip.class", "Class", base.HEX),
    cip_instance = ProtoField.uint8("df1.cip.instance", "Instance", base.HEX),
    cip_tag = ProtoField.string("df1.cip.tag", "Tag"),
    cip_element = ProtoField.uint32("df1.cip.element", "Element", base.DEC),
    cip_services = ProtoField.uint16("df1.cip.services", "Embedded services", base.DEC),
    cip_service_offset = ProtoField.uint16("df1.cip.service_offset", "Service offset", base.DEC),
    cip_count = ProtoField.uint16("df1.cip.count", "Element count", base.DEC),
    cip_offset = ProtoField.uint32("df1.cip.offset", "Byte offset", base.DEC),
    cip_type = ProtoField.uint16("df1.cip.type", "Data type", base.HEX, type_names),
    cip_value = ProtoField.double("df1.cip.value", "Value"),
    cip_mask_size = ProtoField.uint16("df1.cip.mask_size", "Mask size (bytes)", base.DEC),
    cip_or_mask = ProtoField.uint32("df1.cip.or_mask", "OR mask", base.HEX),
    cip_and_mask = ProtoField.uint32("df1.cip.and_mask", "AND mask", base.HEX),
    cip_bit = ProtoField.uint8("df1.cip.bit", "Bit", base.DEC),
    cip_bit_set = ProtoField.bool("df1.cip.bit_set", "Sets the bit"),
    cip_trailing = ProtoField.bytes("df1.cip.trailing", "Bytes after the service data"),
    cip_status = ProtoField.uint8("df1.cip.status", "General status", base.HEX, cip_status_names),
    cip_ext_size = ProtoField.uint8("df1.cip.ext_status_size", "Extended status size (words)",
        base.DEC),
    cip_ext_status = ProtoField.uint16("df1.cip.ext_status", "Extended status", base.HEX,
        ext_status_names),
    cip_data = ProtoField.bytes("df1.cip.data", "Data"),

    remote_length = ProtoField.uint8("df1.remote.length", "Length", base.DEC),
    remote_var_id = ProtoField.uint8("df1.remote.var_id", "varId", base.HEX),
    remote_aux2 = ProtoField.uint8("df1.remote.aux2", "aux2", base.DEC),
    remote_link_no = ProtoField.uint8("df1.remote.link_no", "linkNo", base.DEC),
    remote_station = ProtoField.uint8("df1.remote.station", "Station", base.DEC),
    remote_data_type = ProtoField.uint16("df1.remote.data_type", "dataType", base.DEC,
        remote_type_names),
    remote_address = ProtoField.uint32("df1.remote.address", "Address", base.HEX),
    remote_file = ProtoField.uint32("df1.remote.file", "File", base.DEC),
    remote_element = ProtoField.uint32("df1.remote.element", "Element", base.DEC),
    remote_bit = ProtoField.uint8("df1.remote.bit", "Bit", base.DEC),
    remote_count = ProtoField.uint16("df1.remote.count", "Count", base.DEC),
    remote_aux12 = ProtoField.uint32("df1.remote.aux12", "aux12", base.HEX),
    remote_aux13 = ProtoField.uint32("df1.remote.aux13", "aux13", base.HEX),
    remote_data = ProtoField.bytes("df1.remote.data", "Data"),
    remote_value = ProtoField.double("df1.remote.value", "Value"),
    remote_checksum = ProtoField.uint8("df1.remote.checksum", "Checksum", base.HEX),
    remote_checksum_computed = ProtoField.uint8("df1.remote.checksum.computed",
        "Computed checksum", base.HEX),
    remote_sum_bad = ProtoField.bool("df1.remote.sum_bad", "Bad checksum"),
    remote_status = ProtoField.uint8("df1.remote.status", "Status", base.HEX, remote_status_names),
    remote_write_result = ProtoField.uint8("df1.remote.write_result", "Write result", base.HEX,
        remote_write_result_names),
    remote_padding = ProtoField.bytes("df1.remote.padding", "Padding"),

    unframed = ProtoField.bytes("df1.unframed", "Not a frame"),
}
local field_list = {}
for _, field in pairs(f) do field_list[#field_list + 1] = field end
df1.fields = field_list

local e = {
    short = ProtoExpert.new("df1.expert.short", "Packet shorter than the pseudo-header",
        expert.group.MALFORMED, expert.severity.ERROR),
    header_value = ProtoExpert.new("df1.expert.header_value", "Unknown pseudo-header value",
        expert.group.MALFORMED, expert.severity.WARN),
    malformed = ProtoExpert.new("df1.expert.malformed", "Malformed item",
        expert.group.MALFORMED, expert.severity.ERROR),
    bad_bcc = ProtoExpert.new("df1.expert.bad_bcc", "Bad BCC",
        expert.group.CHECKSUM, expert.severity.ERROR),
    bad_crc = ProtoExpert.new("df1.expert.bad_crc", "Bad CRC-16",
        expert.group.CHECKSUM, expert.severity.ERROR),
    bad_sum = ProtoExpert.new("df1.expert.bad_sum", "Bad remote checksum",
        expert.group.CHECKSUM, expert.severity.ERROR),
    stray = ProtoExpert.new("df1.expert.stray", "Bytes outside any DF1 item",
        expert.group.PROTOCOL, expert.severity.WARN),
    lone_dle = ProtoExpert.new("df1.expert.lone_dle", "Undoubled DLE inside a frame, kept as data",
        expert.group.PROTOCOL, expert.severity.NOTE),
    unframed = ProtoExpert.new("df1.expert.unframed", "Bytes that form no frame",
        expert.group.UNDECODED, expert.severity.NOTE),
    nak = ProtoExpert.new("df1.expert.nak", "DLE NAK: the last frame was refused",
        expert.group.SEQUENCE, expert.severity.WARN),
    unanswered = ProtoExpert.new("df1.expert.unanswered", "No reply to this request in the capture",
        expert.group.SEQUENCE, expert.severity.WARN),
    cip_error = ProtoExpert.new("df1.expert.cip_error", "CIP error status",
        expert.group.RESPONSE_CODE, expert.severity.WARN),
    remote_error = ProtoExpert.new("df1.expert.remote_error", "Remote reply reports a failure",
        expert.group.RESPONSE_CODE, expert.severity.WARN),
    remote_length = ProtoExpert.new("df1.expert.remote_length",
        "Length byte does not match the frame",
        expert.group.MALFORMED, expert.severity.WARN),
}
df1.experts = { e.short, e.header_value, e.malformed, e.bad_bcc, e.bad_crc, e.bad_sum,
    e.stray, e.lone_dle, e.unframed, e.nak, e.unanswered, e.cip_error, e.remote_error,
    e.remote_length }

local CHECK_BCC, CHECK_CRC = 1, 2
df1.prefs.check = Pref.enum("Frame check", CHECK_BCC,
    "The check that follows DLE ETX: the 1-byte BCC the plug-in uses, or a 2-byte CRC-16",
    { { 1, "BCC", CHECK_BCC }, { 2, "CRC-16", CHECK_CRC } }, false)

local cip_dissector = Dissector.get("cip")

---------------------------------------------------------------------------
-- Per-capture state: pairing is worked out on the first pass and kept by
-- frame number, so later passes (and random access in the GUI) show it too.
---------------------------------------------------------------------------

local state
-- Direction of the packet being dissected (pseudo-header byte 0).
local current_direction = HOST_TO_CONTROLLER

local function reset_state()
    state = {
        frames = {},          -- frame number -> what was learnt about it
        pending_cip = {},     -- "tns:src:dst" -> frame number of the request
        pending_remote = nil, -- frame number of the last unanswered remote request
        last_data = {},       -- direction -> frame number of its last data frame
    }
end
df1.init = reset_state
reset_state()

local function frame_state(number)
    local s = state.frames[number]
    if not s then
        s = {}
        state.frames[number] = s
    end
    return s
end

---------------------------------------------------------------------------
-- Checks
---------------------------------------------------------------------------

-- Two's complement of the 8-bit sum: the block check over the un-stuffed body.
local function block_check(s)
    local sum = 0
    for i = 1, #s do sum = sum + s:byte(i) end
    return (256 - sum % 256) % 256
end

-- The remote frames' checksum: the plain 8-bit sum.
local function additive_sum(s)
    local sum = 0
    for i = 1, #s do sum = sum + s:byte(i) end
    return sum % 256
end

-- CRC-16/ARC: polynomial 0xA001 reflected, initial 0, no final XOR.
local function crc16(s)
    local crc = 0
    for i = 1, #s do
        crc = bit32.bxor(crc, s:byte(i))
        for _ = 1, 8 do
            if bit32.band(crc, 1) ~= 0 then
                crc = bit32.bxor(bit32.rshift(crc, 1), 0xA001)
            else
                crc = bit32.rshift(crc, 1)
            end
        end
    end
    return crc
end

---------------------------------------------------------------------------
-- Small helpers
---------------------------------------------------------------------------

local function hex16(v) return string.format("0x%04X", v) end

local function byte_count(n) return n == 1 and "1 byte" or string.format("%d bytes", n) end

local function format_value(v)
    if v == math.floor(v) and math.abs(v) < 1e15 then
        return string.format("%d", v)
    end
    return string.format("%.7g", v)
end

local function format_values(values)
    local parts = {}
    for i = 1, math.min(#values, INFO_VALUES) do parts[i] = format_value(values[i]) end
    if #values > INFO_VALUES then parts[#parts + 1] = "\226\128\166" end
    return table.concat(parts, ", ")
end

-- The bit a single-bit mask names, or nil.
local function single_bit(mask)
    for bit = 0, 31 do
        if mask == bit32.lshift(1, bit) then return bit end
    end
    return nil
end

-- A bounded reader over a Tvb: every read checks the bytes are there, so a
-- short message ends its decoding with an expert item instead of an error.
local Reader = {}
Reader.__index = Reader

local function reader(tvb, from, to)
    return setmetatable({ tvb = tvb, pos = from, stop = to }, Reader)
end

function Reader:left() return self.stop - self.pos end
function Reader:has(n) return self.stop - self.pos >= n end
function Reader:take(n)
    local r = self.tvb:range(self.pos, n)
    self.pos = self.pos + n
    return r
end
function Reader:rest()
    if self.pos >= self.stop then return nil end
    return self:take(self.stop - self.pos)
end

local function short(tree, what)
    tree:add_proto_expert_info(e.malformed, "Message ends inside the " .. what)
end

---------------------------------------------------------------------------
-- CIP: the tag services this line carries
---------------------------------------------------------------------------

-- Request path: symbol segment and member segment (and, for the Multiple
-- Service Packet, the Message Router's class and instance). Returns the tag
-- name and element found, if any.
local function dissect_path(rd, size, tree)
    local path_end = rd.pos + size
    local tag, element
    while rd.pos < path_end do
        local segment = rd.tvb:range(rd.pos, 1):uint()
        if segment == SEG_SYMBOL and rd.pos + 2 <= path_end then
            local length = rd.tvb:range(rd.pos + 1, 1):uint()
            local padded = length + length % 2
            if rd.pos + 2 + padded > path_end then break end
            rd:take(2)
            local name = rd:take(length)
            tag = name:string()
            tree:add(f.cip_tag, name)
            if padded > length then rd:take(1) end
        elseif segment == SEG_MEMBER8 and rd.pos + 2 <= path_end then
            rd:take(1)
            local r = rd:take(1)
            element = r:uint()
            tree:add(f.cip_element, r)
        elseif segment == SEG_MEMBER16 and rd.pos + 4 <= path_end then
            rd:take(2)  -- segment and pad
            local r = rd:take(2)
            element = r:le_uint()
            tree:add_le(f.cip_element, r)
        elseif segment == SEG_MEMBER32 and rd.pos + 6 <= path_end then
            rd:take(2)
            local r = rd:take(4)
            element = r:le_uint()
            tree:add_le(f.cip_element, r)
        elseif segment == SEG_CLASS8 and rd.pos + 2 <= path_end then
            rd:take(1)
            tree:add(f.cip_class, rd:take(1))
        elseif segment == SEG_INSTANCE8 and rd.pos + 2 <= path_end then
            rd:take(1)
            tree:add(f.cip_instance, rd:take(1))
        else
            break
        end
    end
    if rd.pos < path_end then
        local n = math.min(path_end, rd.stop) - rd.pos
        if n > 0 then
            tree:add(f.cip_data, rd:take(n)):append_text(" (path segments not decoded)")
        end
        if rd.pos < path_end then short(tree, "request path") end
        rd.pos = math.min(path_end, rd.stop)
    end
    return tag, element
end

-- Values of one data type, as many whole elements as the bytes hold.
local function dissect_values(rd, data_type, limit, tree, value_field)
    local layout = type_layout[data_type]
    local values = {}
    if not layout then
        local r = rd:rest()
        if r then tree:add(f.cip_data, r) end
        return values
    end
    while rd:has(layout.size) and (not limit or #values < limit) do
        local r = rd:take(layout.size)
        local v = layout.read(r)
        values[#values + 1] = v
        tree:add(value_field, r, v):append_text(" (" .. type_names[data_type] .. ")")
    end
    return values
end

local function add_trailing(rd, tree)
    local r = rd:rest()
    if r then tree:add(f.cip_trailing, r) end
end

-- One tag service request. Returns what it carries, for the Info column.
local function dissect_tag_request(tvb, from, to, tree)
    local rd = reader(tvb, from, to)
    local req = {}
    if not rd:has(2) then
        short(tree, "embedded request")
        return req
    end
    local svc_range = rd:take(1)
    req.service = bit32.band(svc_range:uint(), 0x7F)
    tree:add(f.cip_service, svc_range)
    tree:add(f.cip_response, svc_range)
    local size_range = rd:take(1)
    tree:add(f.cip_path_size, size_range)
    local path_bytes = size_range:uint() * 2
    if not rd:has(path_bytes) then
        short(tree, "request path")
        return req
    end
    req.tag, req.element = dissect_path(rd, path_bytes, tree)

    local svc = req.service
    if svc == SVC_READ_TAG or svc == SVC_READ_FRAG then
        if not rd:has(2) then short(tree, "element count"); return req end
        local r = rd:take(2)
        req.count = r:le_uint()
        tree:add_le(f.cip_count, r)
        if svc == SVC_READ_FRAG then
            if not rd:has(4) then short(tree, "byte offset"); return req end
            r = rd:take(4)
            req.offset = r:le_uint()
            tree:add_le(f.cip_offset, r)
        end
        add_trailing(rd, tree)
    elseif svc == SVC_WRITE_TAG or svc == SVC_WRITE_FRAG then
        if not rd:has(4) then short(tree, "data type and element count"); return req end
        local r = rd:take(2)
        req.data_type = r:le_uint()
        tree:add_le(f.cip_type, r)
        r = rd:take(2)
        req.count = r:le_uint()
        tree:add_le(f.cip_count, r)
        if svc == SVC_WRITE_FRAG then
            if not rd:has(4) then short(tree, "byte offset"); return req end
            r = rd:take(4)
            req.offset = r:le_uint()
            tree:add_le(f.cip_offset, r)
        end
        req.values = dissect_values(rd, req.data_type, nil, tree, f.cip_value)
        add_trailing(rd, tree)
    elseif svc == SVC_RMW then
        if not rd:has(2) then short(tree, "mask size"); return req end
        local r = rd:take(2)
        local size = r:le_uint()
        tree:add_le(f.cip_mask_size, r)
        if not rd:has(2 * size) then short(tree, "masks"); return req end
        -- Masks wider than 4 bytes are shown as bytes; no tag of this line has them.
        if size >= 1 and size <= 4 then
            r = rd:take(size)
            req.or_mask = r:le_uint()
            tree:add_le(f.cip_or_mask, r)
            r = rd:take(size)
            req.and_mask = r:le_uint()
            tree:add_le(f.cip_and_mask, r)
            local full = bit32.lshift(1, 8 * size) - 1
            if size == 4 then full = 0xFFFFFFFF end
            local set_bit = single_bit(req.or_mask)
            local clear_bit = single_bit(bit32.band(bit32.bnot(req.and_mask), full))
            if set_bit and req.and_mask == full then
                req.bit, req.bit_set = set_bit, true
            elseif clear_bit and req.or_mask == 0 then
                req.bit, req.bit_set = clear_bit, false
            end
            if req.bit then
                tree:add(f.cip_bit, req.bit):set_generated()
                tree:add(f.cip_bit_set, req.bit_set):set_generated()
            end
        else
            tree:add(f.cip_data, rd:take(2 * size))
        end
        add_trailing(rd, tree)
    else
        local r = rd:rest()
        if r then tree:add(f.cip_data, r) end
    end
    return req
end

local function describe_request(req)
    local text = service_names[req.service] or string.format("Service 0x%02X", req.service or 0)
    if req.tag then
        text = text .. " " .. req.tag
        if req.element then text = text .. "[" .. req.element .. "]" end
    end
    if req.service == SVC_RMW then
        if req.bit then
            text = text .. (req.bit_set and " set bit " or " clear bit ") .. req.bit
        elseif req.or_mask then
            text = text .. string.format(" OR 0x%X AND 0x%X", req.or_mask, req.and_mask)
        end
    elseif req.count then
        text = text .. " \195\151" .. req.count
    end
    if req.values and #req.values > 0 then
        text = text .. " " .. (type_names[req.data_type] or "") .. " = "
            .. format_values(req.values)
    end
    return text
end

-- The Multiple Service Packet's service count and offset table (the offsets
-- count from the service count), then each embedded message (noun: "request"
-- or "reply") in a subtree of its own, handed to dissect_one(start, stop,
-- sub), which returns the decoded message or nil. Returns the messages.
local function dissect_embedded(tvb, rd, tree, to, noun, dissect_one)
    local found = {}
    local base_pos = rd.pos
    local r = rd:take(2)
    local count = r:le_uint()
    tree:add_le(f.cip_services, r)
    if not rd:has(2 * count) then short(tree, "offset table"); return found end
    local offsets = {}
    for i = 1, count do
        r = rd:take(2)
        offsets[i] = r:le_uint()
        tree:add_le(f.cip_service_offset, r)
    end
    for i = 1, count do
        local start = base_pos + offsets[i]
        local stop = (i < count) and (base_pos + offsets[i + 1]) or to
        if start < rd.pos or start > to or stop > to or stop < start then
            tree:add_proto_expert_info(e.malformed, "Embedded " .. noun .. " offset out of range")
            break
        end
        local sub = tree:add(df1, tvb:range(start, math.max(stop - start, 0)),
            string.format("Embedded %s #%d", noun, i))
        local message = dissect_one(start, stop, sub)
        if message then found[#found + 1] = message end
    end
    return found
end

-- The CIP request of a 0x0B message: a Multiple Service Packet for the
-- Message Router, or a single tag service.
local function dissect_cip_request(tvb, from, to, tree)
    local rd = reader(tvb, from, to)
    local requests = {}
    if not rd:has(2) then
        short(tree, "CIP request")
        return requests
    end
    local service = tvb:range(from, 1):uint()
    if service ~= SVC_MULTIPLE then
        local sub = tree:add(df1, tvb:range(from, to - from), "Tag service request")
        requests[1] = dissect_tag_request(tvb, from, to, sub)
        return requests
    end
    local svc_range = rd:take(1)
    tree:add(f.cip_service, svc_range)
    tree:add(f.cip_response, svc_range)
    local size_range = rd:take(1)
    tree:add(f.cip_path_size, size_range)
    local path_bytes = size_range:uint() * 2
    if not rd:has(path_bytes) then short(tree, "request path"); return requests end
    dissect_path(rd, path_bytes, tree)

    -- Service count and offset table; the offsets count from the service count.
    if not rd:has(2) then short(tree, "service count"); return requests end
    return dissect_embedded(tvb, rd, tree, to, "request", function(start, stop, sub)
        if stop <= start then
            short(sub, "embedded request")
            return nil
        end
        local req = dissect_tag_request(tvb, start, stop, sub)
        sub:append_text(": " .. describe_request(req))
        return req
    end)
end

-- Reply header of any CIP service: service|0x80, reserved, general status,
-- extended status size and words. Returns service and status, or nil.
local function dissect_reply_header(rd, tree)
    if not rd:has(4) then short(tree, "CIP reply header"); return nil end
    local svc_range = rd:take(1)
    tree:add(f.cip_service, svc_range)
    tree:add(f.cip_response, svc_range)
    rd:take(1)  -- reserved
    local status_range = rd:take(1)
    local status = status_range:uint()
    local status_item = tree:add(f.cip_status, status_range)
    local size_range = rd:take(1)
    tree:add(f.cip_ext_size, size_range)
    local ext
    for _ = 1, size_range:uint() do
        if not rd:has(2) then short(tree, "extended status"); break end
        local r = rd:take(2)
        ext = ext or r:le_uint()
        tree:add_le(f.cip_ext_status, r)
    end
    if status ~= 0 then
        status_item:add_proto_expert_info(e.cip_error, string.format("CIP status 0x%02X (%s)",
            status, cip_status_names[status] or "unknown"))
    end
    return bit32.band(svc_range:uint(), 0x7F), status, ext
end

-- One tag service reply; returns status and, for reads, the data's type and values.
local function dissect_tag_reply(tvb, from, to, tree)
    local rd = reader(tvb, from, to)
    local reply = {}
    reply.service, reply.status, reply.ext = dissect_reply_header(rd, tree)
    if not reply.service then return reply end
    local svc = reply.service
    if (svc == SVC_READ_TAG or svc == SVC_READ_FRAG) and rd:has(2) then
        local r = rd:take(2)
        reply.data_type = r:le_uint()
        tree:add_le(f.cip_type, r)
        reply.values = dissect_values(rd, reply.data_type, nil, tree, f.cip_value)
    end
    local rest = rd:rest()
    if rest then tree:add(f.cip_data, rest) end
    return reply
end

local function describe_reply(reply)
    if not reply.status then return "" end
    local text = string.format("status 0x%02X", reply.status)
    if reply.status ~= 0 then
        text = text .. " (" .. (cip_status_names[reply.status] or "unknown")
        if reply.ext then
            text = text .. string.format(", 0x%04X %s", reply.ext,
                ext_status_names[reply.ext] or "")
        end
        text = text .. ")"
    end
    if reply.values then
        text = text .. string.format(", %d %s", #reply.values,
            type_names[reply.data_type] or "values")
        if #reply.values > 0 then text = text .. " = " .. format_values(reply.values) end
    end
    return text
end

local function dissect_cip_reply(tvb, from, to, tree)
    local rd = reader(tvb, from, to)
    local replies = {}
    if not rd:has(1) then short(tree, "CIP reply"); return replies end
    if bit32.band(tvb:range(from, 1):uint(), 0x7F) ~= SVC_MULTIPLE then
        local sub = tree:add(df1, tvb:range(from, to - from), "Tag service reply")
        replies[1] = dissect_tag_reply(tvb, from, to, sub)
        return replies
    end
    local _, status = dissect_reply_header(rd, tree)
    if not status then return replies end
    if (status ~= 0 and status ~= CIP_EMBEDDED_SERVICE_ERROR) or not rd:has(2) then
        replies.status = status
        local rest = rd:rest()
        if rest then tree:add(f.cip_data, rest) end
        return replies
    end
    return dissect_embedded(tvb, rd, tree, to, "reply", function(start, stop, sub)
        local reply = dissect_tag_reply(tvb, start, stop, sub)
        sub:append_text(": " .. (service_names[reply.service or -1] or "service") .. " "
            .. describe_reply(reply))
        return reply
    end)
end

-- The packet's top-level tree: Wireshark's CIP tree goes there, beside this
-- protocol's, as the next layer up.
local top_tree

-- Wireshark's own CIP dissector, for its tree and its cip.* filter fields.
-- It reports a message it cannot take apart as a malformed packet; that
-- must not end the decoding here.
local function call_cip(tvb, pinfo)
    if not cip_dissector or tvb:len() < 2 then return end
    pcall(Dissector.call, cip_dissector, tvb, pinfo, top_tree)
end

---------------------------------------------------------------------------
-- Request/reply pairing
---------------------------------------------------------------------------

local function show_pairing(pinfo, tree, is_request)
    local s = state.frames[pinfo.number]
    if is_request then
        if s and s.response_in then
            tree:add(f.response_in, s.response_in):set_generated()
        elseif pinfo.visited then
            tree:add(f.unanswered, true):set_generated()
            tree:add_proto_expert_info(e.unanswered)
        end
    elseif s and s.request_in then
        tree:add(f.request_in, s.request_in):set_generated()
        tree:add(f.time, NSTime.new(s.delta_s, s.delta_ns)):set_generated()
        if s.request_text then
            tree:add(df1, "Request: " .. s.request_text):set_generated()
        end
    end
end

local function pair(request_number, pinfo)
    local req = frame_state(request_number)
    local rep = frame_state(pinfo.number)
    req.response_in = pinfo.number
    rep.request_in = request_number
    local delta = math.max(pinfo.rel_ts - req.rel_ts, 0)
    rep.delta_s = math.floor(delta)
    rep.delta_ns = math.floor((delta - rep.delta_s) * 1e9 + 0.5)
    rep.request_text = req.text
    rep.remote = req.remote
end

local function note_request(pinfo, key, text, remote)
    if pinfo.visited then return end
    local s = frame_state(pinfo.number)
    s.rel_ts = pinfo.rel_ts
    s.text = text
    s.remote = remote
    if key then
        state.pending_cip[key] = pinfo.number
    else
        state.pending_remote = pinfo.number
    end
end

local function note_cip_reply(pinfo, key)
    if pinfo.visited then return end
    local request = state.pending_cip[key]
    if request and request < pinfo.number then
        state.pending_cip[key] = nil
        pair(request, pinfo)
    end
end

local function note_remote_reply(pinfo)
    if pinfo.visited then return end
    local request = state.pending_remote
    if request and request < pinfo.number then
        state.pending_remote = nil
        pair(request, pinfo)
    end
end

---------------------------------------------------------------------------
-- Remote-mode frames
---------------------------------------------------------------------------

local function remote_address_text(data_type, address, is_write)
    local letter = remote_letters[data_type] or "?"
    if is_write and (data_type == 0 or data_type == 1) then
        -- Bit writes carry a bit address: file x 4096 + element x 16 + bit.
        return string.format("%s%d:%d/%d", letter, math.floor(address / 4096),
            math.floor(address / 16) % 256, address % 16)
    end
    return string.format("%s%d:%d", letter, math.floor(address / 256), address % 256)
end

-- Values of a remote frame: a bit write carries one byte per bit, everything
-- else 16-bit words, or REALs for type 4; low byte first.
local function dissect_remote_values(rd, data_type, count, tree, bits)
    local values = {}
    local size = (data_type == 4) and 4 or (bits and 1 or 2)
    while rd:has(size) and (not count or #values < count) do
        local r = rd:take(size)
        local v
        if size == 4 then
            v = r:le_float()
        elseif size == 2 then
            v = r:le_int()
        else
            v = r:uint()
        end
        values[#values + 1] = v
        tree:add(f.remote_value, r, v)
    end
    return values
end

local function dissect_remote_request(tvb, pinfo, tree, from)
    local n = tvb:len() - from
    local sub = tree:add(df1, tvb:range(from, n), "Remote-mode frame")
    if n < REMOTE_FIXED_SIZE then
        sub:add(f.data, tvb:range(from, n))
        sub:add_proto_expert_info(e.malformed,
            string.format("A remote frame has at least %d bytes, this one %d",
                REMOTE_FIXED_SIZE, n))
        return "Remote frame, too short (" .. byte_count(n) .. ")"
    end
    local function at(offset, size) return tvb:range(from + offset, size) end
    local length_item = sub:add(f.remote_length, at(0, 1))
    if at(0, 1):uint() ~= n % 256 then
        length_item:add_proto_expert_info(e.remote_length,
            string.format("Length byte %d, frame of %d bytes", at(0, 1):uint(), n))
    end
    sub:add(f.remote_var_id, at(1, 1))
    local aux2 = at(2, 1):uint()
    sub:add(f.remote_aux2, at(2, 1))
    sub:add(f.remote_link_no, at(3, 1))
    sub:add(f.remote_station, at(4, 1))
    local data_type = at(5, 2):uint()
    sub:add(f.remote_data_type, at(5, 2))
    local address = at(7, 4):uint()
    local values_bytes = n - REMOTE_FIXED_SIZE
    local is_write = values_bytes > 0 or aux2 == 1
    local address_item = sub:add(f.remote_address, at(7, 4))
    address_item:append_text(" (" .. remote_address_text(data_type, address, is_write) .. ")")
    if is_write and (data_type == 0 or data_type == 1) then
        address_item:add(f.remote_file, at(7, 4), math.floor(address / 4096)):set_generated()
        address_item:add(f.remote_element, at(7, 4), math.floor(address / 16) % 256):set_generated()
        address_item:add(f.remote_bit, at(7, 4), address % 16):set_generated()
    else
        address_item:add(f.remote_file, at(7, 4), math.floor(address / 256)):set_generated()
        address_item:add(f.remote_element, at(7, 4), address % 256):set_generated()
    end
    local count = at(11, 2):uint()
    sub:add(f.remote_count, at(11, 2))
    sub:add(f.remote_aux12, at(13, 4))
    sub:add(f.remote_aux13, at(17, 4))
    local values = {}
    if values_bytes > 0 then
        local data_item = sub:add(f.remote_data, at(21, values_bytes))
        local rd = reader(tvb, from + 21, from + 21 + values_bytes)
        values = dissect_remote_values(rd, data_type, nil, data_item,
            data_type == 0 or data_type == 1)
    end
    local received = at(n - 1, 1):uint()
    local computed = additive_sum(tvb:raw(from, n - 1))
    local sum_item = sub:add(f.remote_checksum, at(n - 1, 1))
    sub:add(f.remote_checksum_computed, at(n - 1, 1), computed):set_generated()
    local bad = received ~= computed
    if bad then
        sum_item:append_text(string.format(" [incorrect, should be 0x%02X]", computed))
        sub:add(f.remote_sum_bad, at(n - 1, 1), true):set_generated()
        sum_item:add_proto_expert_info(e.bad_sum)
    else
        sum_item:append_text(" [correct]")
    end

    local where = remote_address_text(data_type, address, is_write)
    local text
    if is_write then
        text = string.format("Remote write %s \195\151%d", where, count)
        if #values > 0 then text = text .. " = " .. format_values(values) end
    else
        text = string.format("Remote read %s \195\151%d", where, count)
    end
    -- The DLE ACK that leads the reply acknowledges this frame.
    if not pinfo.visited then state.last_data[current_direction] = pinfo.number end
    -- A damaged request is not answered; only good ones wait for a reply.
    if current_direction == HOST_TO_CONTROLLER and not bad then
        note_request(pinfo, nil, text, { data_type = data_type, count = count, write = is_write })
        show_pairing(pinfo, sub, true)
    end
    if bad then text = text .. " [bad checksum]" end
    return text
end

-- A remote reply comes back in a DF1 envelope: station, 0, command 0x41
-- (read) or 0x42 (write), status, transaction, 0, then a read's data
-- (padded with zeros) or a write's result byte.
local function dissect_remote_reply(body, from, cmd, status, pinfo, tree)
    local rd = reader(body, from, body:len())
    note_remote_reply(pinfo)
    local s = state.frames[pinfo.number]
    local request = s and s.remote
    local text
    if cmd == CMD_REMOTE_WRITE_REPLY then
        text = "Remote write reply"
        if rd:has(1) then
            local r = rd:take(1)
            local result = r:uint()
            local item = tree:add(f.remote_write_result, r)
            text = text .. ", "
                .. (remote_write_result_names[result] or string.format("0x%02X", result))
            if result ~= REMOTE_WRITE_DONE then item:add_proto_expert_info(e.remote_error) end
        end
    else
        text = "Remote read reply"
        -- A failed read carries no data, only the padding.
        if rd:has(1) and status == 0 then
            local data_item = tree:add(f.remote_data, body:range(rd.pos, rd:left()))
            local values = {}
            if request then
                values = dissect_remote_values(rd, request.data_type, request.count, data_item,
                    false)
                text = text .. string.format(", %d %s = %s", #values,
                    request.data_type == 4 and "REAL" or "INT", format_values(values))
            end
        end
    end
    local rest = rd:rest()
    if rest then tree:add(f.remote_padding, rest) end
    show_pairing(pinfo, tree, false)
    return text
end

---------------------------------------------------------------------------
-- DF1 data frames
---------------------------------------------------------------------------

-- Undoes the DLE doubling from position i (just after DLE STX) of raw.
-- Returns the body, the position of the DLE of DLE ETX (or nil when there is
-- none), and the counts of doubled and of undoubled DLEs.
local function unstuff(raw, i)
    local parts = {}
    local doubled, lone = 0, 0
    local n = #raw
    while true do
        local dle = raw:find("\16", i, true)
        if not dle then
            parts[#parts + 1] = raw:sub(i)
            return table.concat(parts), nil, doubled, lone
        end
        parts[#parts + 1] = raw:sub(i, dle - 1)
        local next_byte = raw:byte(dle + 1)
        if next_byte == ETX then
            return table.concat(parts), dle, doubled, lone
        elseif next_byte == DLE then
            parts[#parts + 1] = "\16"
            doubled = doubled + 1
            i = dle + 2
        else
            -- A DLE followed by any other byte is data together with that
            -- byte: a requester's first transaction number may go out
            -- undoubled, and its block check counts the byte once.
            parts[#parts + 1] = "\16"
            if dle < n then lone = lone + 1 end
            i = dle + 1
        end
    end
end

-- The DF1 header and the application data of one message.
local function dissect_message(body, pinfo, tree, bad_check)
    local len = body:len()
    if len < DF1_HEADER_SIZE then
        if len > 0 then tree:add(f.data, body:range(0, len)) end
        tree:add_proto_expert_info(e.malformed, "Message shorter than the DF1 header")
        return "Message too short (" .. byte_count(len) .. ")"
    end
    local header = tree:add(df1, body:range(0, DF1_HEADER_SIZE), "DF1 header")
    header:add(f.dst, body:range(0, 1))
    header:add(f.src, body:range(1, 1))
    header:add(f.cmd, body:range(2, 1))
    local cmd = body:range(2, 1):uint()
    local dst, src = body:range(0, 1):uint(), body:range(1, 1):uint()
    local sts = body:range(3, 1):uint()
    if cmd == CMD_REMOTE_READ_REPLY or cmd == CMD_REMOTE_WRITE_REPLY then
        header:add(f.remote_status, body:range(3, 1))
    else
        header:add(f.sts, body:range(3, 1))
    end
    header:add_le(f.tns, body:range(4, 2))
    local tns = body:range(4, 2):le_uint()
    header:append_text(string.format(", CMD 0x%02X, TNS %s", cmd, hex16(tns)))

    if cmd == CMD_REMOTE_READ_REPLY or cmd == CMD_REMOTE_WRITE_REPLY then
        local sub = tree:add(df1, body:range(0, len), "Remote reply")
        if sts ~= 0 then
            sub:add_proto_expert_info(e.remote_error, string.format("Remote status 0x%02X (%s)",
                sts, remote_status_names[sts] or "unknown"))
        end
        local text = dissect_remote_reply(body, DF1_HEADER_SIZE, cmd, sts, pinfo, sub)
        if sts ~= 0 then text = text .. string.format(", status 0x%02X", sts) end
        return text
    end

    local is_reply = bit32.band(cmd, CMD_REPLY_FLAG) ~= 0
    local base_cmd = bit32.band(cmd, 0xFF - CMD_REPLY_FLAG)
    local key
    if is_reply then
        key = string.format("%d:%d:%d", tns, dst, src)
    else
        key = string.format("%d:%d:%d", tns, src, dst)
    end

    local text
    if base_cmd ~= CMD_CIP then
        if len > DF1_HEADER_SIZE then tree:add(f.data, body:range(DF1_HEADER_SIZE)) end
        text = string.format("%s CMD 0x%02X TNS %s", is_reply and "Reply" or "Command", cmd,
            hex16(tns))
        return text
    end

    local cip_from = DF1_HEADER_SIZE + CIP_PREFIX_SIZE
    if len >= cip_from then
        tree:add_le(f.prefix, body:range(DF1_HEADER_SIZE, CIP_PREFIX_SIZE))
    elseif len > DF1_HEADER_SIZE then
        tree:add(f.data, body:range(DF1_HEADER_SIZE))
    end
    local cip_tvb = (len > cip_from) and body:range(cip_from):tvb() or nil

    if not is_reply then
        local requests = {}
        if cip_tvb then
            call_cip(cip_tvb, pinfo)
            local sub = tree:add(df1, cip_tvb:range(), "CIP request (tag services)")
            requests = dissect_cip_request(cip_tvb, 0, cip_tvb:len(), sub)
        elseif len <= cip_from then
            tree:add_proto_expert_info(e.malformed, "CIP request missing")
        end
        local parts = {}
        for i, req in ipairs(requests) do parts[i] = describe_request(req) end
        text = (#parts > 0 and table.concat(parts, "; ") or "CIP request, malformed")
            .. " TNS " .. hex16(tns)
        -- A damaged request is not answered; the controller refuses it.
        if not bad_check then
            note_request(pinfo, key, text)
            show_pairing(pinfo, tree, true)
        end
        return text
    end

    note_cip_reply(pinfo, key)
    text = "Reply TNS " .. hex16(tns)
    if sts ~= 0 then
        text = text .. string.format(" STS 0x%02X (%s)", sts, sts_names[sts] or "error")
    end
    if cip_tvb then
        call_cip(cip_tvb, pinfo)
        local sub = tree:add(df1, cip_tvb:range(), "CIP reply (tag services)")
        local replies = dissect_cip_reply(cip_tvb, 0, cip_tvb:len(), sub)
        if #replies > 0 then
            local parts = {}
            for i, reply in ipairs(replies) do parts[i] = describe_reply(reply) end
            text = text .. " " .. table.concat(parts, "; ")
        elseif replies.status then
            text = text .. string.format(" status 0x%02X (%s)", replies.status,
                cip_status_names[replies.status] or "unknown")
        end
    end
    show_pairing(pinfo, tree, false)
    return text
end

-- DLE STX ... DLE ETX and its check, starting at offset `at` of tvb (raw is
-- the packet's bytes as a string, 1-based). Returns the offset after the
-- frame and the Info text.
local function dissect_frame(tvb, raw, at, pinfo, tree)
    local body_raw, etx_dle, doubled, lone = unstuff(raw, at + 3)
    local use_crc = df1.prefs.check == CHECK_CRC
    local check_size = use_crc and 2 or 1
    -- 0-based offsets: the DLE of DLE ETX, the check, the end of the frame.
    local etx_at = etx_dle and etx_dle - 1
    local check_at = etx_at and etx_at + 2
    local complete = check_at ~= nil and check_at + check_size <= #raw
    local frame_end = complete and check_at + check_size or #raw

    local frame_tree = tree:add(df1, tvb:range(at, frame_end - at), "Data frame")
    frame_tree:add(df1, tvb:range(at, 2), "DLE STX")
    if doubled > 0 then frame_tree:add(f.doubled, doubled):set_generated() end
    if lone > 0 then
        frame_tree:add(f.lone_dle, lone):set_generated()
        frame_tree:add_proto_expert_info(e.lone_dle)
    end

    local received, computed
    if complete then
        if use_crc then
            received = tvb:range(check_at, 2):le_uint()
            computed = crc16(body_raw .. "\3")
        else
            received = tvb:range(check_at, 1):uint()
            computed = block_check(body_raw)
        end
    end
    local bad_check = complete and received ~= computed

    -- The message: the line bytes themselves when nothing was doubled, else
    -- a copy with every DLE pair made single.
    local text
    local raw_body_len = (etx_at or #raw) - (at + 2)
    if #body_raw == 0 then
        frame_tree:add_proto_expert_info(e.malformed, "Empty message")
        text = "Empty message"
    else
        local body
        if doubled == 0 then
            body = tvb:range(at + 2, raw_body_len):tvb()
        else
            body = ByteArray.new(body_raw, true):tvb("Un-stuffed DF1 message")
        end
        text = dissect_message(body, pinfo, frame_tree, bad_check or not complete)
    end

    local check_text
    if not etx_at then
        frame_tree:add_proto_expert_info(e.malformed, "Frame has no DLE ETX")
        check_text = "no DLE ETX"
    else
        frame_tree:add(df1, tvb:range(etx_at, 2), "DLE ETX")
        if not complete then
            frame_tree:add_proto_expert_info(e.malformed, "Frame ends before its check")
            check_text = "no check after DLE ETX"
        else
            local range = tvb:range(check_at, check_size)
            local item
            if use_crc then
                item = frame_tree:add_le(f.crc, range)
                frame_tree:add(f.crc_computed, range, computed):set_generated()
            else
                item = frame_tree:add(f.bcc, range)
                frame_tree:add(f.bcc_computed, range, computed):set_generated()
            end
            if not bad_check then
                item:append_text(" [correct]")
            else
                item:append_text(string.format(" [incorrect, should be 0x%0" .. (2 * check_size)
                    .. "X]", computed))
                if use_crc then
                    frame_tree:add(f.crc_bad, range, true):set_generated()
                    item:add_proto_expert_info(e.bad_crc)
                    check_text = "bad CRC-16"
                else
                    frame_tree:add(f.bcc_bad, range, true):set_generated()
                    item:add_proto_expert_info(e.bad_bcc)
                    check_text = "bad BCC"
                end
            end
        end
    end

    if not pinfo.visited and complete then
        state.last_data[current_direction] = pinfo.number
    end
    if check_text then text = text .. " [" .. check_text .. "]" end
    return frame_end, text
end

local function dissect_control(tvb, at, symbol, pinfo, tree)
    local item = tree:add(f.control, tvb:range(at + 1, 1))
    item:prepend_text("DLE ")
    local s
    if not pinfo.visited then
        s = frame_state(pinfo.number)
        local other = state.last_data[1 - current_direction]
        if symbol == ACK then s.ack_of = other elseif symbol == NAK then s.nak_of = other end
    else
        s = state.frames[pinfo.number] or {}
    end
    if symbol == ACK and s.ack_of then item:add(f.ack_of, s.ack_of):set_generated() end
    if symbol == NAK then
        if s.nak_of then item:add(f.nak_of, s.nak_of):set_generated() end
        item:add_proto_expert_info(e.nak)
    end
    return control_names[symbol]
end

-- Kind 0: DF1 items. A packet normally holds exactly one, but a frame with
-- its DLE ACK lead-in, or several items, are taken apart as well.
local function dissect_df1_items(tvb, pinfo, tree)
    local raw = tvb:raw()
    local n = #raw
    local at = PSEUDO_HEADER_SIZE  -- 0-based
    local texts = {}
    while at < n do
        local b0, b1 = raw:byte(at + 1), raw:byte(at + 2)
        if b0 == DLE and b1 == STX then
            local text
            at, text = dissect_frame(tvb, raw, at, pinfo, tree)
            texts[#texts + 1] = text
        elseif b0 == DLE and (b1 == ACK or b1 == NAK or b1 == ENQ) then
            texts[#texts + 1] = dissect_control(tvb, at, b1, pinfo, tree)
            at = at + 2
        else
            -- Up to the next DLE that starts an item.
            local next_item = raw:find("\16[\2\5\6\21]", at + 2)
            local stop = next_item and (next_item - 1) or n
            local item = tree:add(f.stray, tvb:range(at, stop - at))
            item:add_proto_expert_info(e.stray)
            texts[#texts + 1] = byte_count(stop - at) .. " outside any item"
            at = stop
        end
    end
    if #texts == 0 then
        tree:add_proto_expert_info(e.malformed, "No DF1 item in the packet")
        texts[1] = "Empty DF1 item"
    end
    return table.concat(texts, "; ")
end

local function dissect_unframed(tvb, pinfo, tree)
    local n = tvb:len() - PSEUDO_HEADER_SIZE
    if n <= 0 then
        tree:add_proto_expert_info(e.unframed, "No bytes")
        return "Not a frame, 0 bytes"
    end
    local item = tree:add(f.unframed, tvb:range(PSEUDO_HEADER_SIZE, n))
    item:add_proto_expert_info(e.unframed)
    local first = tvb:range(PSEUDO_HEADER_SIZE, math.min(n, 2)):bytes()
    if n >= 2 and first:get_index(0) == DLE and first:get_index(1) == STX then
        item:append_text(" (a frame cut short)")
        return "Not a frame, " .. byte_count(n) .. " (a frame cut short)"
    end
    return "Not a frame, " .. byte_count(n)
end

---------------------------------------------------------------------------
-- Entry point
---------------------------------------------------------------------------

function df1.dissector(tvb, pinfo, tree)
    local len = tvb:len()
    pinfo.cols.protocol = "DF1"
    top_tree = tree
    local root = tree:add(df1, tvb:range(0, len))
    if len < PSEUDO_HEADER_SIZE then
        root:add_proto_expert_info(e.short, string.format(
            "Packet of %d bytes, shorter than the %d-byte pseudo-header", len, PSEUDO_HEADER_SIZE))
        pinfo.cols.info = "Malformed: " .. byte_count(len) .. ", no pseudo-header"
        return len
    end

    local direction = tvb:range(0, 1):uint()
    local kind = tvb:range(1, 1):uint()
    root:add(f.direction, tvb:range(0, 1))
    root:add(f.kind, tvb:range(1, 1))
    local reserved_item = root:add(f.reserved, tvb:range(2, 2))
    if tvb:range(2, 2):uint() ~= 0 then
        reserved_item:add_proto_expert_info(e.header_value, "Reserved bytes are not 0")
    end
    local direction_name = direction_names[direction]
    if direction_name then
        root:append_text(", " .. direction_name)
        pinfo.cols.src = direction == HOST_TO_CONTROLLER and "Host" or "Controller"
        pinfo.cols.dst = direction == HOST_TO_CONTROLLER and "Controller" or "Host"
    else
        root:add_proto_expert_info(e.header_value, string.format("Unknown direction %d", direction))
    end
    -- Pairing and acknowledgement links look at the direction; an unknown one
    -- is taken as the host's.
    current_direction = direction_name and direction or HOST_TO_CONTROLLER

    local text
    if kind == KIND_DF1 then
        text = dissect_df1_items(tvb, pinfo, root)
    elseif kind == KIND_REMOTE then
        local raw2 = tvb:raw(PSEUDO_HEADER_SIZE, math.min(2, len - PSEUDO_HEADER_SIZE))
        if raw2 == "\16\6" or raw2 == "\16\2" then
            -- A remote reply comes back in the DF1 envelope.
            text = dissect_df1_items(tvb, pinfo, root)
        elseif len > PSEUDO_HEADER_SIZE then
            text = dissect_remote_request(tvb, pinfo, root, PSEUDO_HEADER_SIZE)
        else
            root:add_proto_expert_info(e.malformed, "Empty remote frame")
            text = "Empty remote frame"
        end
    elseif kind == KIND_UNFRAMED then
        text = dissect_unframed(tvb, pinfo, root)
    else
        root:add_proto_expert_info(e.header_value, string.format("Unknown kind %d", kind))
        if len > PSEUDO_HEADER_SIZE then root:add(f.data, tvb:range(PSEUDO_HEADER_SIZE)) end
        text = string.format("Unknown kind %d, %d bytes", kind, len - PSEUDO_HEADER_SIZE)
    end

    pinfo.cols.protocol = "DF1"
    pinfo.cols.info:clear_fence()
    pinfo.cols.info = text
    root:append_text(": " .. text)
    return len
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, df1)
