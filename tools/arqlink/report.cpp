#include "arqlink/report.h"

#include "arqlink/core/settings_text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <utility>

namespace arqlink {

namespace {

using Json = nlohmann::ordered_json;

// A text of the system or of a file may be anything.
std::string Dump(const Json& object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

double Rounded(double seconds)
{
    return std::round(seconds * 1000) / 1000;
}

Json DirectionJson(const DirectionFigures& figures, const Settings& settings)
{
    const Counts& counts = figures.counts;
    return { { "settings", SettingsText(settings) }, { "came", counts.came },
        { "came_bytes", counts.cameBytes }, { "delivered", counts.delivered },
        { "delivered_bytes", counts.deliveredBytes }, { "under_way", figures.underWay },
        { "lost", figures.Lost() },
        { "lost_by",
            { { "random", counts.random }, { "burst", counts.burst }, { "sequence", counts.sequence },
                { "blackout", counts.blackout }, { "queue", counts.queue }, { "memory", counts.memory },
                { "forgotten", figures.forgotten } } },
        { "duplicated", counts.duplicated }, { "corrupted", counts.corrupted },
        { "reordered", counts.reordered }, { "refused", figures.refused } };
}

Json FiguresJson(const char* event, double seconds, const Figures& figures, const Relay& relay)
{
    return { { "event", event }, { "seconds", Rounded(seconds) }, { "clients", figures.clients },
        { "clients_seen", figures.clientsSeen }, { "clients_refused", figures.clientsRefused },
        { "strangers", figures.strangers }, { "overrun", figures.overrun },
        { "down", DirectionJson(figures.down, relay.Down()) },
        { "up", DirectionJson(figures.up, relay.Up()) } };
}

double Percent(uint64_t part, uint64_t whole)
{
    return whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole);
}

std::string DirectionLine(const char* name, const DirectionFigures& now, const DirectionFigures& last)
{
    const uint64_t came = now.counts.came - last.counts.came;
    const uint64_t delivered = now.counts.delivered - last.counts.delivered;
    const uint64_t lost = now.Lost() - last.Lost();
    return fmt::format(
        "{} {:>6} in {:>6} out {:>6} lost ({:4.1f} %)", name, came, delivered, lost, Percent(lost, came));
}

// "random 12, burst 3": what is not 0.
std::string NonZero(const std::vector<std::pair<const char*, uint64_t>>& parts)
{
    std::string text;
    for (const auto& [name, count] : parts) {
        if (count > 0)
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, count);
    }
    return text;
}

std::string Summary(const char* name, const DirectionFigures& figures)
{
    const Counts& counts = figures.counts;
    const std::string by = NonZero({ { "random", counts.random }, { "burst", counts.burst },
        { "sequence", counts.sequence }, { "blackout", counts.blackout }, { "queue", counts.queue },
        { "memory", counts.memory }, { "forgotten", figures.forgotten } });
    const std::string more = NonZero({ { "duplicated", counts.duplicated }, { "corrupted", counts.corrupted },
        { "reordered", counts.reordered }, { "under way", figures.underWay },
        { "refused by the system", figures.refused } });
    return fmt::format("{:<5}{} in, {} out, {} lost ({:.2f} %){}{}{}", name, counts.came, counts.delivered,
        figures.Lost(), Percent(figures.Lost(), counts.came), by.empty() ? "" : ": " + by,
        more.empty() ? "" : "; ", more);
}

std::string SettingsLine(const Relay& relay)
{
    const std::string down = SettingsText(relay.Down());
    const std::string up = SettingsText(relay.Up());
    return down == up ? "both ways " + down : "down " + down + ", up " + up;
}

} // namespace

bool Report::Print(const std::string& line) const
{
    const std::string whole = line + "\n";
    return std::fwrite(whole.data(), 1, whole.size(), stdout) == whole.size() && std::fflush(stdout) == 0;
}

bool Report::Ready(
    const std::vector<Pair>& pairs, const std::vector<common::Endpoint>& listening, const Relay& relay)
{
    if (m_bQuiet)
        return true;
    Json ends = Json::array();
    std::string text;
    for (size_t i = 0; i < pairs.size(); i++) {
        const std::string from = common::EndpointText(listening[i]);
        const std::string to = common::EndpointText(pairs[i].target);
        ends.push_back({ { "listen", from }, { "target", to } });
        text += fmt::format("{} -> {}\n", from, to);
    }
    if (!m_bJson)
        return Print(text + "The line: " + SettingsLine(relay));
    return Print(Dump(
        { { "event", "ready" }, { "pairs", ends }, { "down", { { "settings", SettingsText(relay.Down()) } } },
            { "up", { { "settings", SettingsText(relay.Up()) } } } }));
}

bool Report::Changed(double seconds, const Relay& relay)
{
    if (m_bQuiet)
        return true;
    if (!m_bJson)
        return Print(fmt::format("{:7.1f} s  the line: {}", seconds, SettingsLine(relay)));
    return Print(Dump({ { "event", "changed" }, { "seconds", Rounded(seconds) },
        { "down", { { "settings", SettingsText(relay.Down()) } } },
        { "up", { { "settings", SettingsText(relay.Up()) } } } }));
}

bool Report::News(double seconds, const ClientNews& news)
{
    if (m_bQuiet)
        return true;
    const std::string from = common::EndpointText(news.from);
    const std::string upstream = common::EndpointText(news.upstream);
    if (!m_bJson && news.bForgotten)
        return Print(fmt::format("{:7.1f} s  client {} ({}) is forgotten", seconds, news.number, from));
    if (!m_bJson)
        return Print(
            fmt::format("{:7.1f} s  client {} is {}, upstream {}", seconds, news.number, from, upstream));
    return Print(
        Dump({ { "event", news.bForgotten ? "forgotten" : "client" }, { "seconds", Rounded(seconds) },
            { "client", news.number }, { "from", from }, { "upstream", upstream } }));
}

bool Report::Line(double seconds, const Figures& figures, const Relay& relay)
{
    const Figures last = std::exchange(m_last, figures);
    if (m_bQuiet)
        return true;
    if (m_bJson)
        return Print(Dump(FiguresJson("figures", seconds, figures, relay)));
    return Print(fmt::format("{:7.1f} s  {} | {} | {} client{}", seconds,
        DirectionLine("down", figures.down, last.down), DirectionLine("up", figures.up, last.up),
        figures.clients, figures.clients == 1 ? "" : "s"));
}

bool Report::Final(double seconds, const Figures& figures, const Relay& relay)
{
    if (m_bQuiet)
        return true;
    if (m_bJson)
        return Print(Dump(FiguresJson("final", seconds, figures, relay)));
    const std::string more = NonZero({ { "datagrams of clients too many", figures.clientsRefused },
        { "from strangers", figures.strangers }, { "too fast for this program", figures.overrun } });
    return Print(fmt::format("{:.1f} s, {} client{}{}\n{}\n{}", seconds, figures.clientsSeen,
        figures.clientsSeen == 1 ? "" : "s", more.empty() ? "" : "; " + more, Summary("down", figures.down),
        Summary("up", figures.up)));
}

void Report::Failure(const std::string& problem, bool bUsage) const
{
    (void)std::fprintf(stderr, "arqlink: %s%s\n", problem.c_str(),
        bUsage ? "\nTry 'arqlink --help' for more information." : "");
    if (m_bJson)
        (void)Print(Dump({ { "error", problem } }));
}

} // namespace arqlink
