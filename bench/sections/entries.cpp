#include "entries.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace {

struct Peer {
    const char* program;
    int32_t mostReceivers;
    Entry entry; // without its program
};

constexpr int32_t ANY_NUMBER = 50;

// Words in braces are replaced when it is started, see Entry.
const std::vector<Peer>& AllPeers()
{
    static const std::vector<Peer> s_peers {
        { "gst-launch-1.0", ANY_NUMBER,
            { "GStreamer multiudpsink", Entry::Kind::PEER, "",
                { "-q", "udpsrc", "buffer-size=524288", "port={input}", "!", "multiudpsink",
                    "clients={clients}", "sync=false" },
                {} } },
        { "gst-launch-1.0", ANY_NUMBER,
            { "GStreamer ristsink", Entry::Kind::PEER, "",
                { "-q", "udpsrc", "buffer-size=524288", "port={input}",
                    "caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=MP2T,payload=33", "!",
                    "ristsink", "bonding-addresses={clients}" },
                {} } },
        { "ffmpeg", ANY_NUMBER,
            { "ffmpeg tee, without demuxing", Entry::Kind::PEER, "",
                { "-nostdin", "-f", "data", "-raw_packet_size", "1328", "-i",
                    "udp://127.0.0.1:{input}?buffer_size=524288", "-map", "0", "-c", "copy", "-f", "tee",
                    "{tee}" },
                {} } },
        { "socat", 1,
            { "socat", Entry::Kind::PEER, "",
                { "-u", "-b", "1536", "UDP-RECV:{input}", "UDP-SENDTO:{clients}" }, {} } },
        { "multicat", 1, { "multicat", Entry::Kind::PEER, "", { "@127.0.0.1:{input}", "{clients}" }, {} } },
    };
    return s_peers;
}

const std::vector<Peer>& AllLinks()
{
    static const std::vector<Peer> s_links {
        { "ristsender", 1,
            { "ristsender", Entry::Kind::PEER, "",
                { "-p", "0", "-v", "-1", "-i", "udp://@127.0.0.1:{input}", "-o", "rist://{first}:{link}" },
                { "ristreceiver", "-p", "0", "-v", "-1", "-i", "rist://@{first}:{link}", "-o",
                    "udp://{clients}" } } },
        { "srt-live-transmit", 1,
            { "srt-live-transmit", Entry::Kind::PEER, "",
                { "-q", "-chunk:1328", "udp://127.0.0.1:{input}?mode=listener", "srt://{first}:{link}" },
                { "srt-live-transmit", "-q", "-chunk:1328", "srt://{first}:{link}?mode=listener",
                    "udp://{clients}" } } },
    };
    return s_links;
}

std::vector<Entry> Installed(const std::vector<Peer>& all, int32_t nReceivers)
{
    std::vector<Entry> entries;
    for (const Peer& peer : all) {
        Entry entry = peer.entry;
        entry.program = FindProgram(peer.program);
        if (entry.program.empty() || nReceivers > peer.mostReceivers)
            continue;
        if (!entry.receiver.empty())
            entry.receiver.front() = FindProgram(entry.receiver.front());
        entries.push_back(entry);
    }
    return entries;
}

} // namespace

Entry BareLoop()
{
    return Floor("B: one thread, recvfrom, N sendto", { "--threads", "1" });
}

Entry Floor(const std::string& name, const std::vector<std::string>& switches)
{
    static const std::string s_floors
        = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "floors";
    return { name, Entry::Kind::FLOOR, s_floors, switches, {} };
}

std::vector<Entry> Proxies(const Settings& settings, const std::vector<std::string>& options)
{
    std::vector<Entry> entries;
    for (const std::string& path : settings.proxies) {
        const std::string which = settings.proxies.size() > 1 ? " " + path : "";
        entries.push_back({ "tx_proxy, -a" + which, Entry::Kind::PROXY, path, options, {} });
        entries.push_back({ "tx_proxy, learnt" + which, Entry::Kind::LEARNT, path, options, {} });
    }
    return entries;
}

std::vector<Entry> Peers(int32_t nReceivers)
{
    return Installed(AllPeers(), nReceivers);
}

std::vector<Entry> Links()
{
    return Installed(AllLinks(), 1);
}

std::vector<std::string> Absent()
{
    std::vector<std::string> names;
    for (const auto* all : { &AllPeers(), &AllLinks() }) {
        for (const Peer& peer : *all) {
            if (FindProgram(peer.program).empty())
                names.push_back(peer.entry.name);
        }
    }
    return names;
}

std::string FindProgram(const std::string& program)
{
    const char* path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "/usr/bin" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string place = folder + "/" + program;
        if (access(place.c_str(), X_OK) == 0)
            return place;
    }
    return "";
}
