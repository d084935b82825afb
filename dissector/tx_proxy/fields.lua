-- Every field and every expert's note of the dissector. A field's unit is in its name, or is shown with it.

return function(proto)

local MEDIA_PAYLOAD_TYPE, AGAIN_PAYLOAD_TYPE = 33, 122
local TAG_MAGIC, LEAVE_MAGIC, ECHO_PING_ID = 0xBABEFACE, 0xDEADBEEF, 0xADE2

local F, E = {}, {}

local function field(key, kind, name, ...)
    F[key] = ProtoField[kind]("txproxy." .. key, name, ...)
end

local MS = { " ms" }
local BYTES = { " bytes" }
local CHECKSUM_STATES = { [0] = "Bad", "Good", "Unverified" }
local PAYLOAD_TYPES = { [MEDIA_PAYLOAD_TYPE] = "MPEG-TS", [AGAIN_PAYLOAD_TYPE] = "sent again" }
local TICKS = { " ticks of 1/90000 s" }
-- With fractions; the unit is added where they are shown.
local function milliseconds(key, name)
    field(key, "double", name)
end

field("kind", "string", "Kind")
field("media.flags", "uint8", "RTP flags", base.HEX)
field("media.marker", "bool", "Marker", 8, nil, 0x80)
field("media.payload_type", "uint8", "Payload type", base.DEC, PAYLOAD_TYPES, 0x7F)
field("media.again", "bool", "Sent again")
field("media.seq", "uint16", "Sequence number")
field("media.timestamp", "uint32", "Timestamp", base.UNIT_STRING, TICKS)
field("media.sent", "absolute_time", "First sent by the proxy's clock", base.LOCAL)
milliseconds("media.age_ms", "From then to here, if the clocks agree")
field("media.ssrc", "uint32", "SSRC (little-endian)", base.HEX)
field("media.made", "absolute_time", "Stream made, if the proxy built this header", base.LOCAL)
field("media.payload_bytes", "uint16", "Payload", base.UNIT_STRING, BYTES)
field("media.missing", "uint16", "Numbers missing before this one")
field("media.first_missing", "uint16", "First missing number")
field("media.first_frame", "framenum", "First sending", base.NONE, frametype.RETRANS_PREV)
milliseconds("media.since_first_ms", "Since the first sending in this capture")
field("media.gap_frame", "framenum", "Found missing at", base.NONE)
milliseconds("media.since_gap_ms", "Since it was found missing")
field("media.request_frame", "framenum", "Asked for in", base.NONE, frametype.REQUEST)
milliseconds("media.since_request_ms", "Since the request")
field("media.again_frame", "framenum", "Sent again in", base.NONE, frametype.RETRANS_NEXT)
field("media.filled_frame", "framenum", "Gap filled by", base.NONE, frametype.RETRANS_NEXT)
field("media.never_came", "uint16", "Of these, not in this capture")
field("tag.magic", "uint32", "Magic", base.HEX, { [TAG_MAGIC] = "stream tag", [LEAVE_MAGIC] = "leave",
    [0xCEFABEBA] = "stream tag, other byte order", [0xEFBEADDE] = "leave, other byte order" })
field("tag.stream_id", "uint32", "Stream ID (little-endian)", base.HEX)
milliseconds("ping.since_last_ms", "Since the last ping")
field("data", "bytes", "Data")
field("echo.zero", "uint16", "Zero", base.HEX)
field("echo.id", "uint16", "Ping ID", base.HEX, { [ECHO_PING_ID] = "echo ping" })
field("echo.data", "bytes", "Receiver's own data")
field("echo.ping_frame", "framenum", "Echo of", base.NONE, frametype.REQUEST)
field("echo.back_frame", "framenum", "Came back in", base.NONE, frametype.RESPONSE)
milliseconds("echo.round_trip_ms", "Round trip")
field("request.count", "uint16", "Count")
field("request.checksum", "uint16", "Checksum", base.HEX)
field("request.checksum.status", "uint8", "Checksum status", base.DEC, CHECKSUM_STATES)
field("request.checksum.right", "uint16", "Right checksum", base.HEX)
field("request.retries", "uint16", "Retries")
field("request.interval_ms", "uint16", "Interval", base.UNIT_STRING, MS)
field("request.extra_ms", "uint16", "Extra", base.UNIT_STRING, MS)
field("request.max_age_ms", "uint32", "Too old from", base.UNIT_STRING, MS)
field("request.budget_ms", "uint32", "Budget as time", base.UNIT_STRING, MS)
field("request.budget_bytes", "uint32", "Budget of this request", base.UNIT_STRING, BYTES)
field("request.seq", "uint16", "Number")
field("request.outcome", "string", "Outcome")
milliseconds("request.age_ms", "Since the first sending")
field("request.gap_frame", "framenum", "Found missing at", base.NONE)
milliseconds("request.since_gap_ms", "Since it was found missing")
field("request.first_frame", "framenum", "First sending", base.NONE, frametype.RETRANS_PREV)
field("request.again_frame", "framenum", "Sent again in", base.NONE, frametype.RESPONSE)
milliseconds("request.answer_ms", "From request to answer")
field("request.rest", "bytes", "Behind the numbers")

proto.fields = F

local function warning(key, group, severity, text)
    E[key] = ProtoExpert.new("txproxy." .. key, text, expert.group[group], expert.severity[severity])
end

warning("malformed", "MALFORMED", "ERROR", "Malformed")
warning("cut", "UNDECODED", "NOTE", "Cut off by the capture: the rest of the datagram is not in it")
warning("too_long", "PROTOCOL", "WARN", "The proxy reads 1536 bytes and cuts off the rest")
warning("train", "PROTOCOL", "WARN", "Longer than any packet: a train of the sending side, its first packet is shown")
warning("gap", "SEQUENCE", "NOTE", "Sequence numbers are missing")
warning("never_came", "SEQUENCE", "WARN", "Missing numbers that do not come in this capture")
warning("jump", "SEQUENCE", "NOTE", "Sequence numbers jump")
warning("late", "SEQUENCE", "NOTE", "First sending that came after a later packet")
warning("double", "SEQUENCE", "NOTE", "First sending that came twice")
warning("again", "SEQUENCE", "CHAT", "Sent again")
warning("unasked", "SEQUENCE", "NOTE", "Sent again, but the request is not in this capture")
warning("bad_checksum", "CHECKSUM", "ERROR", "Wrong checksum: the proxy drops the request, its window too")
warning("count", "PROTOCOL", "WARN", "The count is not that of the numbers")
warning("not_answered", "RESPONSE_CODE", "NOTE", "Numbers that this capture shows no answer to")
warning("ping_id", "PROTOCOL", "WARN", "Wrong ping ID: the proxy reports it and does not answer")
warning("no_echo", "RESPONSE_CODE", "NOTE", "No echo in this capture")
warning("late_ping", "SEQUENCE", "WARN", "More than 4.9 s since the last ping: the proxy may have ended the stream")
warning("zero_id", "PROTOCOL", "WARN", "Stream ID 0 is no tag, and on the request port it is not taken off")
warning("leave", "RESPONSE_CODE", "CHAT", "The receiver leaves")
warning("stop", "RESPONSE_CODE", "NOTE", "The proxy has deleted this receiver's stream")

local experts = {}
for _, warned in pairs(E) do
    experts[#experts + 1] = warned
end
proto.experts = experts

return F, E

end
