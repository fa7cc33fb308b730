-- Wireshark and tshark dissector of the orv tracking system: every datagram
-- on the library's UDP ports (meta packets with their IMU, platform-pose,
-- target, diagnostic and GPS subpackets; tracking packets with their optical
-- subpacket; PRA, hub data, hub error, NFT and image packets), the uplink to
-- orvRx, and the frames of the TCP command channel.
--
-- Load it with   tshark -X lua_script:orvaccess.lua -r run.pcap
-- or copy it to  ~/.local/lib/wireshark/plugins/  for Wireshark and tshark.
-- Ports are preferences (Edit > Preferences > Protocols > ORV; in tshark
-- -o orv.meta_port:5001 ...) with the library's defaults; on other ports a
-- datagram is taken when its start byte, length word and checksum agree.
--
-- Fields are filtered by the names of the library's public records; where
-- such a name says little (vecA, value3) the field shows what it is beside
-- it, from the same tables as the layouts. A bad checksum, a wrong length or
-- a count that runs past its packet is an error in the expert info
-- ("_ws.expert.severity == error" finds them all).
--
-- The numbers below come from the library's own headers and tables when the
-- project is built; the layouts further down are checked against them when
-- this file loads.
--@ORVWIRE_TABLE@

local L, S, FAM = W.layout, W.start, W.families
-- Wireshark's Lua is 5.2: bits through bit32.
local band, bor, shl, shr = bit32.band, bit32.bor, bit32.lshift, bit32.rshift
local C = W.commands

local orv = Proto("orv", "orv tracking system")
local orvcmd = Proto("orvcmd", "orv command channel")

-- ---------------------------------------------------------------------------
-- Fields

local pf = {}   -- ProtoFields by their name after "orv." / "orvcmd."
local all = {}  -- of orv
local cmdAll = {}

local SIZE = {u8 = 1, x8 = 1, u16 = 2, x16 = 2, i16 = 2, u24 = 3, u32 = 4, x32 = 4, u64 = 8, f32 = 4, f64 = 8,
              v3 = 12, m33 = 36}

-- Wireshark 4.2 gave ProtoField.float and .double a unit table before the
-- description; 4.0 (Debian's) takes the description third.
local FLOAT_UNITS = (function()
    local major, minor = get_version():match("^(%d+)%.(%d+)")
    major, minor = tonumber(major) or 0, tonumber(minor) or 0
    return major > 4 or (major == 4 and minor >= 2)
end)()

local function floatField(make, abbr, label, desc)
    if FLOAT_UNITS then return make(abbr, label, nil, desc) end
    return make(abbr, label, desc)
end

local function newField(proto, key, kind, label, desc)
    local abbr = proto .. "." .. key
    local f
    if kind == "u8" then f = ProtoField.uint8(abbr, label, base.DEC, nil, nil, desc)
    elseif kind == "x8" then f = ProtoField.uint8(abbr, label, base.HEX, nil, nil, desc)
    elseif kind == "u16" then f = ProtoField.uint16(abbr, label, base.DEC, nil, nil, desc)
    elseif kind == "x16" then f = ProtoField.uint16(abbr, label, base.HEX, nil, nil, desc)
    elseif kind == "i16" then f = ProtoField.int16(abbr, label, base.DEC, nil, nil, desc)
    elseif kind == "u24" then f = ProtoField.uint24(abbr, label, base.DEC, nil, nil, desc)
    elseif kind == "u32" then f = ProtoField.uint32(abbr, label, base.DEC, nil, nil, desc)
    elseif kind == "x32" then f = ProtoField.uint32(abbr, label, base.HEX, nil, nil, desc)
    elseif kind == "u64" then f = ProtoField.uint64(abbr, label, base.DEC, nil, nil, desc)
    elseif kind == "f32" or kind == "v3" or kind == "m33" then f = floatField(ProtoField.float, abbr, label, desc)
    elseif kind == "f64" then f = floatField(ProtoField.double, abbr, label, desc)
    elseif kind == "str" then f = ProtoField.string(abbr, label, base.ASCII, desc)
    elseif kind == "strz" then f = ProtoField.stringz(abbr, label, base.ASCII, desc)
    else f = ProtoField.bytes(abbr, label, base.NONE, desc) end
    local index = proto == "orv" and key or proto .. ":" .. key
    if pf[index] == nil then
        pf[index] = f
        table.insert(proto == "orv" and all or cmdAll, f)
    end
    return pf[index]
end

-- A layout: the fields of a packet in wire order. Each item is
-- {name, kind, description[, count], label = display name}; "skip" items are bytes the library
-- does not read, "v3" three f32 (x, y, z), "m33" nine f32 row by row, and a
-- count repeats the item. The description carries the unit.
local function layoutSize(layout)
    local n = 0
    for _, it in ipairs(layout) do
        n = n + (it[2] == "skip" and it[4] or SIZE[it[2]] * (it[4] or 1))
    end
    return n
end

local function offsetOf(layout, name, from)
    local at = from
    for _, it in ipairs(layout) do
        if it[1] == name then return at end
        at = at + (it[2] == "skip" and it[4] or SIZE[it[2]] * (it[4] or 1))
    end
    error("orvaccess.lua: no field " .. name)
end

local function register(prefix, layout)
    for _, it in ipairs(layout) do
        newField("orv", prefix .. "." .. it[1], it[2] == "skip" and "bytes" or it[2], it.label or it[1], it[3])
    end
end

-- ---- the layouts: the library's own field lists ----
local LY = W.layouts
local TRACKING, OPTICAL, OPTICAL_TARGET, STATS = LY.TRACKING, LY.OPTICAL, LY.OPTICAL_TARGET, LY.STATS
local PRA, HUB, HUB_ERROR, NFT, NFT_TAIL = LY.PRA, LY.HUB, LY.HUB_ERROR, LY.NFT, LY.NFT_TAIL
local META, IMAGE, PLATPOSE, POSE = LY.META, LY.IMAGE, LY.PLATPOSE, LY.POSE
local TARGET, TARGET_ENTRY, DIAG, DIAG_OPTIONAL = LY.TARGET, LY.TARGET_ENTRY, LY.DIAG, LY.DIAG_OPTIONAL
local GPS, UPLINK_GPS, UPLINK_POSE, INPUT = LY.GPS, LY.UPLINK_GPS, LY.UPLINK_POSE, LY.INPUT
for _, it in ipairs(LY.GPS_BODY) do table.insert(GPS, it); table.insert(UPLINK_GPS, it) end

-- ---- the inertial chip packet (IMU subpacket) ----
-- Mask-driven types: the fields present in this fixed order, each with its
-- bytes and scale as the library decodes them: {bit, name, bytes, scale, raw
-- name, unsigned}.
local CHIP_FIELDS = W.chipFields

local function chipFields()
    newField("orv", "imu.sync", "u8", "sync", "Sync byte of the chip packet, " .. S.CHIP_SYNC)
    newField("orv", "imu.type", "u8", "type", "Chip packet type")
    newField("orv", "imu.checksum", "x8", "checksum", "Chip packet checksum")
    newField("orv", "imu.notDecoded", "bytes", "notDecoded", "Bytes of this chip type that the library does not decode")
    -- The decoded values with their names and meanings from the chip's tables.
    for _, v in ipairs(W.chipValues) do newField("orv", "imu." .. v[1], v[2], v[3], v[4]) end
end

-- ---- expert info ----
local EX = {
    checksum = ProtoExpert.new("orv.checksum.bad", "Bad checksum", expert.group.CHECKSUM, expert.severity.ERROR),
    unchecked = ProtoExpert.new("orv.checksum.unchecked", "Bad checksum (the library does not check this kind)",
                                expert.group.CHECKSUM, expert.severity.WARN),
    length = ProtoExpert.new("orv.length.bad", "Wrong length", expert.group.PROTOCOL, expert.severity.ERROR),
    start = ProtoExpert.new("orv.start.bad", "Wrong start byte", expert.group.PROTOCOL, expert.severity.ERROR),
    short = ProtoExpert.new("orv.short", "Shorter than its fixed fields", expert.group.PROTOCOL,
                            expert.severity.ERROR),
    overrun = ProtoExpert.new("orv.overrun", "Count runs past the packet", expert.group.PROTOCOL,
                              expert.severity.ERROR),
    chip = ProtoExpert.new("orv.imu.bad", "Bad IMU subpacket", expert.group.PROTOCOL, expert.severity.ERROR),
    dropped = ProtoExpert.new("orv.dropped", "Not a kind this port carries: the library drops it unseen",
                              expert.group.PROTOCOL, expert.severity.WARN),
    code = ProtoExpert.new("orv.errorcode", "Error code reported", expert.group.RESPONSE_CODE, expert.severity.NOTE),
    ignored = ProtoExpert.new("orv.ignored", "Format the library ignores", expert.group.PROTOCOL,
                              expert.severity.WARN),
}
local CX = {
    checksum = ProtoExpert.new("orvcmd.checksum.bad", "Bad frame checksum", expert.group.CHECKSUM,
                               expert.severity.ERROR),
    unknown = ProtoExpert.new("orvcmd.unknown", "Unknown command or reply", expert.group.PROTOCOL,
                              expert.severity.WARN),
}

-- ---- the generic fields of every packet ----
newField("orv", "datagram", "str", "datagram", "Kind of datagram")
newField("orv", "subpacket", "str", "subpacket", "Kind of subpacket")
newField("orv", "start", "u8", "start", "Start byte: the kind of packet")
newField("orv", "length", "u16", "length", "Length word: the whole packet, start byte and checksum included, bytes")
newField("orv", "checksum", "x8", "checksum", "Checksum byte: makes the 8-bit sum of the packet 0")
newField("orv", "errorMessage", "str", "errorMessage", "What the library says of the error code")
newField("orv", "nft.feature", "f32", "feature", "Feature position, x y z")
newField("orv", "optical.target", "bytes", "target", "Optical target entry")
newField("orv", "target.entry", "bytes", "entry", "Target entry")
newField("orv", "image.pixels", "bytes", "pixels", "Pixel bytes of this piece")
newField("orv", "image.geometry", "str", "geometry", "Width x height x bytes per pixel of the format")
newField("orv", "target.trailer", "u8", "trailer", "Trailer byte")

register("tracking", TRACKING)
register("optical", OPTICAL)
register("optical", OPTICAL_TARGET)
register("optical", STATS)
register("pra", PRA)
register("hub", HUB)
register("hubError", HUB_ERROR)
register("nft", NFT)
register("nft", NFT_TAIL)
register("meta", META)
register("image", IMAGE)
register("platpose", PLATPOSE)
register("platpose", POSE)
register("target", TARGET)
register("target", TARGET_ENTRY)
register("diag", DIAG)
register("diag", DIAG_OPTIONAL)
register("gps", GPS)
register("uplink.platpose", UPLINK_POSE)
register("uplink.gps", UPLINK_GPS)
register("uplink.input", INPUT)
chipFields()

-- ---- the layouts against the library's numbers ----
local function expect(what, got, want)
    if got ~= want then
        error(string.format("orvaccess.lua is out of step with the library: %s is %d here, %d in orvwire.h",
                            what, got, want))
    end
end
local H = L.HEADER_SIZE
expect("the tracking packet's fixed part", H + layoutSize(TRACKING), L.TRACKING_OPTICAL_AT)
expect("the tracking packet", L.TRACKING_OPTICAL_AT + 1, L.TRACKING_SIZE)
expect("the optical header", H + layoutSize(OPTICAL), L.OPTICAL_TARGETS_AT)
expect("an optical target", layoutSize(OPTICAL_TARGET), L.OPTICAL_TARGET_SIZE)
expect("the pose-recovery block", layoutSize(STATS), L.OPTICAL_STATS_SIZE)
expect("the PRA packet", H + layoutSize(PRA) + 1, L.PRA_SIZE)
expect("the hub data packet", H + layoutSize(HUB) + 1, L.HUB_DATA_SIZE)
expect("the hub error packet", H + layoutSize(HUB_ERROR) + 1, L.HUB_ERROR_SIZE)
expect("the NFT header", H + layoutSize(NFT), L.NFT_FEATURES_AT)
expect("the NFT packet", L.NFT_FEATURES_AT + layoutSize(NFT_TAIL) + 1, L.NFT_SIZE)
expect("the meta header", H + layoutSize(META), L.META_IMU_AT)
expect("the meta time", offsetOf(META, "time", H), L.META_TIME_AT)
for _, slot in ipairs(W.metaSlots) do
    local name = ({["platform-pose"] = "platPoseAt", target = "targetAt", diagnostic = "diagAt", gps = "gpsAt"})[slot.family]
    expect("the meta offset of " .. slot.family, offsetOf(META, name, H), slot.at)
end
expect("the image header", H + layoutSize(IMAGE), L.IMAGE_PIXELS_AT)
expect("the image overhead", L.IMAGE_PIXELS_AT + 1, L.IMAGE_OVERHEAD)
expect("the platform pose's format-3 pose", H + layoutSize(PLATPOSE), L.PLATPOSE_FORMAT3_AT)
expect("the target header", H + layoutSize(TARGET), L.TARGET_ENTRIES_AT)
expect("a target entry", layoutSize(TARGET_ENTRY), L.TARGET_ENTRY_SIZE)
expect("the diagnostic fields", H + layoutSize(DIAG), L.DIAG_OPTIONAL_1 - 2)
expect("the GPS subpacket", H + layoutSize(GPS) + 1, L.UPLINK_GPS_SIZE)
expect("the uplink GPS packet", H + layoutSize(UPLINK_GPS) + 1, L.UPLINK_GPS_SIZE)
expect("the uplink platform pose", H + layoutSize(UPLINK_POSE) + 1, L.UPLINK_PLATPOSE_SIZE)
expect("the uplink input", H + layoutSize(INPUT) + 1, L.UPLINK_INPUT_SIZE)
-- Some chip types carry bytes after their fields that nothing decodes; the
-- fields must fit, not fill.
for ctype, c in pairs(W.chip) do
    if c.mask ~= 0 then
        local n = 3 + 1
        for _, cf in ipairs(CHIP_FIELDS) do
            if band(c.mask, cf[1]) ~= 0 then n = n + cf[3] end
        end
        expect("the fields of chip packet type " .. ctype, math.min(n, c.length), n)
    end
end

-- ---------------------------------------------------------------------------
-- Preferences: the ports, with the library's defaults

local PORT_PREFS = {
    {"meta", "meta_port", "Meta port (udpOrvRxPort)"},
    {"core", "core_port", "orvCore port (udpOrvCorePort)"},
    {"image", "image_port", "Image port (udpOrvRxImgPort)"},
    {"uplink", "uplink_port", "Uplink port of orvRx (udpOrvRxInputPort)"},
    {"hub", "hub_port", "orvHub port (udpOrvHubPort)"},
    {"nft", "nft_port", "NFT port (udpNftPort)"},
    {"commands", "command_port", "Command port of orvRx, TCP (tcpOrvRxPort)"},
}
for _, p in ipairs(PORT_PREFS) do
    orv.prefs[p[2]] = Pref.uint(p[3], W.ports[p[1]], "0 switches the channel off")
end

orv.fields = all
orvcmd.fields = cmdAll
orv.experts = {EX.checksum, EX.unchecked, EX.length, EX.start, EX.short, EX.overrun, EX.chip, EX.dropped, EX.code,
               EX.ignored}
orvcmd.experts = {CX.checksum, CX.unknown}

-- ---------------------------------------------------------------------------
-- Walking a layout

local function byteSum(tvb, at, n)
    local sum, raw = 0, tvb:raw(at, n)
    for i = 1, #raw, 4096 do
        local chunk = {raw:byte(i, math.min(i + 4095, #raw))}
        for j = 1, #chunk do sum = sum + chunk[j] end
    end
    return sum % 256
end

local function value(tvb, at, kind)
    local r = tvb(at, SIZE[kind])
    if kind == "f32" or kind == "v3" or kind == "m33" then return r:le_float() end
    if kind == "f64" then return r:le_float() end
    if kind == "i16" then return r:le_int() end
    if kind == "u64" then return r:le_uint64() end
    return r:le_uint()
end

-- Adds the items of `layout` from `at` on, within `limit` (the real bytes).
-- Returns the offset after them and the values by name; the values of an
-- item that did not fit are missing, and `short` is true.
local function walk(tree, tvb, at, limit, prefix, layout)
    local v, short = {}, false
    for _, it in ipairs(layout) do
        local name, kind, count = it[1], it[2], it[4] or 1
        local f = pf[prefix .. "." .. name]
        if kind == "skip" then
            if at + count <= limit then tree:add(f, tvb(at, count)) else short = true end
            at = at + count
        else
            local each = (kind == "v3" and 3 or kind == "m33" and 9 or 1) * count
            local width = kind == "v3" and 4 or kind == "m33" and 4 or SIZE[kind]
            local itemKind = (kind == "v3" or kind == "m33") and "f32" or kind
            for i = 0, each - 1 do
                if at + width > limit then short = true; break end
                local x = value(tvb, at, itemKind)
                local item = tree:add_le(f, tvb(at, width))
                if each > 1 then
                    -- Each element under the field's display name, its index after it.
                    item:set_text(string.format(type(x) == "number" and x % 1 ~= 0 and "%s[%d]: %.7g" or "%s[%d]: %s",
                                                it.label or name, i,
                                                type(x) == "number" and x % 1 ~= 0 and x or tostring(x)))
                    v[name] = v[name] or {}
                    v[name][i + 1] = x
                else
                    v[name] = x
                end
                at = at + width
            end
            if short then break end
        end
    end
    return at, v, short
end

-- The frame of a packet at `at` whose real bytes end at `limit`: start byte,
-- length word, checksum. Returns the length word (or the bytes there are)
-- and whether the library's check passes.
local function frame(tree, tvb, at, limit, family, headline)
    local fam = FAM[family]
    local real = limit - at
    local length = real >= 3 and tvb(at + 1, 2):le_uint() or real
    local span = math.min(math.max(length, 1), real)
    local sub = tree:add(orv, tvb(at, span), headline)
    sub:add(pf.start, tvb(at, 1))
    if real >= 3 then sub:add_le(pf.length, tvb(at + 1, 2)) end
    local ok = true
    if tvb(at, 1):uint() ~= fam.start then
        sub:add_proto_expert_info(EX.start, string.format("Wrong start byte %d (%s packets start with %d)",
                                                          tvb(at, 1):uint(), family, fam.start))
        ok = false
    end
    if real < 3 or length < 4 then
        sub:add_proto_expert_info(EX.length, string.format("Wrong length: the length word says %d", length))
        ok = false
    elseif fam.check == "datagram" and length ~= real then
        sub:add_proto_expert_info(EX.length, string.format("Wrong length: the length word says %d but the datagram has %d bytes",
                                                           length, real))
        ok = false
    elseif length > real then
        sub:add_proto_expert_info(EX.length, string.format("Wrong length: the length word says %d but %d bytes are left",
                                                           length, real))
        ok = false
    end
    local n = math.min(length, real)
    if fam.check == "datagram" and length ~= real then n = real end
    if n >= 1 then
        sub:add(pf.checksum, tvb(at + n - 1, 1))
        if byteSum(tvb, at, n) ~= 0 then
            sub:add_proto_expert_info(fam.check == "none" and EX.unchecked or EX.checksum,
                                      string.format("Bad checksum: the bytes sum to 0x%02x, not 0", byteSum(tvb, at, n)))
            if fam.check ~= "none" then ok = false end
        end
    end
    if n < fam.fixedSize then
        sub:add_proto_expert_info(EX.short, string.format("%d bytes: shorter than the %d of a %s packet's fixed fields",
                                                          n, fam.fixedSize, family))
    end
    return sub, n, ok
end

local function errorCodes(tree, codes, origin, pinfo)
    for _, c in ipairs(codes or {}) do
        if c ~= 0 then
            local code = origin + c
            local text = W.messages[code] or W.unknownMessages[shr(code, 8) + 1]
            tree:add(pf.errorMessage, string.format("%d: %s", code, text)):set_generated()
            tree:add_proto_expert_info(EX.code, string.format("Error code %d: %s", code, text))
        end
    end
end

-- ---------------------------------------------------------------------------
-- Packets

local function signExtend(v, bits)
    local m = shl(1, bits) - 1
    v = band(v, m)
    if band(v, shl(1, bits - 1)) ~= 0 then return v - m - 1 end
    return v
end

-- A compact chip packet's signed values: `bits` bits of the little-endian
-- word at at + 2 * i (the rest of the word is other fields'), scaled.
local CG, CA, CT = W.compact.gyro, W.compact.accel, W.compact.triad

local function imu(tree, tvb, at, limit)
    local ctype = limit - at >= 2 and tvb(at + 1, 1):uint() or -1
    local c = W.chip[ctype]
    local length = c and c.length or math.min(L.META_IMU_SIZE, limit - at)
    local span = math.min(length, limit - at)
    local sub = tree:add(orv, tvb(at, span), string.format("IMU subpacket (chip packet type %d)", ctype))
    sub:add(pf.subpacket, tvb(at, span), "imu"):set_generated()
    sub:add(pf["imu.sync"], tvb(at, 1))
    if span >= 2 then sub:add(pf["imu.type"], tvb(at + 1, 1)) end
    if tvb(at, 1):uint() ~= S.CHIP_SYNC or c == nil or span < length or byteSum(tvb, at, length) ~= 0 then
        local why = tvb(at, 1):uint() ~= S.CHIP_SYNC and "wrong sync byte"
                    or c == nil and "unknown chip packet type"
                    or span < length and "cut short by the datagram" or "bad checksum"
        sub:add_proto_expert_info(EX.chip, string.format("Bad IMU subpacket: %s (the library raises %d)", why,
                                                         FAM.imu.badCode))
        return "imu?"
    end
    local b = function(i) return tvb(at + i, 1):uint() end
    local function compact(cv, i)
        local w = cv.at + 2 * i
        return signExtend(b(w) + 256 * b(w + 1), cv.bits) * cv.scale
    end
    -- A small field of a compact packet: its pieces {byte, shift, mask} ORed.
    local function gather(pieces)
        local v = 0
        for _, p in ipairs(pieces) do
            local x = p[2] >= 0 and shl(b(p[1]), p[2]) or shr(b(p[1]), -p[2])
            v = bor(v, band(x, p[3]))
        end
        return v
    end
    if c.mask == 0 then
        -- Compact types: bit-packed fields across the packet.
        local r = tvb(at, length)
        sub:add(pf["imu.pid"], r, gather(W.compact.pid)):set_generated()
        sub:add(pf["imu.status"], r, gather(W.compact.status)):set_generated()
        sub:add(pf["imu.word"], r, gather(W.compact.word)):set_generated()
        for i = 0, 2 do
            sub:add(pf["imu.gyro"], tvb(at + CG.at + 2 * i, 2), compact(CG, i)):set_generated()
        end
        for i = 0, 2 do
            sub:add(pf["imu.accel"], tvb(at + CA.at + 2 * i, 2), compact(CA, i)):set_generated()
        end
        if ctype == W.compact.withTriad then
            sub:add(pf["imu.triadAxis"], tvb(at + CT.at + 1, 1), shr(b(CT.at + 1), 6)):set_generated()
            sub:add(pf["imu.triad"], tvb(at + CT.at, 2), compact(CT, 0)):set_generated()
        end
        return "imu"
    end
    sub:add(pf["imu.pid"], tvb(at + 2, 1))
    local pos = at + W.chipFieldsAt
    local status = 0
    for _, cf in ipairs(CHIP_FIELDS) do
        local bit, name, n, scale, raw, unsigned = cf[1], cf[2], cf[3], cf[4], cf[5], cf[6]
        if band(c.mask, bit) ~= 0 then
            if name == "status" then status = b(pos - at) end
            if n == 1 then
                sub:add(pf["imu." .. name], tvb(pos, 1))
            elseif name == "word" then
                sub:add_le(pf["imu.word"], tvb(pos, 2))
            elseif name == "aux" then
                local first = b(pos - at)
                sub:add(pf["imu.hi2000"], tvb(pos, 1), shr(first, 5))
                sub:add(pf["imu.lo2000"], tvb(pos, 1), band(first, 0x1F))
                sub:add(pf["imu.byte2000"], tvb(pos + 1, 1))
            elseif name == "value8000" then
                local va = W.chipValue8000a
                sub:add(pf["imu.value8000a"], tvb(pos, 3), tvb(pos, 3):le_uint() * va.scale * va.factor)
                sub:add(pf["imu.value8000b"], tvb(pos + 3, 2), tvb(pos + 3, 2):le_int() * scale)
            elseif name == "triad" and n == 2 then  -- one axis, named by the status byte
                sub:add(pf["imu.triadAxis"], tvb(pos, 2), band(status, 3)):set_generated()
                sub:add(pf["imu.triad"], tvb(pos, 2), tvb(pos, 2):le_int() * scale)
            else
                for i = 0, n / 2 - 1 do
                    local r = tvb(pos + 2 * i, 2)
                    if raw then sub:add_le(pf["imu." .. raw], r) end
                    local x = unsigned and r:le_uint() * scale or r:le_int() * scale
                    sub:add(pf["imu." .. name], r, x)
                end
            end
            pos = pos + n
        end
    end
    if pos < at + length - 1 then sub:add(pf["imu.notDecoded"], tvb(pos, at + length - 1 - pos)) end
    sub:add(pf["imu.checksum"], tvb(at + length - 1, 1))
    return "imu"
end

local function platpose(tree, tvb, at, limit, headline)
    local sub, n, ok = frame(tree, tvb, at, limit, "platform-pose", headline or "Platform-pose subpacket")
    sub:add(pf.subpacket, tvb(at, 1), "platform-pose"):set_generated()
    local _, v = walk(sub, tvb, at + H, at + n - 1, "platpose", PLATPOSE)
    if v.format == W.layout.PLATPOSE_FORMAT3 then
        walk(sub, tvb, at + L.PLATPOSE_FORMAT3_AT, at + n - 1, "platpose", POSE)
    elseif v.format == W.layout.PLATPOSE_FORMAT2 then
        walk(sub, tvb, at + L.PLATPOSE_FORMAT2_AT, at + n - 1, "platpose", POSE)
    elseif v.format ~= nil then
        sub:add_proto_expert_info(EX.ignored, "Format " .. v.format .. ": the library ignores this subpacket")
    end
    return ok
end

local function target(tree, tvb, at, limit)
    local sub, n, ok = frame(tree, tvb, at, limit, "target", "Target subpacket")
    sub:add(pf.subpacket, tvb(at, 1), "target"):set_generated()
    local pos, v = walk(sub, tvb, at + H, at + n - 1, "target", TARGET)
    local count = v.entryCount or 0
    if L.TARGET_ENTRIES_AT + L.TARGET_ENTRY_SIZE * count + 1 > n - 1 then
        sub:add_proto_expert_info(EX.overrun, string.format(
            "%d entries need %d bytes but the subpacket has %d (the library raises %d)",
            count, L.TARGET_ENTRIES_AT + L.TARGET_ENTRY_SIZE * count + 2, n, FAM.target.overrunCode))
    end
    for i = 0, count - 1 do
        if pos + L.TARGET_ENTRY_SIZE > at + n - 2 then break end
        local e = sub:add(pf["target.entry"], tvb(pos, L.TARGET_ENTRY_SIZE))
        local _, ev = walk(e, tvb, pos, pos + L.TARGET_ENTRY_SIZE, "target", TARGET_ENTRY)
        e:set_text(string.format("Entry %d: kind %d, id %d", (v.first or 0) + i, ev.kind or 0, ev.id or 0))
        pos = pos + L.TARGET_ENTRY_SIZE
    end
    if n >= 2 then sub:add(pf["target.trailer"], tvb(at + n - 2, 1)) end
    return ok
end

local function diag(tree, tvb, at, limit)
    local sub, n, ok = frame(tree, tvb, at, limit, "diagnostic", "Diagnostic subpacket")
    sub:add(pf.subpacket, tvb(at, 1), "diagnostic"):set_generated()
    local pos, v = walk(sub, tvb, at + H, at + n - 1, "diag", DIAG)
    errorCodes(sub, v.errorCodes, W.origins.ORVRX)
    -- Two optional bytes above one length, two more above the next.
    local optional = n > L.DIAG_OPTIONAL_2 and 4 or n > L.DIAG_OPTIONAL_1 and 2 or 0
    if optional > 0 then walk(sub, tvb, pos, math.min(pos + optional, at + n - 1), "diag", DIAG_OPTIONAL) end
    local consumed = n > L.DIAG_OPTIONAL_2 and L.DIAG_OPTIONAL_2 or n > L.DIAG_OPTIONAL_1 and L.DIAG_OPTIONAL_1
                     or L.DIAG_OPTIONAL_1 - 2
    if consumed > n - 1 then
        sub:add_proto_expert_info(EX.overrun, string.format(
            "The fields run to byte %d but the subpacket has %d bytes (the library raises %d)", consumed, n,
            FAM.diagnostic.overrunCode))
    end
    return ok
end

local function gps(tree, tvb, at, limit)
    local sub, n, ok = frame(tree, tvb, at, limit, "gps", "GPS subpacket")
    sub:add(pf.subpacket, tvb(at, 1), "gps"):set_generated()
    local _, v = walk(sub, tvb, at + H, at + n - 1, "gps", GPS)
    if v.format ~= nil and v.format ~= L.GPS_FORMAT then
        sub:add_proto_expert_info(EX.ignored, "Format " .. v.format .. ": the library ignores this subpacket")
    end
    return ok
end

local SUBPACKETS = {["platform-pose"] = platpose, target = target, diagnostic = diag, gps = gps}

local function meta(tree, tvb, pinfo)
    local size = tvb:len()
    local sub, _, ok = frame(tree, tvb, 0, size, "meta", "Meta packet")
    local _, v = walk(sub, tvb, H, size - 1, "meta", META)
    local kinds = {}
    if (v.interval or 0) > 0 and size > L.META_IMU_AT then table.insert(kinds, imu(sub, tvb, L.META_IMU_AT, size - 1)) end
    for _, slot in ipairs(W.metaSlots) do
        local off = slot.at + slot.width <= size and tvb(slot.at, slot.width):le_uint() or 0
        if off ~= 0 then
            if off >= size - 1 then
                sub:add_proto_expert_info(EX.overrun, string.format("The %s subpacket's offset %d lies past the packet",
                                                                    slot.family, off))
            else
                SUBPACKETS[slot.family](sub, tvb, off, size - 1)
                table.insert(kinds, slot.family)
            end
        end
    end
    pinfo.cols.info:append(string.format(" tag %d [%s]", v.tag or 0, table.concat(kinds, ", ")))
    return ok
end

local function optical(tree, tvb, at, limit)
    local sub, n, ok = frame(tree, tvb, at, limit, "optical", "Optical subpacket")
    sub:add(pf.subpacket, tvb(at, 1), "optical"):set_generated()
    local pos, v = walk(sub, tvb, at + H, at + n - 1, "optical", OPTICAL)
    local count = v.targetCount or 0
    for i = 0, count - 1 do
        if pos + L.OPTICAL_TARGET_SIZE > at + n - 1 then break end
        local e = sub:add(pf["optical.target"], tvb(pos, L.OPTICAL_TARGET_SIZE))
        local _, ev = walk(e, tvb, pos, pos + L.OPTICAL_TARGET_SIZE, "optical", OPTICAL_TARGET)
        e:set_text(string.format("Target %d: id %d", i, ev.id or 0))
        pos = pos + L.OPTICAL_TARGET_SIZE
    end
    local consumed = L.OPTICAL_TARGETS_AT + L.OPTICAL_TARGET_SIZE * count
    if n - 1 > consumed then
        if consumed + L.OPTICAL_STATS_SIZE <= n - 1 then
            local st = sub:add(orv, tvb(at + consumed, L.OPTICAL_STATS_SIZE), "Pose-recovery statistics")
            walk(st, tvb, at + consumed, at + consumed + L.OPTICAL_STATS_SIZE, "optical", STATS)
        end
        consumed = consumed + L.OPTICAL_STATS_SIZE
    end
    if n - 1 < consumed then
        sub:add_proto_expert_info(EX.overrun, string.format(
            "%d targets (and statistics) need %d bytes but the subpacket has %d (the library raises %d)",
            count, consumed + 1, n, FAM.optical.overrunCode))
    end
    return ok
end

local function tracking(tree, tvb, pinfo)
    local size = tvb:len()
    local sub, _, ok = frame(tree, tvb, 0, size, "tracking", "Tracking packet")
    local _, v = walk(sub, tvb, H, size - 1, "tracking", TRACKING)
    errorCodes(sub, v.errorCodes, 0)
    local extra = ""
    if size - 1 > L.TRACKING_OPTICAL_AT then
        optical(sub, tvb, L.TRACKING_OPTICAL_AT, size - 1)
        extra = " [optical]"
    end
    pinfo.cols.info:append(string.format(" tag %d poseTime %s%s", v.packetTag or 0, tostring(v.poseTime or 0), extra))
    return ok
end

local function simple(family, prefix, layout, headline)
    return function(tree, tvb, pinfo)
        local size = tvb:len()
        local sub, _, ok = frame(tree, tvb, 0, size, family, headline)
        local _, v = walk(sub, tvb, H, size - 1, prefix, layout)
        return ok, sub, v
    end
end

local pra = simple("pra", "pra", PRA, "PRA packet")
local hubData = simple("hub", "hub", HUB, "Hub data packet")

local function hubError(tree, tvb, pinfo)
    local ok, sub, v = simple("hub-error", "hubError", HUB_ERROR, "Hub error packet")(tree, tvb, pinfo)
    errorCodes(sub, {v.code}, W.origins.ORVHUB)
    return ok
end

local function nft(tree, tvb, pinfo)
    local size = tvb:len()
    local sub, _, ok = frame(tree, tvb, 0, size, "nft", "NFT packet")
    local pos, v = walk(sub, tvb, H, size - 1, "nft", NFT)
    local count = v.featureCount or 0
    local need = L.NFT_FEATURES_AT + L.NFT_FEATURE_SIZE * count + L.NFT_SIZE - L.NFT_FEATURES_AT
    if need > size then
        sub:add_proto_expert_info(EX.overrun, string.format("%d features need %d bytes but the packet has %d",
                                                            count, need, size))
    end
    for i = 0, count - 1 do
        if pos + L.NFT_FEATURE_SIZE > size - 1 then break end
        local fi = sub:add(orv, tvb(pos, L.NFT_FEATURE_SIZE), string.format("Feature %d", i))
        for k = 0, 2 do fi:add_le(pf["nft.feature"], tvb(pos + 4 * k, 4)) end
        pos = pos + L.NFT_FEATURE_SIZE
    end
    if pos + 12 <= size - 1 then walk(sub, tvb, pos, size - 1, "nft", NFT_TAIL) end
    pinfo.cols.info:append(string.format(" tag %d poseTime %s, %d features", v.packetTag or 0,
                                         tostring(v.poseTime or 0), count))
    return ok
end

local function image(tree, tvb, pinfo)
    local size = tvb:len()
    local sub, _, ok = frame(tree, tvb, 0, size, "image", "Image packet")
    local pos, v = walk(sub, tvb, H, size - 1, "image", IMAGE)
    local g = W.images[v.format or -1]
    -- A datagram cut short before the format byte has no geometry to show;
    -- frame() has marked it too short already.
    if size > 7 then
        sub:add(pf["image.geometry"], tvb(7, 1),
                g and string.format("%dx%dx%d", g[1], g[2], g[3]) or "illegal format"):set_generated()
    end
    if pos < size - 1 then sub:add(pf["image.pixels"], tvb(pos, size - 1 - pos)) end
    pinfo.cols.info:append(string.format(" sequence %d at %d, %d bytes", v.sequenceId or 0, v.address or 0,
                                         math.max(0, size - L.IMAGE_OVERHEAD)))
    return ok
end

local uplinkPose = simple("platform-pose", "uplink.platpose", UPLINK_POSE, "Uplink platform pose")
local uplinkGps = simple("gps", "uplink.gps", UPLINK_GPS, "Uplink GPS data")
local function uplinkInput(tree, tvb, pinfo)
    -- The input packet shares the GPS start byte and is told from it by its size.
    local size = tvb:len()
    local sub = tree:add(orv, tvb(), "Uplink input data")
    sub:add(pf.start, tvb(0, 1))
    sub:add_le(pf.length, tvb(1, 2))
    walk(sub, tvb, H, size - 1, "uplink.input", INPUT)
    sub:add(pf.checksum, tvb(size - 1, 1))
    if byteSum(tvb, 0, size) ~= 0 then sub:add_proto_expert_info(EX.checksum) end
    return true
end

local DATAGRAMS = {meta = meta, image = image, tracking = tracking, pra = pra, ["hub-error"] = hubError,
                   hub = hubData, nft = nft}

-- The uplink's kind by start byte and size.
local function uplinkKind(tvb)
    local first, size = tvb(0, 1):uint(), tvb:len()
    if first == S.START_PLATPOSE and size == L.UPLINK_PLATPOSE_SIZE then return "platform-pose", uplinkPose end
    if first == S.START_GPS and size == L.UPLINK_GPS_SIZE then return "gps", uplinkGps end
    if first == S.START_INPUT and size == L.UPLINK_INPUT_SIZE then return "input", uplinkInput end
    return nil
end

-- The family the library hands a datagram on one of its ports to.
local function routeOf(portName, first)
    for _, r in ipairs(W.routes) do
        if r.port == portName and (r.first == -1 or r.first == first) then return r.family end
    end
    return nil
end

local function show(tvb, pinfo, tree, name, fn, what)
    pinfo.cols.protocol = "ORV"
    pinfo.cols.info = what or name
    local top = tree:add(orv, tvb(), "orv " .. (what or name))
    top:add(pf.datagram, tvb(0, 1), name):set_generated()
    fn(top, tvb, pinfo)
    return tvb:len()
end

function orv.dissector(tvb, pinfo, tree)
    if tvb:len() < 1 then return 0 end
    local first = tvb(0, 1):uint()
    if pinfo.dst_port == orv.prefs.uplink_port and orv.prefs.uplink_port ~= 0 then
        local kind, fn = uplinkKind(tvb)
        if kind == nil then
            local top = tree:add(orv, tvb(), "orv uplink datagram of no known kind")
            top:add_proto_expert_info(EX.length, "Neither a platform pose (21 bytes) nor GPS (73) nor input (5)")
            return tvb:len()
        end
        return show(tvb, pinfo, tree, "uplink-" .. kind, fn, "uplink " .. kind)
    end
    for _, p in ipairs(PORT_PREFS) do
        if p[1] ~= "uplink" and p[1] ~= "commands" and orv.prefs[p[2]] ~= 0 and pinfo.dst_port == orv.prefs[p[2]] then
            local family = routeOf(p[1], first)
            if family == nil then
                pinfo.cols.protocol = "ORV"
                local top = tree:add(orv, tvb(), "orv datagram the " .. p[1] .. " port does not carry")
                top:add_proto_expert_info(EX.dropped)
                return tvb:len()
            end
            return show(tvb, pinfo, tree, family, DATAGRAMS[family])
        end
    end
    return 0
end

-- On other ports: a datagram whose start byte names a kind and whose length
-- word and checksum agree with its bytes.
local function heuristic(tvb, pinfo, tree)
    local size = tvb:len()
    if size < 4 or tvb(1, 2):le_uint() ~= size or byteSum(tvb, 0, size) ~= 0 then return false end
    local kind, fn = uplinkKind(tvb)
    if kind ~= nil then
        show(tvb, pinfo, tree, "uplink-" .. kind, fn, "uplink " .. kind)
        return true
    end
    local first = tvb(0, 1):uint()
    for name, fam in pairs(FAM) do
        if fam.check ~= "subpacket" and fam.check ~= "chip" and fam.start == first and DATAGRAMS[name] then
            show(tvb, pinfo, tree, name, DATAGRAMS[name])
            return true
        end
    end
    return false
end

-- ---------------------------------------------------------------------------
-- The command channel

local CODE_NAMES = {[C.IMU] = "IMU transaction", [C.GET_REGISTER] = "get register",
                    [C.SET_REGISTER] = "set register", [C.GET_FILE] = "get file", [C.PUT_FILE] = "put file",
                    [C.CHUNK] = "file chunk", [C.ABORT] = "abort"}
local cmd = {
    frameStart = newField("orvcmd", "start", "x8", "start", "Frame start byte, 0xAB"),
    code = ProtoField.uint8("orvcmd.code", "code", base.HEX, CODE_NAMES, nil, "Command code"),
    address = newField("orvcmd", "address", "x32", "address", "Register address (24 bits)"),
    value = newField("orvcmd", "value", "u8", "value", "Register value; register 0 switches streaming"),
    channel = newField("orvcmd", "channel", "u8", "channel", "IMU channel: 2 for the camera IMU, else 1"),
    txLength = newField("orvcmd", "txLength", "u8", "txLength", "Transmit length, bytes"),
    tx = newField("orvcmd", "tx", "bytes", "tx", "Bytes sent to the IMU"),
    rxLength = newField("orvcmd", "rxLength", "u8", "rxLength", "Bytes wanted back, at most 255"),
    timeout = newField("orvcmd", "timeout", "u8", "timeout", "Time-out byte, orvRx's unit"),
    location = newField("orvcmd", "location", "u8", "location", "File location on orvRx"),
    name = newField("orvcmd", "name", "strz", "name", "Remote file name"),
    size = newField("orvcmd", "size", "u24", "size", "File size, bytes (0: not found)"),
    offset = newField("orvcmd", "offset", "u24", "offset", "Byte offset of the chunk in the file"),
    data = newField("orvcmd", "data", "bytes", "data", "Data bytes"),
    checksum = newField("orvcmd", "checksum", "x8", "checksum", "Makes the 8-bit sum of the frame 0"),
    direction = newField("orvcmd", "direction", "str", "direction", "to orvRx or from orvRx"),
    reply = ProtoField.uint8("orvcmd.reply", "reply", base.HEX, CODE_NAMES, nil, "Reply code: the command answered"),
    count = newField("orvcmd", "count", "u8", "count", "Data bytes in the IMU reply"),
}
table.insert(cmdAll, cmd.code)
table.insert(cmdAll, cmd.reply)
orvcmd.fields = cmdAll

local infoParts = {}     -- what the frames of one segment were, for the info column
local pending = {}       -- by TCP stream: the commands still awaiting their reply, oldest first
local answers = {}       -- by "frame:offset" of a reply: the command it answers (-1: none)
local tcpStream = Field.new("tcp.stream")

local function zeroAt(tvb, from)
    for i = from, tvb:len() - 1 do
        if tvb(i, 1):uint() == 0 then return i end
    end
    return nil
end

-- Length of the command frame at `at`, 0 when more bytes are needed.
local function commandLength(tvb, at)
    local left = tvb:len() - at
    local first = tvb(at, 1):uint()
    if first ~= C.FRAME_START then return 1 end  -- a bare acknowledgement or abort
    if left < 2 then return 0 end
    local code = tvb(at + 1, 1):uint()
    if code == C.SET_REGISTER then return 7 end
    if code == C.GET_REGISTER then return 6 end
    if code == C.CHUNK then return 6 + C.CHUNK_DATA end
    if code == C.IMU then return left >= 4 and tvb(at + 3, 1):uint() + 7 or 0 end
    if code == C.GET_FILE or code == C.PUT_FILE then
        local z = left >= 4 and zeroAt(tvb, at + 3)
        if not z then return 0 end
        return z - at + 1 + (code == C.PUT_FILE and 3 or 0) + 1
    end
    return left
end

-- Length of the reply at `at` to the command `last`, 0 when more bytes are needed.
local function replyLength(tvb, at, last)
    local left = tvb:len() - at
    local first = tvb(at, 1):uint()
    if last == C.IMU then return left >= 2 and 2 + tvb(at + 1, 1):uint() or 0 end
    if first == C.FRAME_START then return 6 + C.CHUNK_DATA end
    if first == C.GET_REGISTER then return 3 end
    if first == C.GET_FILE then return 5 end
    return 1
end

local function command(tree, tvb, at, n, pinfo)
    local t = tree:add(orvcmd, tvb(at, n))
    t:add(cmd.direction, tvb(at, 1), "to orvRx"):set_generated()
    if n == 1 then
        t:add(cmd.code, tvb(at, 1))
        local c = tvb(at, 1):uint()
        t:set_text(c == C.CHUNK and "Chunk acknowledged" or c == C.ABORT and "Transfer aborted" or "Unknown byte")
        infoParts[#infoParts + 1] = c == C.CHUNK and "chunk acknowledged" or c == C.ABORT and "abort" or "unknown byte"
        return c, false
    end
    t:add(cmd.frameStart, tvb(at, 1))
    t:add(cmd.code, tvb(at + 1, 1))
    local code = tvb(at + 1, 1):uint()
    local p = at + 2
    local text = CODE_NAMES[code] or string.format("unknown command 0x%02x", code)
    if code == C.SET_REGISTER or code == C.GET_REGISTER then
        t:add_le(cmd.address, tvb(p, 3))
        text = string.format("%s 0x%06x", text, tvb(p, 3):le_uint())
        if code == C.SET_REGISTER then
            t:add(cmd.value, tvb(p + 3, 1))
            text = text .. " = " .. tvb(p + 3, 1):uint()
        end
    elseif code == C.IMU then
        t:add(cmd.channel, tvb(p, 1))
        t:add(cmd.txLength, tvb(p + 1, 1))
        local tx = tvb(p + 1, 1):uint()
        if tx > 0 then t:add(cmd.tx, tvb(p + 2, tx)) end
        t:add(cmd.rxLength, tvb(p + 2 + tx, 1))
        t:add(cmd.timeout, tvb(p + 3 + tx, 1))
    elseif code == C.GET_FILE or code == C.PUT_FILE then
        t:add(cmd.location, tvb(p, 1))
        local z = zeroAt(tvb, p + 1)
        t:add(cmd.name, tvb(p + 1, z - p))
        text = text .. " " .. tvb(p + 1, z - p):stringz()
        if code == C.PUT_FILE then t:add_le(cmd.size, tvb(z + 1, 3)) end
    elseif code == C.CHUNK then
        t:add_le(cmd.offset, tvb(p, 3))
        t:add(cmd.data, tvb(p + 3, C.CHUNK_DATA))
        text = text .. " at " .. tvb(p, 3):le_uint()
    else
        t:add_proto_expert_info(CX.unknown)
    end
    t:add(cmd.checksum, tvb(at + n - 1, 1))
    if byteSum(tvb, at, n) ~= 0 then t:add_proto_expert_info(CX.checksum) end
    t:set_text("Command: " .. text)
    infoParts[#infoParts + 1] = text
    -- What orvRx answers: everything but an IMU transaction that wants nothing back.
    local awaited = CODE_NAMES[code] ~= nil and not (code == C.IMU and tvb(at + 4 + tvb(at + 3, 1):uint(), 1):uint() == 0)
    return code, awaited
end

local function reply(tree, tvb, at, n, last, pinfo)
    local t = tree:add(orvcmd, tvb(at, n))
    t:add(cmd.direction, tvb(at, 1), "from orvRx"):set_generated()
    local first = tvb(at, 1):uint()
    local text
    if last == C.IMU then
        t:add(cmd.count, tvb(at + 1, 1))
        if n > 2 then t:add(cmd.data, tvb(at + 2, n - 2)) end
        text = string.format("IMU reply, %d bytes", n - 2)
    elseif first == C.FRAME_START then
        t:add(cmd.frameStart, tvb(at, 1))
        t:add(cmd.reply, tvb(at + 1, 1))
        t:add_le(cmd.offset, tvb(at + 2, 3))
        t:add(cmd.data, tvb(at + 5, C.CHUNK_DATA))
        t:add(cmd.checksum, tvb(at + n - 1, 1))
        if byteSum(tvb, at, n) ~= 0 then t:add_proto_expert_info(CX.checksum) end
        text = "file chunk at " .. tvb(at + 2, 3):le_uint()
    else
        t:add(cmd.reply, tvb(at, 1))
        text = (CODE_NAMES[first] or string.format("0x%02x", first)) .. " acknowledged"
        if first == C.GET_REGISTER and n == 3 then
            t:add(cmd.value, tvb(at + 1, 1))
            text = text .. ": " .. tvb(at + 1, 1):uint()
        elseif first == C.GET_FILE and n == 5 then
            t:add_le(cmd.size, tvb(at + 1, 3))
            text = text .. ": " .. tvb(at + 1, 3):le_uint() .. " bytes"
        end
        if n > 1 then
            t:add(cmd.checksum, tvb(at + n - 1, 1))
            if byteSum(tvb, at, n) ~= 0 then t:add_proto_expert_info(CX.checksum) end
        end
        if CODE_NAMES[first] == nil then t:add_proto_expert_info(CX.unknown) end
    end
    t:set_text("Reply: " .. text)
    infoParts[#infoParts + 1] = text
end

function orvcmd.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "ORVCMD"
    infoParts = {}
    local toRx = pinfo.dst_port == orv.prefs.command_port
    local stream = tcpStream() and tcpStream().value or 0
    pending[stream] = pending[stream] or {}
    local queue = pending[stream]
    local at = 0
    while at < tvb:len() do
        -- A reply answers the oldest command still waiting; file chunks answer none.
        local key = pinfo.number .. ":" .. at
        local last = answers[key]
        if not toRx and last == nil then
            last = tvb(at, 1):uint() == C.FRAME_START and -1 or queue[1] or -1
        end
        local n = toRx and commandLength(tvb, at) or replyLength(tvb, at, last)
        if n == 0 or at + n > tvb:len() then
            pinfo.desegment_offset = at
            pinfo.desegment_len = n == 0 and DESEGMENT_ONE_MORE_SEGMENT or at + n - tvb:len()
            break
        end
        if toRx then
            local code, awaited = command(tree, tvb, at, n, pinfo)
            if not pinfo.visited and awaited then table.insert(queue, code) end
        else
            if answers[key] == nil then
                answers[key] = last
                if last ~= -1 then table.remove(queue, 1) end
            end
            reply(tree, tvb, at, n, last, pinfo)
        end
        at = at + n
    end
    if #infoParts > 0 then pinfo.cols.info = (toRx and "to orvRx: " or "from orvRx: ") .. table.concat(infoParts, "; ") end
    if at < tvb:len() then return end  -- the rest waits for the next segment
    return at
end

-- ---------------------------------------------------------------------------
-- Registration

local registered = {}

local function registerPorts()
    local udp, tcp = DissectorTable.get("udp.port"), DissectorTable.get("tcp.port")
    for _, r in ipairs(registered) do r[1]:remove(r[2], r[3]) end
    registered = {}
    for _, p in ipairs(PORT_PREFS) do
        local port = orv.prefs[p[2]]
        if port ~= 0 then
            local tableOf, proto = udp, orv
            if p[1] == "commands" then tableOf, proto = tcp, orvcmd end
            tableOf:add(port, proto)
            table.insert(registered, {tableOf, port, proto})
        end
    end
end

function orv.prefs_changed() registerPorts() end

function orv.init()
    pending = {}
    answers = {}
end

registerPorts()
orv:register_heuristic("udp", heuristic)
