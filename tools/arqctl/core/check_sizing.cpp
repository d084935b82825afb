#include <algorithm>
#include <cmath>

#include "arqctl/core/amount_text.h"
#include "arqctl/core/checks.h"
#include "arqctl/core/request_budget.h"

namespace arqctl {

namespace {

constexpr double WINDOW_SECONDS = 0.6; // (2 retries + 1) x 200 ms: how old a packet may be that is sent again
constexpr double INTERVAL_SECONDS = 0.2; // until the first request for a packet has been repeated
constexpr uint32_t MS_TIMES_BITS_PER_BYTE = 8000;
constexpr uint64_t MOST_BUDGET_BYTES = 0xFFFFFFFF / MS_TIMES_BITS_PER_BYTE;
constexpr uint32_t MOST_RING = 65536; // numbers have 16 bits

// The least power of two that covers twice the window.
uint64_t RingFor(double packetsPerSecond)
{
    uint64_t size = 1;
    while (static_cast<double>(size) < packetsPerSecond * 2 * WINDOW_SECONDS && size < MOST_RING)
        size *= 2;
    return size;
}

const char* UnknownPace(const DoctorFacts& facts)
{
    return facts.isRunning ? "the input's rate is not known" : "the input's rate is not known: give --rate";
}

// Packet pool and pacer's queue: the pool comes round sooner than what waits is sent.
bool IsRingShortForPacer(const ProxyOptions& options)
{
    constexpr uint32_t LEAST = 1024;
    return options.pacingBitRate > 0 && options.ringPackets < LEAST;
}

} // namespace

Finding CheckRingTime(const DoctorFacts& facts)
{
    const uint32_t ring = facts.options.ringPackets;
    if (IsRingShortForPacer(facts.options))
        return Warning(
            Say("-q ", ring, " is too short beside -X: a packet may be overwritten before it is sent"),
            "Give -q 1024 or more");
    const auto pace = PaceOf(facts);
    if (!pace)
        return NotApplicable(UnknownPace(facts));
    const double seconds = std::min(ring, MOST_RING) / pace->packets;
    const uint64_t better = RingFor(pace->packets);
    const std::string text = Say("the ring of ", ring, " packets holds ", SecondsText(seconds));
    const std::string advice = better > ring ? "Start the proxy with -q " + std::to_string(better)
                                             : std::string("Give receivers a shorter window");
    if (seconds < INTERVAL_SECONDS)
        return Fault(text + ": packets are gone before they are asked for", advice);
    if (seconds < WINDOW_SECONDS)
        return Warning(text + ", less than the 0.60 s in which receivers ask with their defaults", advice);
    if (ring > MOST_RING)
        return Warning(text + ": above 65,536 packets it only takes memory", "Make it -q 65536");
    return Good(text + ", more than the 0.60 s in which receivers ask with their defaults");
}

Finding CheckRequestBudget(const DoctorFacts& facts)
{
    constexpr uint64_t PACKET_BYTES = 1500, FEW = 10;
    const auto rate = static_cast<uint64_t>(facts.options.grossBitRate);
    const uint64_t product = rate * USUAL_WINDOW_MS;
    const uint64_t bytes = RequestBudgetBytes(USUAL_WINDOW_MS, facts.options.grossBitRate);
    const bool hasWrapped = product > 0xFFFFFFFF;
    const std::string text = Say("one request may bring ", bytes, " bytes",
        hasWrapped ? "; -G wraps: " : " of at most ",
        hasWrapped
            ? Say(product / MS_TIMES_BITS_PER_BYTE, " were meant, ") + Say(MOST_BUDGET_BYTES, " is the most")
            : Say(MOST_BUDGET_BYTES));
    const std::string advice
        = "Start the proxy with -G 10700000: nearly the most with the usual window of 400 ms";
    if (bytes < PACKET_BYTES)
        return Fault(text + ": next to nothing is sent again", advice);
    if (bytes < PACKET_BYTES * FEW || (hasWrapped && bytes < MOST_BUDGET_BYTES / 2))
        return Warning(text, advice);
    return Good(text);
}

Finding CheckPacingRate(const DoctorFacts& facts)
{
    constexpr double ROOM = 1.1;
    if (facts.options.pacingBitRate == 0)
        return NotApplicable("without -X the output is not paced");
    const auto pace = PaceOf(facts);
    if (!pace)
        return NotApplicable(UnknownPace(facts));
    const auto pacing = static_cast<double>(facts.options.pacingBitRate);
    const std::string text
        = "-X " + BitRateText(pacing) + ", while " + BitRateText(pace->payloadBits) + " of payload come in";
    const std::string advice = "Set it above the stream's peaks: -X "
        + std::to_string(std::llround(std::ceil(pace->payloadBits * 1.25 / 1e5) * 1e5));
    if (pacing < pace->payloadBits)
        return Fault(text + ": the queue stays full, the output is late and not paced", advice);
    if (pacing < pace->payloadBits * ROOM)
        return Warning(text + ": there is no room for peaks", advice);
    return Good(text);
}

Finding CheckPacingQuota(const DoctorFacts& facts)
{
    constexpr uint32_t PERIOD_MS = 10;
    if (facts.options.pacingBitRate == 0)
        return NotApplicable("without -X the output is not paced");
    const uint64_t product = static_cast<uint64_t>(facts.options.pacingBitRate) * PERIOD_MS;
    const uint64_t bytes = static_cast<uint32_t>(product) / MS_TIMES_BITS_PER_BYTE; // wraps as the proxy's
    const std::string text = Say("every 10 ms ", bytes, " bytes may leave");
    if (product > 0xFFFFFFFF)
        return Fault(text + Say(", not ", product / MS_TIMES_BITS_PER_BYTE, ": -X wraps"),
            "Set it to 429496729 at most, or leave it out");
    return bytes == 0 ? Fault(text, "Set it to 800 at least, above the stream's peaks") : Good(text);
}

} // namespace arqctl
