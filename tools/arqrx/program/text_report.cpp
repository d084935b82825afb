#include "arqrx/program/text_report.h"

#include <fmt/format.h>

#include <ctime>

namespace arqrx {

namespace {

constexpr int LINES_A_HEAD = 20;
constexpr double US_PER_S = 1e6;
constexpr int64_t SILENCE_US = 2 * common::US_PER_SECOND; // from then on a line says so
constexpr auto HEAD = "    time  Mbit/s  packets  missing recover.    lost waiting  rtt ms  buffer ms\n";

std::string TimeOfDay(int64_t wallSeconds)
{
    const time_t seconds = wallSeconds;
    tm local {};
    (void)localtime_r(&seconds, &local);
    return fmt::format("{:02}:{:02}:{:02}", local.tm_hour, local.tm_min, local.tm_sec);
}

std::string Ms(int64_t timeUs)
{
    return timeUs < 0 ? "-" : fmt::format("{:.1f}", static_cast<double>(timeUs) / common::US_PER_MS);
}

double MbitPerSecond(uint64_t bytes, int64_t us)
{
    return us <= 0 ? 0 : static_cast<double>(bytes) * 8 / static_cast<double>(us);
}

std::string Plural(uint64_t count, const char* what)
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string FigureLine(const Sample& now, const Sample& before, const std::string& time)
{
    const Figures& core = now.core;
    const Figures& then = before.core;
    return fmt::format("{} {:7.3f} {:8} {:8} {:8} {:7} {:7} {:>7} {:>10}\n", time,
        MbitPerSecond(core.receivedBytes - then.receivedBytes, now.runUs - before.runUs),
        core.received - then.received, core.missing - then.missing, core.recovered - then.recovered,
        core.lost - then.lost, core.waiting, Ms(core.roundTripUs), Ms(core.bufferedUs));
}

std::string SilenceLine(const Sample& now, const std::string& time, bool isPinging)
{
    if (now.core.received > 0)
        return fmt::format(
            "{} nothing has come for {:.0f} s\n", time, static_cast<double>(now.sinceMediaUs) / US_PER_S);
    if (isPinging && now.core.echoesBack > 0) // it answers only those whom it would send media to
        return fmt::format(
            "{} no media yet; pinging {}: it answers; does its input come?\n", time, now.proxy);
    if (isPinging)
        return fmt::format("{} no media yet; pinging {}: does the proxy run there?\n", time, now.proxy);
    return fmt::format("{} no media yet; listening: does the proxy send to this machine?\n", time);
}

bool IsSilent(const Sample& now)
{
    return now.core.received == 0 ? now.runUs > 0 : now.sinceMediaUs >= SILENCE_US;
}

std::string EndSentence(EndReason reason, int64_t runUs)
{
    const double seconds = static_cast<double>(runUs) / US_PER_S;
    switch (reason) {
    case EndReason::Signal:
        return fmt::format("Ended by a signal after {:.1f} s.\n", seconds);
    case EndReason::Duration:
        return fmt::format("Ended after {:.1f} s, as asked.\n", seconds);
    case EndReason::Silence:
        return fmt::format("Ended after {:.1f} s: nothing came any more.\n", seconds);
    case EndReason::OutputsFailed:
        return fmt::format("Ended after {:.1f} s: no output is left.\n", seconds);
    }
    return "";
}

std::string Totals(const Sample& last)
{
    const Figures& core = last.core;
    std::string text = fmt::format("  received   {}, {} of them sent again; {:.3f} Mbit/s\n",
        Plural(core.received, "packet"), core.resends, MbitPerSecond(core.receivedBytes, last.runUs));
    text += fmt::format("  missing    {} = {} recovered + {} lost + {} waiting\n", core.missing,
        core.recovered, core.lost, core.waiting);
    text += fmt::format("  played     {}; {}, {} late, {} reordered, {}\n", Plural(core.played, "packet"),
        Plural(core.duplicates, "duplicate"), core.late, core.reordered, Plural(core.restarts, "restart"));
    if (core.requests > 0)
        text += fmt::format("  recovery   {} for {}; round trip {} ms\n"
                            "  took       p50 {} ms, p99 {} ms from a gap to its packet\n",
            Plural(core.requests, "request"), Plural(core.numbersAsked, "number"), Ms(core.roundTripUs),
            Ms(core.recoverP50Us), Ms(core.recoverP99Us));
    if (last.transportPackets > 0)
        text += fmt::format("  transport  {} in {}\n", Plural(last.continuityErrors, "continuity error"),
            Plural(last.transportPackets, "packet"));
    if (last.decryption)
        text += fmt::format("  decrypted  {}, {} in clear; {} that could not be, not played\n",
            Plural(last.decryption->decrypted, "packet"), last.decryption->clear, last.decryption->undecided);
    if (last.socketDrops > 0)
        text += fmt::format("  kernel     {} dropped; raise net.core.rmem_max, --receive-buffer\n",
            Plural(last.socketDrops, "datagram"));
    for (const OutputFigures& output : last.outputs)
        text += fmt::format("  output     {}: {}, {} dropped{}{}\n", output.name,
            Plural(output.packets, "packet"), output.dropped, output.hasFailed ? "; failed: " : "",
            output.problem);
    return text;
}

} // namespace

TextReport::TextReport(const Options& options)
    : m_bQuiet(options.isQuiet),
      m_bPinging(!options.proxyHost.empty() && options.settings.isPinging)
{
}

std::string TextReport::Interval(const Sample& now, int64_t wallSeconds)
{
    const std::string time = TimeOfDay(wallSeconds);
    std::string text;
    if (!m_bQuiet && IsSilent(now)) {
        text = SilenceLine(now, time, m_bPinging);
    } else if (!m_bQuiet) {
        text = m_nLines % LINES_A_HEAD == 0 ? HEAD : "";
        text += FigureLine(now, m_before, time);
        ++m_nLines;
    }
    m_before = now;
    return text;
}

std::string TextReport::Last(const Sample& last, const RunEnd& end, int64_t)
{
    if (m_bQuiet)
        return "";
    std::string text = EndSentence(end.reason, last.runUs);
    if (last.core.received == 0)
        return text + "  No media ever came.\n";
    return text + Totals(last);
}

namespace {

// A proxy tells its operator's "Delete" five times: that is one piece of news.
uint64_t Deletes(const Sample& sample)
{
    constexpr uint64_t STOPS_A_DELETE = 5;
    return (sample.core.stops + STOPS_A_DELETE - 1) / STOPS_A_DELETE;
}

bool HasUndecided(const Sample& sample)
{
    return sample.decryption && sample.decryption->undecided > 0;
}

} // namespace

std::string News(const Sample& before, const Sample& now)
{
    std::string text;
    if (Deletes(now) > Deletes(before))
        text += "the proxy's operator has stopped this stream; --stay-away says when it is joined anew\n";
    if (now.core.rejoins > before.core.rejoins)
        text += "nothing came for a while; joining anew\n";
    if (now.core.restarts > before.core.restarts)
        text += "play-out has begun afresh: the proxy's clock or its numbers jumped\n";
    if (HasUndecided(now) && !HasUndecided(before))
        text
            += "packets that cannot be decrypted come, and are not played: is the password that of the proxy's -Z?\n";
    if (now.proxy != before.proxy && !before.proxy.empty())
        text += "the proxy has moved to " + now.proxy + "\n";
    for (size_t i = 0; i < now.outputs.size(); ++i) {
        const bool hadFailed = i < before.outputs.size() && before.outputs[i].hasFailed;
        if (now.outputs[i].hasFailed && !hadFailed)
            text += "output " + now.outputs[i].name + ": " + now.outputs[i].problem
                + "; it gets nothing any more\n";
    }
    return text;
}

} // namespace arqrx
