-- Dissector for Wireshark and tshark: what goes between tx_proxy and its receivers.
--
-- docs/dissector.md is its page, docs/protocol.md says what the fields mean. Its parts are in the folder beside it:
--
--   fields    names, units and notes of all that is shown
--   datagram  what a datagram is; checksum and window
--   memory    what belongs together: requests, packets sent again, gaps, echoes
--   show      a datagram and what is known of it as a tree
--
-- Wireshark also runs the parts by themselves, as it does with all files below its folder for plugins: each only
-- returns a function.

local is_there, there = pcall(Dissector.get, "txproxy")
if is_there and there then
    return -- installed twice, for the user and for all: the first one serves
end

local TS_BYTES, TS_SYNC = 188, 0x47
local AGAIN_PAYLOAD_TYPE = 122

local proto = Proto("txproxy", "tx_proxy")
local again_payload = Proto("txproxy_again", "tx_proxy media sent again")

-- Wireshark tells its own variable for this to plugins of a user only.
local folder = (debug.getinfo(1, "S").source:match("^@(.*[/\\])") or "") .. "tx_proxy/"

local function part(name, ...)
    return assert(loadfile(folder .. name .. ".lua"))()(...)
end

proto.prefs.ping_ports = Pref.range("Ping ports", "10000", "Ports of the proxy's -p, and of -b with multicast", 65535)
proto.prefs.request_ports = Pref.range("Request ports", "7020", "Ports of the proxy's -r", 65535)
proto.prefs.bit_rate = Pref.uint("Gross bit rate (bit/s)", 50000000, "The proxy's -G, for the budget of requests")
proto.prefs.to_rtp = Pref.bool("Hand media on to RTP and MPEG-TS", true, "For Wireshark's own analysis of streams")
proto.prefs.again_to_mp2t = Pref.bool("Hand what is sent again on to MPEG-TS, too", false,
    "It comes out of order, so continuity errors are shown that no decoder sees")

local F, E = part("fields", proto)
local datagram = part("datagram", proto.prefs)
local memory = part("memory", datagram)
local show = part("show", F, E, datagram)

proto.init = memory.reset

local ip_source, ip_destination, icmp_type = Field.new("ip.src"), Field.new("ip.dst"), Field.new("icmp.type")

-- The innermost address as a number, or what Wireshark has: never a resolved name, which may come in the middle of a run.
local function address_of(extractor, fallback)
    local found = { extractor() }
    local last = found[#found]
    return last and last.range:uint() or tostring(fallback)
end

local function place_of(pinfo, id)
    local source, destination = address_of(ip_source, pinfo.src), address_of(ip_destination, pinfo.dst)
    return {
        frame = pinfo.number, time = pinfo.rel_ts * 1000, clock = pinfo.abs_ts, id = id,
        source = source, destination = destination,
        from = source .. ":" .. pinfo.src_port, to = destination .. ":" .. pinfo.dst_port,
    }
end

local note = {
    ["media"] = function(tvb, _, here)
        if tvb:len() >= datagram.RTP_BYTES then
            memory.note_media(tvb, here)
        end
    end,
    ["ping"] = function(_, _, here) memory.note_ping(here) end,
    ["echo ping"] = memory.note_echo_ping,
    ["echo"] = function(tvb, _, here) memory.note_echo(tvb, here) end,
    ["request"] = function(tvb, at, here)
        if tvb:len() >= at + datagram.REQUEST_BYTES then
            memory.note_request(tvb, at, here)
        end
    end,
}

-------------------------------------------------------------------------------------- what Wireshark itself knows better

local rtp, mp2t = Dissector.get("rtp"), Dissector.get("mp2t")
local is_ours = false -- while RTP is called from here

local function is_transport_stream(tvb)
    local length = tvb:len()
    if length == 0 or length % TS_BYTES ~= 0 then
        return false
    end
    for at = 0, length - 1, TS_BYTES do
        if tvb(at, 1):uint() ~= TS_SYNC then
            return false
        end
    end
    return true
end

-- Type 122 may be anything in other streams: those are left alone.
function again_payload.dissector(tvb, pinfo, tree)
    if not is_ours or not proto.prefs.again_to_mp2t or not is_transport_stream(tvb) then
        return 0
    end
    mp2t:call(tvb, pinfo, tree)
    return tvb:len()
end

-- Broken RTP headers end in an error of the call, and are shown as malformed by then.
local function hand_to_rtp(tvb, pinfo, tree)
    is_ours = true
    pcall(rtp.call, rtp, tvb:range():tvb(), pinfo, tree)
    is_ours = false
end

----------------------------------------------------------------------------------------------------------------------

function proto.dissector(tvb, pinfo, tree)
    local kind, at, id = datagram.classify(tvb, pinfo)
    local here = place_of(pinfo, id)
    if kind == "ping" and datagram.starts_as_echo(tvb, 0) and memory.is_echo(tvb, here) then
        kind = "echo"
    end
    -- An error that the network reports quotes a datagram; it is not sent once more.
    if not pinfo.visited and not icmp_type() then
        local take_note = note[kind]
        if take_note then
            take_note(tvb, at, here)
        end
        -- From now on these two ports are ours, though the receiver's may be another protocol's.
        pinfo.conversation = proto
    end
    local text = show(kind, tvb, at, here, memory.facts_of(pinfo.number), tree:add(proto, tvb()), pinfo.visited)
    if kind == "media" and proto.prefs.to_rtp and tvb:len() >= datagram.RTP_BYTES then
        hand_to_rtp(tvb, pinfo, tree)
    end
    pinfo.cols.protocol = "tx_proxy"
    pinfo.cols.info = text
    return tvb:len()
end

local udp_ports = DissectorTable.get("udp.port")
local registered = {}

local function register_ports()
    for _, ports in ipairs(registered) do
        udp_ports:remove(ports, proto)
    end
    registered = { proto.prefs.ping_ports, proto.prefs.request_ports }
    for _, ports in ipairs(registered) do
        udp_ports:add(ports, proto)
    end
end

proto.prefs_changed = register_ports
register_ports()
udp_ports:add_for_decode_as(proto)
DissectorTable.get("rtp.pt"):add(AGAIN_PAYLOAD_TYPE, again_payload)
