-- A datagram and what is known of it as a tree. The text that is returned is that of the column "Info".

return function(F, E, D)

local TICKS_PER_MS = 90
local TICKS_PER_SECOND = 90000
local LONG = 0x100000000
local TEN_YEARS = 10 * 365 * 86400
local LATEST_PING_MS = 4900
local PROXY_READS_BYTES = 1536
local MOST_RANGES = 12 -- in the column "Info"

local function rounded(ms)
    return math.floor(ms * 1000 + 0.5) / 1000
end

local function generated(tree, field, value)
    return tree:add(field, value):set_generated()
end

local function frames(tree, field, list)
    for _, frame in ipairs(list or {}) do
        generated(tree, field, frame)
    end
end

local function since(tree, field, ms)
    if ms then
        generated(tree, field, rounded(ms)):append_text(" ms")
    end
end

local function link(tree, field, frame)
    if frame then
        generated(tree, field, frame)
    end
end

local function moment(seconds)
    local microseconds = math.floor(seconds * 1e6 + 0.5)
    return NSTime.new(math.floor(microseconds / 1e6), microseconds % 1e6 * 1000)
end

-- "3, 7 to 9"
local function ranges(numbers)
    local parts, i = {}, 1
    while i <= #numbers do
        local last = i
        while last < #numbers and numbers[last + 1] == (numbers[last] + 1) % 0x10000 do
            last = last + 1
        end
        parts[#parts + 1] = last == i and tostring(numbers[i]) or string.format("%d to %d", numbers[i], numbers[last])
        i = last + 1
    end
    if #parts > MOST_RANGES then
        return string.format("%s, ... (%d in all)", table.concat(parts, ", ", 1, MOST_RANGES), #numbers)
    end
    return table.concat(parts, ", ")
end

-------------------------------------------------------------------------------------------------------------- media

local function show_gap(tree, fact, seq, visited)
    if fact.missing then
        local last = (seq + 0x10000 - 1) % 0x10000
        local item = generated(tree, F["media.missing"], fact.missing)
        item:add_proto_expert_info(E.gap, fact.missing == 1 and string.format("Number %d is missing", last)
            or string.format("Numbers %d to %d are missing", fact.first_missing, last))
        generated(tree, F["media.first_missing"], fact.first_missing)
        frames(tree, F["media.filled_frame"], fact.filled)
        local never_came = fact.missing - (fact.filled and #fact.filled or 0)
        if visited and never_came > 0 then
            generated(tree, F["media.never_came"], never_came):add_proto_expert_info(E.never_came)
        end
    end
    for _, name in ipairs { "jump", "late", "double" } do
        if fact[name] then
            tree:add_proto_expert_info(E[name])
        end
    end
end

local function show_links(tree, fact)
    link(tree, F["media.first_frame"], fact.first_frame)
    since(tree, F["media.since_first_ms"], fact.since_first)
    link(tree, F["media.gap_frame"], fact.gap_frame)
    since(tree, F["media.since_gap_ms"], fact.since_gap)
    link(tree, F["media.request_frame"], fact.request_frame)
    since(tree, F["media.since_request_ms"], fact.since_request)
    frames(tree, F["media.again_frame"], fact.again)
end

-- The proxy stamps with its wall clock. Against the capture's time: the way, the wait and the difference of the clocks.
local function show_times(tree, range, here)
    local age = D.signed32(math.floor(here.clock * TICKS_PER_SECOND) % LONG - range:uint())
    generated(tree, F["media.sent"], moment(here.clock - age / TICKS_PER_SECOND))
    since(tree, F["media.age_ms"], age / TICKS_PER_MS)
end

local function media(tvb, _, here, fact, tree, visited)
    if tvb:len() < D.RTP_BYTES then
        return "Media, cut off"
    end
    local again = tvb(1, 1):uint() % 128 == D.AGAIN_PAYLOAD_TYPE
    local seq, ssrc = tvb(2, 2):uint(), tvb(8, 4):le_uint()
    tree:add(F["media.flags"], tvb(0, 1))
    tree:add(F["media.marker"], tvb(1, 1))
    tree:add(F["media.payload_type"], tvb(1, 1))
    local item = generated(tree, F["media.again"], again)
    tree:add(F["media.seq"], tvb(2, 2))
    tree:add(F["media.timestamp"], tvb(4, 4))
    show_times(tree, tvb(4, 4), here)
    tree:add_le(F["media.ssrc"], tvb(8, 4))
    if math.abs(here.clock - ssrc) < TEN_YEARS then
        generated(tree, F["media.made"], moment(ssrc))
    end
    generated(tree, F["media.payload_bytes"], tvb:reported_len() - D.RTP_BYTES)
    if tvb:reported_len() > PROXY_READS_BYTES + D.RTP_BYTES then
        tree:add_proto_expert_info(E.train)
    end
    show_gap(tree, fact, seq, visited)
    show_links(tree, fact)
    if not again then
        local gap = fact.missing and string.format(", %d missing before it", fact.missing) or ""
        return string.format("Media %d%s", seq, gap)
    end
    if not fact.request_frame then
        item:add_proto_expert_info(E.unasked)
        return string.format("Media %d sent again", seq)
    end
    item:add_proto_expert_info(E.again)
    return string.format("Media %d sent again, %.1f ms after request %d", seq, fact.since_request, fact.request_frame)
end

------------------------------------------------------------------------------------------------- pings, echoes, leaving

local function data_from(tree, tvb, at, field)
    if tvb:len() > at then
        tree:add(field or F.data, tvb(at))
    end
end

local function ping(tvb, at, _, fact, tree)
    data_from(tree, tvb, at)
    since(tree, F["ping.since_last_ms"], fact.since_last)
    if fact.since_last and fact.since_last > LATEST_PING_MS then
        tree:add_proto_expert_info(E.late_ping)
    end
    return "Ping"
end

local function leave(tvb, at, _, _, tree)
    data_from(tree, tvb, at)
    tree:add_proto_expert_info(E.leave)
    return "Leave"
end

local function stop(tvb, _, _, _, tree)
    tree:add(F["tag.magic"], tvb(0, 4))
    tree:add(F["tag.magic"], tvb(4, 4))
    tree:add_proto_expert_info(E.stop)
    return "Stop message"
end

local function echo_fields(tvb, at, tree)
    tree:add(F["echo.zero"], tvb(at, 2))
    local item = tree:add(F["echo.id"], tvb(at + 2, 2))
    data_from(tree, tvb, at + D.ECHO_BYTES, F["echo.data"])
    return item
end

local function echo_ping(tvb, at, _, fact, tree, visited)
    echo_fields(tvb, at, tree)
    link(tree, F["echo.back_frame"], fact.back_frame)
    since(tree, F["echo.round_trip_ms"], fact.round_trip)
    if visited and not fact.back_frame then
        tree:add_proto_expert_info(E.no_echo)
    end
    return "Echo ping"
end

local function echo(tvb, at, _, fact, tree)
    echo_fields(tvb, at, tree)
    link(tree, F["echo.ping_frame"], fact.ping_frame)
    since(tree, F["echo.round_trip_ms"], fact.round_trip)
    return fact.round_trip and string.format("Echo, round trip %.1f ms", fact.round_trip) or "Echo"
end

local function wrong_ping(tvb, at, _, _, tree)
    echo_fields(tvb, at, tree):add_proto_expert_info(E.ping_id)
    return "Wrong ping ID"
end

------------------------------------------------------------------------------------------------------------ requests

local function show_checksum(tvb, at, tree)
    local item = tree:add_le(F["request.checksum"], tvb(at + 2, 2))
    if tvb:len() < tvb:reported_len() then
        generated(tree, F["request.checksum.status"], 2)
        return false
    end
    local right = D.is_right_request(tvb, at)
    generated(tree, F["request.checksum.status"], right and 1 or 0)
    if not right then
        generated(tree, F["request.checksum.right"], D.checksum_of(tvb, at + D.REQUEST_BYTES))
        item:add_proto_expert_info(E.bad_checksum)
    end
    return right
end

local function show_window(tvb, at, tree)
    local window = D.window_of(tvb, at)
    tree:add_le(F["request.retries"], tvb(at + 4, 2))
    tree:add_le(F["request.interval_ms"], tvb(at + 6, 2))
    tree:add_le(F["request.extra_ms"], tvb(at + 8, 2))
    local age = generated(tree, F["request.max_age_ms"], math.floor(window.max_age_ticks / TICKS_PER_MS))
    age:append_text(string.format(" = (%d + 1) x %d ms + %d ms", window.retries, window.interval, window.extra))
    local time = generated(tree, F["request.budget_ms"], window.delay)
    time:append_text(string.format(" = %d x %d ms + %d ms", window.retries, window.interval, window.extra))
    generated(tree, F["request.budget_bytes"], window.budget)
end

local function outcome_of(asked, right, visited)
    if not right then
        return "dropped with the request"
    end
    if asked.frame then
        return string.format("sent again %.1f ms later", asked.answer)
    end
    return asked.objection or (visited and "no answer in this capture") or "to be sent again"
end

-- Returns how many got no answer.
local function show_numbers(tvb, at, numbers, fact, tree, right, visited)
    local unanswered = 0
    for i, seq in ipairs(numbers) do
        local asked = fact.asked and fact.asked[i] or {}
        local item = tree:add_le(F["request.seq"], tvb(at + D.REQUEST_BYTES + 2 * (i - 1), 2))
        local outcome = outcome_of(asked, right, visited)
        item:append_text(": " .. outcome)
        generated(item, F["request.outcome"], outcome)
        link(item, F["request.first_frame"], asked.first_frame)
        since(item, F["request.age_ms"], asked.age)
        link(item, F["request.gap_frame"], asked.gap_frame)
        since(item, F["request.since_gap_ms"], asked.since_gap)
        link(item, F["request.again_frame"], asked.frame)
        since(item, F["request.answer_ms"], asked.answer)
        unanswered = unanswered + (asked.frame and 0 or 1)
    end
    return unanswered
end

local function request(tvb, at, _, fact, tree, visited)
    if tvb:len() < at + D.REQUEST_BYTES then
        return "Request, cut off"
    end
    local count = tree:add_le(F["request.count"], tvb(at, 2))
    local right = show_checksum(tvb, at, tree)
    show_window(tvb, at, tree)
    local numbers = D.numbers_of(tvb, at)
    local unanswered = show_numbers(tvb, at, numbers, fact, tree, right, visited)
    data_from(tree, tvb, at + D.REQUEST_BYTES + 2 * #numbers, F["request.rest"])
    local listed, room = tvb(at, 2):le_uint(), math.floor((tvb:reported_len() - at - D.REQUEST_BYTES) / 2)
    if listed ~= room then
        count:add_proto_expert_info(E.count, string.format("The count says %d, the datagram has %d: %s", listed, room,
            listed > room and "the proxy reads on behind its end" or "the rest is covered by the checksum only"))
    end
    if visited and right and unanswered > 0 then
        tree:add_proto_expert_info(E.not_answered, string.format("%d of %d numbers without an answer in this capture",
            unanswered, #numbers))
    end
    local what = #numbers == 0 and "Request without numbers" or "Request for " .. ranges(numbers)
    return what .. (right and "" or tvb:len() < tvb:reported_len() and ", cut off" or ", wrong checksum")
end

----------------------------------------------------------------------------------------------------------------------

local function unknown(tvb, at, _, _, tree)
    data_from(tree, tvb, at)
    tree:add_proto_expert_info(E.malformed, "Neither media nor anything that a receiver sends")
    return "Unknown"
end

local show_kind = {
    ["media"] = media, ["ping"] = ping, ["leave"] = leave, ["stop"] = stop, ["echo ping"] = echo_ping, ["echo"] = echo,
    ["wrong ping"] = wrong_ping, ["request"] = request, ["unknown"] = unknown,
}

local function show_tag(tvb, tree, kind)
    local magic = kind ~= "stop" and D.magic_at(tvb, 0)
    if not magic then
        return ""
    end
    tree:add(F["tag.magic"], tvb(0, 4))
    if tvb:len() < D.TAG_BYTES then
        return ""
    end
    local item, id = tree:add_le(F["tag.stream_id"], tvb(4, 4)), tvb(4, 4):le_uint()
    if id == 0 then
        item:add_proto_expert_info(E.zero_id)
        return ""
    end
    return string.format(", stream 0x%08x", id)
end

return function(kind, tvb, at, here, fact, tree, visited)
    generated(tree, F.kind, kind)
    local stream = kind == "media" and "" or show_tag(tvb, tree, kind)
    local text = show_kind[kind](tvb, at, here, fact, tree, visited) .. stream
    if tvb:len() < tvb:reported_len() then
        tree:add_proto_expert_info(E.cut)
    end
    if kind ~= "media" and kind ~= "echo" and kind ~= "stop" and tvb:reported_len() > PROXY_READS_BYTES then
        tree:add_proto_expert_info(E.too_long)
    end
    tree:append_text(", " .. text)
    return text
end

end
