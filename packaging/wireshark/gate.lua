-- Wireshark dissector for the frames of gate, the net device gateway.
--
-- What it reads:
--   * captures written by `gatecat dump -w` and `gatecat tap -w`: pcap link
--     type 147 (USER0), each packet a pseudo-header and a frame:
--       offset  size  field
--       0       4     iface id, little-endian (0 from `gatecat dump`)
--       4       1     direction: 0 received, 1 sent
--       5       1     medium: 0 unknown, 1 udp, 2 udpserial, 3 serial, 4 can
--       6       rest  serial framing on udpserial and serial, otherwise the
--                     frame as a "udp" datagram carries it
--   * UDP datagrams of a gateway's links, by "Decode As" (gate_udp for
--     "udp" links, gate_udpserial for "udpserial" links); serial-framed
--     datagrams are also found on their own when their CRC holds.
--
-- A frame is proto_id (1), src (1), dst (1), payload. Serial framing puts
-- 0x42 | CRC-32 LE (4) | frame | 0x42 on the line, every 0x42 or 0x55 inside
-- escaped as 0x55 and its complement; the CRC (polynomial 0x04C11DB7, not
-- reflected, from 0xFFFFFFFF, no final XOR) covers the unescaped frame.
-- Payloads by proto_id: 10 a MANet packet header, 8 guarantor-framed service
-- records, 14 bare RF modem records; all integers little-endian.
--
-- Install: copy into Wireshark's plugin folder (the package puts it into the
-- global one), or run `tshark -X lua_script:gate.lua`.

local bit = bit32 or bit

local gate = Proto("gate", "gate net device gateway frame")
local gate_udp = Proto("gate_udp", "gate frame in a udp datagram")
local gate_udpserial = Proto("gate_udpserial", "gate serial-framed frames")

local MEDIA = { [0] = "unknown", [1] = "udp", [2] = "udpserial", [3] = "serial", [4] = "can" }
local DIRECTIONS = { [0] = "in", [1] = "out" }
local RECORD_TYPES = { [0] = "data", [1] = "request", [2] = "response" }
local SERVICE_MESSAGES = { [1] = "utm_status", [2] = "ack", [3] = "set_config", [4] = "device_config" }
local MODEM_MESSAGES = { [1] = "base_config", [2] = "client_config", [3] = "stats" }

local PROTO_SERVICE = 8
local PROTO_MANET = 10
local PROTO_RFMODEM = 14
local DELIMITER = 0x42
local ESCAPE = 0x55
local PSEUDO_HEADER_SIZE = 6
local MANET_HEADER_SIZE = 10

local f = {}
local function field(key, maker, name, ...)
    f[key] = maker("gate." .. key, name, ...)
end
field("iface", ProtoField.uint32, "Interface id", base.DEC)
field("direction", ProtoField.uint8, "Direction", base.DEC, DIRECTIONS)
field("medium", ProtoField.uint8, "Medium", base.DEC, MEDIA)
field("serial.crc", ProtoField.uint32, "CRC-32", base.HEX)
field("serial.crc_status", ProtoField.string, "CRC status")
field("serial.escapes", ProtoField.uint32, "Escaped bytes", base.DEC)
field("proto_id", ProtoField.uint8, "proto_id", base.DEC)
field("src", ProtoField.uint8, "Source", base.HEX)
field("dst", ProtoField.uint8, "Destination", base.HEX)
field("len", ProtoField.uint32, "Payload length", base.DEC)
field("payload", ProtoField.bytes, "Payload")
field("manet.src", ProtoField.uint32, "MANet source", base.HEX)
field("manet.dst", ProtoField.uint32, "MANet destination", base.HEX)
field("manet.kind", ProtoField.uint8, "Kind", base.DEC)
field("manet.flag", ProtoField.uint8, "Flag", base.DEC)
field("manet.data", ProtoField.bytes, "Data")
field("record.seq", ProtoField.uint32, "Sequence number", base.DEC)
field("record.type", ProtoField.uint8, "Record type", base.DEC, RECORD_TYPES)
field("record.id", ProtoField.uint8, "Message id", base.DEC)
field("record.size", ProtoField.uint32, "Body size", base.DEC)
field("record.message", ProtoField.string, "Message")
-- Message fields, by the names of the message catalogue.
field("utm_status.manet_addr", ProtoField.uint32, "manet_addr", base.HEX)
field("utm_status.online", ProtoField.uint8, "online", base.DEC)
field("ack.status", ProtoField.int8, "status", base.DEC)
field("ack.status_str", ProtoField.string, "status_str")
field("set_config.finalize", ProtoField.uint8, "finalize", base.DEC)
field("set_config.hash", ProtoField.bytes, "hash")
field("device_config.device_serial", ProtoField.string, "device_serial")
field("device_config.hash", ProtoField.bytes, "hash")
field("device_config.cfg_id", ProtoField.uint8, "cfg_id", base.DEC)
field("manet_config.node_manet_addr", ProtoField.uint32, "node_manet_addr", base.HEX)
field("manet_config.utm_manet_addr", ProtoField.uint32, "utm_manet_addr", base.HEX)
field("manet_config.utm_inet_port", ProtoField.uint16, "utm_inet_port", base.DEC)
field("manet_config.node_manet_key", ProtoField.bytes, "node_manet_key")
field("manet_config.utm_inet_host", ProtoField.string, "utm_inet_host")
field("manet_config.generic_config_json", ProtoField.string, "generic_config_json")
field("base_config.addr", ProtoField.uint32, "addr", base.DEC)
field("base_config.power", ProtoField.float, "power")
field("base_config.channel", ProtoField.uint8, "channel", base.DEC)
field("client_config.power", ProtoField.float, "power")
field("stats.freq", ProtoField.uint32, "freq", base.DEC)
field("stats.local_signal", ProtoField.float, "local_signal")
field("stats.local_noise", ProtoField.float, "local_noise")
field("stats.remote_signal", ProtoField.float, "remote_signal")
field("stats.remote_noise", ProtoField.float, "remote_noise")
field("stats.channel", ProtoField.uint8, "channel", base.DEC)
field("stats.state", ProtoField.uint8, "state", base.DEC)
field("stats.local_per", ProtoField.uint8, "local_per", base.DEC)
field("stats.remote_per", ProtoField.uint8, "remote_per", base.DEC)
field("stats.util_rx", ProtoField.uint8, "util_rx", base.DEC)
field("stats.util_tx", ProtoField.uint8, "util_tx", base.DEC)

for _, proto_field in pairs(f) do
    table.insert(gate.fields, proto_field)
end

local cut_short = ProtoExpert.new("gate.cut_short", "Cut short", expert.group.MALFORMED, expert.severity.ERROR)
local bad_crc = ProtoExpert.new("gate.bad_crc", "CRC mismatch", expert.group.CHECKSUM, expert.severity.WARN)
local bad_escape = ProtoExpert.new("gate.bad_escape", "0x55 followed by neither 0xBD nor 0xAA",
    expert.group.MALFORMED, expert.severity.ERROR)
gate.experts = { cut_short, bad_crc, bad_escape }

-- CRC-32, MSB first (the MPEG-2 variant), one table step a byte.
local CRC_TABLE = {}
for i = 0, 255 do
    local crc = bit.lshift(i, 24)
    for _ = 1, 8 do
        if bit.band(crc, 0x80000000) ~= 0 then
            crc = bit.bxor(bit.lshift(crc, 1), 0x04C11DB7)
        else
            crc = bit.lshift(crc, 1)
        end
    end
    CRC_TABLE[i] = bit.band(crc, 0xFFFFFFFF)
end

local function crc32(bytes, first, last)
    local crc = 0xFFFFFFFF
    for i = first, last do
        local index = bit.bxor(bit.rshift(crc, 24), bytes:get_index(i))
        crc = bit.band(bit.bxor(bit.lshift(crc, 8), CRC_TABLE[index]), 0xFFFFFFFF)
    end
    return crc
end

-- Fixed-size text fields are filled with zero bytes after the text.
local function padded_text(range)
    return range:stringz()
end

-- Wireshark has no empty range at the end of a buffer: nil stands for one.
local function sub(range, offset, length)
    local available = range and range:len() - offset or 0
    length = length or available
    if length <= 0 or available <= 0 then return nil end
    return range(offset, length)
end

local function length_of(range)
    return range and range:len() or 0
end

-- Adds the fields of one message body; returns the bytes read, or nil when
-- the body ends before its last field.
local function add_fields(tree, body, layout)
    local offset = 0
    for _, entry in ipairs(layout) do
        local key, size, reader = entry[1], entry[2], entry[3]
        if size == "string" then
            if length_of(body) < offset + 4 then return nil end
            local length = body(offset, 4):le_uint()
            if body:len() < offset + 4 + length then return nil end
            if length == 0 then
                tree:add(f[key], body(offset, 4), "")
            else
                tree:add(f[key], body(offset + 4, length))
            end
            offset = offset + 4 + length
        elseif type(size) == "table" then
            local nested = sub(body, offset)
            if nested == nil then return nil end
            local read = add_fields(tree:add(gate, nested, key), nested, size)
            if read == nil then return nil end
            offset = offset + read
        else
            if length_of(body) < offset + size then return nil end
            local range = body(offset, size)
            if reader == "text" then
                tree:add(f[key], range, padded_text(range))
            elseif reader == "bytes" then
                tree:add(f[key], range)
            else
                tree:add_le(f[key], range)
            end
            offset = offset + size
        end
    end
    return offset
end

local MANET_CONFIG = {
    { "manet_config.node_manet_addr", 4 }, { "manet_config.utm_manet_addr", 4 }, { "manet_config.utm_inet_port", 2 },
    { "manet_config.node_manet_key", 16, "bytes" }, { "manet_config.utm_inet_host", 32, "text" },
    { "manet_config.generic_config_json", "string" },
}
local SERVICE_LAYOUTS = {
    [1] = { { "utm_status.manet_addr", 4 }, { "utm_status.online", 1 } },
    [2] = { { "ack.status", 1 }, { "ack.status_str", "string" } },
    [3] = { { "set_config.finalize", 1 }, { "set_config.hash", 16, "bytes" }, { "manet_config", MANET_CONFIG } },
    [4] = { { "device_config.device_serial", 32, "text" }, { "device_config.hash", 16, "bytes" },
        { "device_config.cfg_id", 1 }, { "manet_config", MANET_CONFIG } },
}
local MODEM_LAYOUTS = {
    [1] = { { "base_config.addr", 4 }, { "base_config.power", 4 }, { "base_config.channel", 1 } },
    [2] = { { "client_config.power", 4 } },
    [3] = { { "stats.freq", 4 }, { "stats.local_signal", 4 }, { "stats.local_noise", 4 }, { "stats.remote_signal", 4 },
        { "stats.remote_noise", 4 }, { "stats.channel", 1 }, { "stats.state", 1 }, { "stats.local_per", 1 },
        { "stats.remote_per", 1 }, { "stats.util_rx", 1 }, { "stats.util_tx", 1 } },
}

-- One message record: id (1), body size (4, LE), body. Returns the message
-- name for the info column.
local function add_message(tree, id_range, size_range, body, names, layouts)
    local id = id_range:uint()
    local name = names[id] or ("unknown message " .. id)
    tree:add(f["record.id"], id_range)
    tree:add_le(f["record.size"], size_range)
    tree:add(f["record.message"], id_range, name)
    if layouts[id] ~= nil and add_fields(tree, body, layouts[id]) == nil then
        tree:add_proto_expert_info(cut_short, name .. " body cut short")
    end
    return name
end

-- Service records: seq (4), type (1), message record. The next record is
-- read size + 5 bytes on, not at the record's end, as every receiver walks
-- them; a remainder under 8 bytes ends the walk.
local function dissect_service(payload, tree)
    local names = {}
    local offset = 0
    while payload:len() - offset >= 8 do
        local rest = payload:len() - offset - 5
        local size = rest >= 5 and payload(offset + 6, 4):le_uint() or nil
        if size == nil or rest < size + 5 then
            tree:add_proto_expert_info(cut_short, "service record cut short")
            table.insert(names, "cut short")
            break
        end
        local record = tree:add(gate, payload(offset, 10 + size), "Service record")
        record:add_le(f["record.seq"], payload(offset, 4))
        record:add(f["record.type"], payload(offset + 4, 1))
        local body = sub(payload, offset + 10, size)
        table.insert(names, add_message(record, payload(offset + 5, 1), payload(offset + 6, 4), body,
            SERVICE_MESSAGES, SERVICE_LAYOUTS))
        offset = offset + size + 5
    end
    return table.concat(names, ", ")
end

-- RF modem records: message records back to back.
local function dissect_rfmodem(payload, tree)
    local names = {}
    local offset = 0
    while offset < payload:len() do
        local left = payload:len() - offset
        local size = left >= 5 and payload(offset + 1, 4):le_uint() or nil
        if size == nil or left - 5 < size then
            tree:add_proto_expert_info(cut_short, "modem record cut short")
            table.insert(names, "cut short")
            break
        end
        local record = tree:add(gate, payload(offset, 5 + size), "RF modem record")
        local body = sub(payload, offset + 5, size)
        table.insert(names, add_message(record, payload(offset, 1), payload(offset + 1, 4), body,
            MODEM_MESSAGES, MODEM_LAYOUTS))
        offset = offset + 5 + size
    end
    return table.concat(names, ", ")
end

local function dissect_manet(payload, tree)
    if payload:len() < MANET_HEADER_SIZE then
        tree:add_proto_expert_info(cut_short, "MANet header cut short")
        return "MANet header cut short"
    end
    local header = tree:add(gate, payload(0, MANET_HEADER_SIZE), "MANet header")
    header:add_le(f["manet.src"], payload(0, 4))
    header:add_le(f["manet.dst"], payload(4, 4))
    header:add(f["manet.kind"], payload(8, 1))
    header:add(f["manet.flag"], payload(9, 1))
    if payload:len() > MANET_HEADER_SIZE then header:add(f["manet.data"], payload(MANET_HEADER_SIZE)) end
    return string.format("MANet 0x%08X -> 0x%08X", payload(0, 4):le_uint(), payload(4, 4):le_uint())
end

-- A frame as a "udp" datagram carries it; returns a summary for the info column.
local function dissect_frame(frame, pinfo, tree)
    if frame:len() < 3 then
        tree:add_proto_expert_info(cut_short, "frame under 3 bytes")
        return "cut short"
    end
    local proto_id = frame(0, 1):uint()
    tree:add(f.proto_id, frame(0, 1))
    tree:add(f.src, frame(1, 1))
    tree:add(f.dst, frame(2, 1))
    local length = frame:len() - 3
    tree:add(f.len, frame(0, 0), length)
    local summary = string.format("proto_id %d  0x%02X -> 0x%02X  len %d", proto_id, frame(1, 1):uint(),
        frame(2, 1):uint(), length)
    if length == 0 then return summary end
    local payload = frame(3)
    tree:add(f.payload, payload)
    local decoded = nil
    if proto_id == PROTO_MANET then
        decoded = dissect_manet(payload, tree)
    elseif proto_id == PROTO_SERVICE then
        decoded = dissect_service(payload, tree)
    elseif proto_id == PROTO_RFMODEM then
        decoded = dissect_rfmodem(payload, tree)
    end
    if decoded ~= nil and decoded ~= "" then summary = summary .. "  " .. decoded end
    return summary
end

-- Serial framing: every frame between two delimiters, unescaped and checked.
-- Returns the summaries of the frames found.
local function dissect_serial(tvb, pinfo, tree)
    local summaries = {}
    local start = nil
    for i = 0, tvb:len() - 1 do
        if tvb(i, 1):uint() == DELIMITER then
            if start ~= nil and i > start + 1 then
                local wire = tvb(start, i - start + 1)
                local framing = tree:add(gate, wire, "Serial framing")
                local unescaped = ByteArray.new()
                local escapes = 0
                local j = start + 1
                while j < i do
                    local byte = tvb(j, 1):uint()
                    if byte == ESCAPE and j + 1 < i then
                        local next_byte = tvb(j + 1, 1):uint()
                        if next_byte ~= 0xBD and next_byte ~= 0xAA then
                            framing:add_proto_expert_info(bad_escape)
                        end
                        byte = bit.band(bit.bnot(next_byte), 0xFF)
                        escapes = escapes + 1
                        j = j + 1
                    end
                    unescaped:append(ByteArray.new(string.format("%02X", byte)))
                    j = j + 1
                end
                framing:add(f["serial.escapes"], wire(0, 0), escapes)
                if unescaped:len() < 7 then
                    framing:add_proto_expert_info(cut_short, "serial message under 7 bytes")
                    table.insert(summaries, "cut short")
                else
                    local frame_tvb = unescaped:tvb("Unescaped frame")
                    local crc_range = frame_tvb(0, 4)
                    local crc = crc_range:le_uint()
                    framing:add_le(f["serial.crc"], crc_range)
                    local good = crc32(unescaped, 4, unescaped:len() - 1) == crc
                    framing:add(f["serial.crc_status"], crc_range, good and "good" or "bad")
                    if not good then framing:add_proto_expert_info(bad_crc) end
                    table.insert(summaries, dissect_frame(frame_tvb(4), pinfo, framing))
                end
            end
            start = i
        end
    end
    return summaries
end

local function set_columns(pinfo, prefix, summaries)
    pinfo.cols.protocol = "gate"
    pinfo.cols.info = prefix .. table.concat(summaries, " | ")
end

function gate.dissector(tvb, pinfo, tree)
    if tvb:len() < PSEUDO_HEADER_SIZE then return 0 end
    local subtree = tree:add(gate, tvb(), "gate frame")
    subtree:add_le(f.iface, tvb(0, 4))
    subtree:add(f.direction, tvb(4, 1))
    subtree:add(f.medium, tvb(5, 1))
    local medium = tvb(5, 1):uint()
    local body = tvb(PSEUDO_HEADER_SIZE)
    local summaries
    if medium == 2 or medium == 3 then
        summaries = dissect_serial(body, pinfo, subtree)
    else
        summaries = { dissect_frame(body, pinfo, subtree) }
    end
    local prefix = string.format("iface %d %s  ", tvb(0, 4):le_uint(), DIRECTIONS[tvb(4, 1):uint()] or "?")
    set_columns(pinfo, prefix, summaries)
    return tvb:len()
end

function gate_udp.dissector(tvb, pinfo, tree)
    local subtree = tree:add(gate, tvb(), "gate frame")
    set_columns(pinfo, "", { dissect_frame(tvb, pinfo, subtree) })
    return tvb:len()
end

function gate_udpserial.dissector(tvb, pinfo, tree)
    local subtree = tree:add(gate, tvb(), "gate serial-framed frames")
    set_columns(pinfo, "", dissect_serial(tvb, pinfo, subtree))
    return tvb:len()
end

-- Only a datagram that is one whole serial frame with a good CRC is taken
-- for the gateway's: anything weaker would claim other protocols' traffic.
local function looks_serial_framed(tvb)
    local length = tvb:len()
    if length < 9 or tvb(0, 1):uint() ~= DELIMITER or tvb(length - 1, 1):uint() ~= DELIMITER then return false end
    local unescaped = ByteArray.new()
    local i = 1
    while i < length - 1 do
        local byte = tvb(i, 1):uint()
        if byte == DELIMITER then return false end
        if byte == ESCAPE then
            i = i + 1
            local next_byte = tvb(i, 1):uint()
            if next_byte ~= 0xBD and next_byte ~= 0xAA then return false end
            byte = bit.band(bit.bnot(next_byte), 0xFF)
        end
        unescaped:append(ByteArray.new(string.format("%02X", byte)))
        i = i + 1
    end
    if unescaped:len() < 7 then return false end
    local crc = unescaped:get_index(0) + unescaped:get_index(1) * 0x100 + unescaped:get_index(2) * 0x10000 +
        unescaped:get_index(3) * 0x1000000
    return crc == crc32(unescaped, 4, unescaped:len() - 1)
end

local function heuristic_udpserial(tvb, pinfo, tree)
    if not looks_serial_framed(tvb) then return false end
    gate_udpserial.dissector(tvb, pinfo, tree)
    return true
end

local encapsulations = wtap_encaps or wtap
DissectorTable.get("wtap_encap"):add(encapsulations.USER0, gate)
DissectorTable.get("udp.port"):add_for_decode_as(gate_udp)
DissectorTable.get("udp.port"):add_for_decode_as(gate_udpserial)
gate_udpserial:register_heuristic("udp", heuristic_udpserial)
