#include <cstdio>

#include "../support/media.h"
#include "../support/paced_stream.h"
#include "bench.h"
#include "entries.h"
#include "field.h"

namespace {

// A test picture at a constant 20 Mbit/s. Empty when ffmpeg cannot make it.
std::string MakeTestStream(const std::string& ffmpeg, const std::string& folder, const char* seconds)
{
    std::string file = folder + "/test.ts";
    const std::vector<std::string> arguments { ffmpeg, "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
        "testsrc2=size=1280x720:rate=25", "-t", seconds, "-c:v", "mpeg2video", "-b:v", "19M", "-minrate",
        "19M", "-maxrate", "19M", "-bufsize", "4M", "-f", "mpegts", "-muxrate", "20M", file };
    return Child(arguments).WaitForExit() == 0 ? file : "";
}

// An ffmpeg that sends the test stream to a contender's input, in its own time and with its own bursts.
class Encoder {
public:
    Encoder(const std::string& ffmpeg, const std::string& file, uint16_t inputPort)
        : m_child({ ffmpeg, "-nostdin", "-v", "error", "-re", "-stream_loop", "-1", "-i", file, "-c", "copy",
            "-f", "rtp_mpegts", "rtp://127.0.0.1:" + std::to_string(inputPort) + "?pkt_size=1328" })
    {
    }

    bool IsAlive() const { return m_child.IsAlive(); }

private:
    Child m_child;
};

// What one turn of a lane took for each delivered datagram.
double TakeTurn(Bench& bench, Lane& lane, const std::string& ffmpeg, const std::string& file)
{
    constexpr int64_t START_NS = 5000000000;
    const int64_t settleNs = bench.settings.quick ? 0 : 300000000; // its start is faster than real time
    const int64_t beforeStart = bench.outlet.Delivered(sizeof(MediaDatagram));
    const Encoder encoder(ffmpeg, file, lane.contender->InputPort());
    if (AwaitDelivery(bench.outlet, beforeStart, 1, START_NS) < 1)
        GiveUp("nothing of ffmpeg's stream came out of " + lane.contender->Name());
    SleepUntil(WallNs() + settleNs);
    const int64_t cpuBefore = lane.contender->Process().CpuNs();
    const int64_t before = bench.outlet.Delivered(sizeof(MediaDatagram));
    SleepUntil(WallNs() + static_cast<int64_t>(bench.settings.seconds * 1e9));
    const int64_t cpuNs = lane.contender->Process().CpuNs() - cpuBefore;
    const int64_t delivered = bench.outlet.Delivered(sizeof(MediaDatagram)) - before;
    if (delivered == 0 || !encoder.IsAlive())
        GiveUp("ffmpeg's stream came to an end");
    return static_cast<double>(cpuNs) / static_cast<double>(delivered);
}

void MeasureWith(Bench& bench, const std::string& ffmpeg, const std::string& file)
{
    constexpr double BOUND = 0.5;
    const int32_t nReceivers = bench.settings.receivers.back();
    std::vector<Entry> entries { BareLoop() };
    for (const Entry& entry : Proxies(bench.settings))
        entries.push_back(entry);
    if (bench.settings.floors)
        entries.push_back(Floor("floor: trains", { "--train", "32", "--receive", "many" }));
    Field field(bench.settings, bench.outlet);
    for (const Entry& entry : entries)
        field.Add(entry, nReceivers, 1);
    std::vector<double> turns(entries.size());
    Rounds rounds(bench.settings, field.Pids());
    rounds.Repeat(
        [&](int round) {
            for (size_t i = 0; i < entries.size(); ++i) {
                const size_t which = (i + static_cast<size_t>(round)) % entries.size();
                field.KeepAllKnown();
                turns[which] = TakeTurn(bench, field.Lanes()[which], ffmpeg, file);
            }
        },
        [&] {
            for (size_t i = 0; i < turns.size(); ++i)
                field.Lanes()[i].cpuNs.push_back(turns[i]);
        });
    printf("\nCPU per delivered datagram, N=%d, ffmpeg's rtp_mpegts at 20 Mbit/s: ratio to B\n", nReceivers);
    field.PrintLanes();
    printf("%s\n", rounds.Report().c_str());
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].kind != Entry::Kind::FLOOR && nReceivers == 50)
            bench.targets.Add("CPU, ffmpeg at 20 Mbit/s, N=50, " + entries[i].name, Targets::Kind::AT_MOST,
                BOUND, field.Ratios(field.Lanes()[i]));
    }
}

} // namespace

void MeasureEncoder(Bench& bench)
{
    const std::string ffmpeg = FindProgram("ffmpeg");
    const std::string file
        = ffmpeg.empty() ? "" : MakeTestStream(ffmpeg, bench.scratch, bench.settings.quick ? "1" : "6");
    if (file.empty())
        printf("\nNo figures with a real encoder: there is no ffmpeg that makes MPEG-2 video\n");
    else
        MeasureWith(bench, ffmpeg, file);
}
