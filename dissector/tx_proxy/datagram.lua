-- What a datagram is and what its words say. No state; whoever calls a reader has asked for the kind before.

return function(prefs)

local RTP_BYTES, TAG_BYTES, REQUEST_BYTES, ECHO_BYTES, STOP_BYTES = 12, 8, 10, 4, 8
local ECHO_PING_ID = 0xADE2
local TAG_MAGIC, LEAVE_MAGIC = 0xBABEFACE, 0xDEADBEEF
local WORD, LONG = 0x10000, 0x100000000
local TICKS_PER_MS = 90

local D = { RTP_BYTES = RTP_BYTES, TAG_BYTES = TAG_BYTES, REQUEST_BYTES = REQUEST_BYTES, ECHO_BYTES = ECHO_BYTES,
    AGAIN_PAYLOAD_TYPE = 122 }

-- a x b modulo 2^32, as the proxy computes; a double holds no product of two 32-bit numbers exactly.
local function multiply32(a, b)
    local high, low = math.floor(a / WORD), a % WORD
    return ((high * b) % WORD * WORD + low * b) % LONG
end

local port_sets = {} -- [text of a preference] = set of ports

local function port_in(text, port)
    local set = port_sets[text]
    if not set then
        set = {}
        for first, last in text:gmatch("(%d+)%-?(%d*)") do
            for number = tonumber(first), tonumber(last) or tonumber(first) do
                set[number] = true
            end
        end
        port_sets[text] = set
    end
    return set[port] == true
end

-- All words of a list, wherever it ends; an odd last byte counts as itself.
function D.checksum_of(tvb, from)
    local sum, length = 0, tvb:len()
    local at = from
    while at + 1 < length do
        sum = sum + tvb(at, 2):le_uint()
        at = at + 2
    end
    if at < length then
        sum = sum + tvb(at, 1):uint()
    end
    return -sum % WORD
end

function D.magic_at(tvb, at)
    if tvb:len() < at + 4 then
        return nil
    end
    local wire, turned = tvb(at, 4):uint(), tvb(at, 4):le_uint()
    if wire == LEAVE_MAGIC or turned == LEAVE_MAGIC then
        return LEAVE_MAGIC
    end
    return (wire == TAG_MAGIC or turned == TAG_MAGIC) and TAG_MAGIC or nil
end

function D.starts_as_echo(tvb, at)
    return tvb:len() >= at + ECHO_BYTES and tvb(at, 4):uint() == ECHO_PING_ID
end

local function starts_as_rtp(tvb)
    return tvb:reported_len() >= RTP_BYTES and tvb:len() >= 1 and math.floor(tvb(0, 1):uint() / 64) == 2
end

local function is_stop(tvb)
    return tvb:reported_len() == STOP_BYTES and tvb:len() == STOP_BYTES and tvb(0, 4):uint() == LEAVE_MAGIC
        and tvb(4, 4):uint() == TAG_MAGIC
end

function D.is_right_request(tvb, at)
    return tvb:len() >= at + REQUEST_BYTES and tvb(at + 2, 2):le_uint() == D.checksum_of(tvb, at + REQUEST_BYTES)
end

-- What stands on the request port behind the tag, as the proxy tells it.
local function kind_of_request(tvb, at)
    if tvb:reported_len() - at >= REQUEST_BYTES then
        return "request"
    end
    if D.starts_as_echo(tvb, at) then
        return "echo ping"
    end
    if tvb:len() >= at + ECHO_BYTES and tvb(at, 2):uint() == 0 then
        return "wrong ping"
    end
    return "unknown"
end

-- Returns the kind and where it begins behind a tag. Ports say who speaks; on other ports ("Decode as") the bytes do.
function D.classify(tvb, pinfo)
    local to_ping, to_request = port_in(prefs.ping_ports, pinfo.dst_port), port_in(prefs.request_ports, pinfo.dst_port)
    local magic = D.magic_at(tvb, 0)
    local has_tag = magic and tvb:len() >= TAG_BYTES
    local id = has_tag and tvb(4, 4):le_uint() or 0
    local behind = id ~= 0 and TAG_BYTES or 0
    if is_stop(tvb) and not to_request then
        return "stop", 0, 0
    end
    -- One port may serve as both, and media go to a port of the same number at configured receivers.
    if not magic and starts_as_rtp(tvb) and not (to_request and (not to_ping or D.is_right_request(tvb, 0))) then
        return "media", 0, 0
    end
    if to_request and not (to_ping and tvb:reported_len() == behind) then
        return kind_of_request(tvb, behind), behind, id
    end
    if magic == LEAVE_MAGIC then
        return "leave", has_tag and TAG_BYTES or 4, id
    end
    if has_tag then
        local other_port = not to_ping and D.is_right_request(tvb, TAG_BYTES)
        return other_port and "request" or "ping", TAG_BYTES, id
    end
    if D.starts_as_echo(tvb, 0) and tvb:reported_len() < REQUEST_BYTES then
        return to_ping and "ping" or "echo", 0, 0
    end
    if to_ping then
        return "ping", 0, 0
    end
    return D.is_right_request(tvb, 0) and "request" or "unknown", 0, 0
end

-- The numbers that stand in the datagram, at most as many as the count says.
function D.numbers_of(tvb, at)
    local numbers = {}
    for i = 1, math.min(tvb(at, 2):le_uint(), math.floor((tvb:len() - at - REQUEST_BYTES) / 2)) do
        numbers[i] = tvb(at + REQUEST_BYTES + 2 * (i - 1), 2):le_uint()
    end
    return numbers
end

-- The window of a request and what the proxy computes from it, in 32 bits as the proxy does.
function D.window_of(tvb, at)
    local retries, interval, extra = tvb(at + 4, 2):le_uint(), tvb(at + 6, 2):le_uint(), tvb(at + 8, 2):le_uint()
    local delay = (retries * interval + extra) % LONG
    return {
        retries = retries, interval = interval, extra = extra, delay = delay,
        max_age_ticks = multiply32((delay + interval) % LONG, TICKS_PER_MS),
        budget = math.floor(multiply32(delay, prefs.bit_rate) / 8000),
    }
end

-- A difference of ticks, which wrap.
function D.signed32(value)
    value = value % LONG
    return value >= LONG / 2 and value - LONG or value
end

return D

end
