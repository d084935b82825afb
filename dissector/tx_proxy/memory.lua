-- What is known of each stream, and what was found out about a frame. It is built when a capture is read in order, once;
-- later calls, in any order, only ask facts_of(). So links forward in time are there from the second call on.

return function(D)

local AGAIN_PAYLOAD_TYPE = 122
local HOLD_OFF_MS = 100 -- half of the first interval; no request changes it
local TICKS_PER_MS = 90
local WORD, HALF_WORD = 0x10000, 0x8000
local MOST_MISSING = 4096 -- a larger step is a jump, not loss

local M = {}

local facts -- [frame] = what was found out about it
local streams -- ["address:port" to which media go] = see stream_at()
local latest_at -- [address] = the stream to this address that was heard last
local by_id -- [stream ID] = the stream
local group_from -- [proxy's address] = the stream to a group
local echoes -- [receiver's address, data] = facts of the echo ping

function M.reset()
    facts, streams, latest_at, by_id, group_from, echoes = {}, {}, {}, {}, {}, {}
end

-- By number: frames, times (ms) and timestamps of first sendings, and what is missing, asked for and sent again.
local NUMBERED = { "frame", "time", "stamp", "missing", "asked", "again_at" }

local function begin_anew(stream)
    for _, name in ipairs(NUMBERED) do
        stream[name] = {}
    end
    stream.highest = nil
end

local function stream_at(key, address)
    local stream = streams[key]
    if not stream then
        stream = {}
        begin_anew(stream)
        streams[key] = stream
    end
    latest_at[address] = stream
    return stream
end

local function is_group(address)
    return type(address) == "number" and address >= 0xE0000000 and address < 0xF0000000
end

local function seq_after(a, b)
    return (a - b) % WORD
end

-- The receiver's stream: by its ID, by the port that it speaks from, or the one at its address.
local function stream_of_receiver(here)
    return (here.id ~= 0 and by_id[here.id]) or streams[here.from] or latest_at[here.source]
        or stream_at(here.from, here.source)
end

-- With a group output first sendings go to the group, and what is sent again to the receiver.
local function lookup(stream, name, seq, source)
    local group = group_from[source]
    local value = stream[name][seq]
    if value == nil and group then
        return group[name][seq], group
    end
    return value, stream
end

-- What is known of this number is of the round before.
local function forget(stream, seq)
    for _, name in ipairs(NUMBERED) do
        stream[name][seq] = nil
    end
end

local function note_gap(stream, fact, seq, here)
    local step = stream.highest and seq_after(seq, stream.highest) or 1
    if step >= HALF_WORD then
        fact.late = stream.missing[seq] ~= nil
        fact.double = not fact.late
    elseif step == 0 then
        fact.double = true
    elseif step > MOST_MISSING then
        fact.jump = true
        begin_anew(stream)
    elseif step > 1 then
        fact.missing, fact.first_missing = step - 1, (stream.highest + 1) % WORD
        for gone = 1, step - 1 do
            local number = (stream.highest + gone) % WORD
            forget(stream, number)
            stream.missing[number] = fact
        end
    end
    if step < HALF_WORD then
        stream.highest = seq
    end
    fact.time = here.time
end

local function fill_gap(stream, fact, seq, here)
    local gap, owner = lookup(stream, "missing", seq, here.source)
    if gap then
        owner.missing[seq] = nil
        fact.gap_frame, fact.since_gap = gap.frame, here.time - gap.time
        gap.filled = gap.filled or {}
        gap.filled[#gap.filled + 1] = here.frame
    end
end

-- Of several requests for a number the one whose distance is nearest to the round trip; without one the last.
local function request_for(stream, seq, here)
    local best, best_distance
    for _, asked in ipairs(stream.asked[seq] or {}) do
        if not asked.frame then
            local distance = stream.round_trip and math.abs(here.time - asked.time - stream.round_trip) or -asked.time
            if not best or distance < best_distance then
                best, best_distance = asked, distance
            end
        end
    end
    return best
end

local function note_again(stream, fact, seq, stamp, here)
    local frame, owner = lookup(stream, "frame", seq, here.source)
    if frame and math.abs(D.signed32(owner.stamp[seq] - stamp)) < 1000 * TICKS_PER_MS then
        fact.first_frame, fact.since_first = frame, here.time - owner.time[seq]
        local first = facts[frame] or { frame = frame }
        facts[frame] = first
        first.again = first.again or {}
        first.again[#first.again + 1] = here.frame
    end
    local asked = request_for(stream, seq, here)
    if asked then
        asked.frame, asked.answer = here.frame, here.time - asked.time
        fact.request_frame, fact.since_request = asked.request, asked.answer
    end
    fill_gap(stream, fact, seq, here)
    stream.again_at[seq] = here.time
end

function M.note_media(tvb, here)
    local seq, stamp, ssrc = tvb(2, 2):uint(), tvb(4, 4):uint(), tvb(8, 4):le_uint()
    local again = tvb(1, 1):uint() % 128 == AGAIN_PAYLOAD_TYPE
    local stream = stream_at(here.to, here.destination)
    stream.bytes = tvb:reported_len()
    local fact = { frame = here.frame }
    if again then
        note_again(stream, fact, seq, stamp, here)
    else
        if stream.ssrc and stream.ssrc ~= ssrc then
            begin_anew(stream)
        end
        stream.ssrc = ssrc
        note_gap(stream, fact, seq, here)
        if fact.late then
            fill_gap(stream, fact, seq, here)
        end
        if is_group(here.destination) then
            group_from[here.source] = stream
        end
        if not fact.double then
            if not fact.late then
                forget(stream, seq)
            end
            stream.frame[seq], stream.time[seq], stream.stamp[seq] = here.frame, here.time, stamp
        end
    end
    if again or fact.missing or fact.jump or fact.late or fact.double then
        facts[here.frame] = fact
    end
end

function M.note_ping(here)
    local stream = stream_at(here.from, here.source)
    if here.id ~= 0 then
        by_id[here.id] = stream
    end
    facts[here.frame] = { since_last = stream.pinged and here.time - stream.pinged }
    stream.pinged = here.time
end

local function echo_key(tvb, at, address)
    return address .. " " .. tvb(at):bytes():tohex()
end

function M.note_echo_ping(tvb, at, here)
    local fact = { frame = here.frame, time = here.time }
    facts[here.frame], echoes[echo_key(tvb, at, here.source)] = fact, fact
end

-- To a configured receiver echoes go to the port that pings go to: an echo is what answers an echo ping.
function M.is_echo(tvb, here)
    local ping = echoes[echo_key(tvb, 0, here.destination)]
    return M.facts_of(here.frame).ping_frame or ping and not ping.back_frame
end

function M.note_echo(tvb, here)
    local ping = echoes[echo_key(tvb, 0, here.destination)]
    if ping and not ping.back_frame then
        ping.back_frame, ping.round_trip = here.frame, here.time - ping.time
        facts[here.frame] = { ping_frame = ping.frame, round_trip = ping.round_trip }
        stream_at(here.to, here.destination).round_trip = ping.round_trip
    end
end

-- What the proxy will do with a number as far as this capture tells; nil when nothing speaks against an answer.
-- The proxy looks half a round trip after a receiver asks, at packets that left it half a round trip before they came.
local function objection(stream, asked, seq, window, spent, here)
    local round_trip = stream.round_trip or 0
    local again_at = stream.again_at[seq]
    local since = again_at and here.time - again_at + round_trip
    if since and since < HOLD_OFF_MS then
        return string.format("too soon: sent again %.1f ms before, and the hold-off is %d ms", since, HOLD_OFF_MS)
    end
    local age = asked.age and asked.age + round_trip
    if age and D.signed32(math.floor(age * TICKS_PER_MS) - window.max_age_ticks) >= 0 then
        return string.format("too old: first sent %.1f ms before, and the window ends at %.0f ms", age,
            window.max_age_ticks / TICKS_PER_MS)
    end
    if spent > window.budget then
        return string.format("above the budget of %d bytes", window.budget)
    end
    return nil
end

function M.note_request(tvb, at, here)
    local fact = { asked = {} }
    facts[here.frame] = fact
    if tvb:len() < tvb:reported_len() or not D.is_right_request(tvb, at) then
        return
    end
    local stream, window, spent = stream_of_receiver(here), D.window_of(tvb, at), 0
    for i, seq in ipairs(D.numbers_of(tvb, at)) do
        local asked = { request = here.frame, time = here.time }
        local frame, owner = lookup(stream, "frame", seq, here.destination)
        if frame then
            asked.first_frame, asked.age = frame, here.time - owner.time[seq]
        end
        local gap = lookup(stream, "missing", seq, here.destination)
        if gap then
            asked.gap_frame, asked.since_gap = gap.frame, here.time - gap.time
        end
        asked.objection = objection(stream, asked, seq, window, spent + (stream.bytes or 0), here)
        if not asked.objection then
            spent = spent + (stream.bytes or 0)
        end
        local list = stream.asked[seq] or {}
        stream.asked[seq] = list
        list[#list + 1], fact.asked[i] = asked, asked
    end
end

function M.facts_of(frame)
    return facts[frame] or {}
end

return M

end
