// How many packets a second arqlink carries without losing one, and what that costs. One thread sends to it and reads
// what comes back out of it, so that on two cores arqlink has one to itself. The machine should do nothing else.
//
//     build/release/bench/relay [PACKETS_A_SECOND [SECONDS]]
//
// Exit status 1: a packet was lost that no setting had lost.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "common/clock.h"
#include "common/datagrams.h"
#include "common/udp_socket.h"
#include "support/child.h"

namespace {

constexpr size_t PACKET_BYTES = 1328;
constexpr size_t MOST_TOGETHER = 64;
constexpr int BUFFER_BYTES = 32'000'000;
constexpr int64_t PATIENCE_US = 5 * common::US_PER_SECOND;
constexpr int64_t SILENCE_US = common::US_PER_SECOND; // so long nothing comes: nothing more will
constexpr int64_t MOST_BEHIND_US = 20'000;
constexpr uint32_t LOOPBACK = 0x7F000001;

struct Row {
    const char* name;
    std::vector<std::string> options;
    bool losesNothing;
};

const Row ROWS[] = {
    { "nothing", {}, true },
    { "delay 20 ms", { "--delay", "20ms" }, true },
    { "delay 20 ms, jitter 10 ms, all reordered",
        { "--delay", "20ms", "--jitter", "10ms", "--reorder", "100%" }, true },
    { "5 % random, bursts, delay 20 ms", { "--loss", "5%", "--burst", "1%,20%", "--delay", "20ms" }, false },
};

struct Result {
    int64_t sent = 0;
    int64_t received = 0;
    int64_t tookUs = 0;
    int64_t cpuNs = 0;
};

common::UdpSocket Bound()
{
    common::UdpSocket socket;
    if (!socket.Open() || !socket.Bind({ LOOPBACK, 0 }))
        GiveUp(socket.Problem());
    socket.SetBuffers(BUFFER_BYTES, BUFFER_BYTES);
    return socket;
}

uint16_t FreePort()
{
    return Bound().Local().port;
}

void Doze()
{
    const timespec time { 0, 100'000 };
    (void)nanosleep(&time, nullptr);
}

// A line from `m_sender` to `m_receiver` through an arqlink.
class Path {
public:
    explicit Path(const Row& row)
        : m_sender(Bound()),
          m_receiver(Bound()),
          m_entry { LOOPBACK, FreePort() },
          m_relay(Command(row)),
          m_writer(MOST_TOGETHER),
          m_reader(MOST_TOGETHER)
    {
        WaitUntilOpen();
    }

    Result Run(int64_t rate, int64_t seconds)
    {
        Result result;
        const int64_t total = rate * seconds;
        const int64_t cpuBeforeNs = m_relay.CpuNs();
        const int64_t beginUs = common::NowUs();
        int64_t startUs = beginUs;
        int64_t heardUs = beginUs;
        while (result.sent < total || common::NowUs() - heardUs < SILENCE_US) {
            StopIfAsked();
            const int64_t elapsedUs = common::NowUs() - startUs;
            const int64_t due = std::min(total, elapsedUs * rate / common::US_PER_SECOND);
            const int64_t behindUs = (due - result.sent) * common::US_PER_SECOND / rate;
            if (behindUs > MOST_BEHIND_US) { // this thread was kept from running: no burst makes up for it
                startUs += behindUs;
                continue;
            }
            result.sent += Send(std::min<int64_t>(due - result.sent, MOST_TOGETHER));
            if (result.sent == total && result.tookUs == 0)
                result.tookUs = common::NowUs() - beginUs;
            const int64_t read = Receive();
            result.received += read;
            if (read > 0)
                heardUs = common::NowUs();
            if (result.sent == due)
                Doze();
        }
        result.cpuNs = m_relay.CpuNs() - cpuBeforeNs;
        return result;
    }

private:
    std::vector<std::string> Command(const Row& row) const
    {
        std::vector<std::string> command { ARQLINK_BIN, "--quiet" };
        command.insert(command.end(), row.options.begin(), row.options.end());
        command.push_back(common::EndpointText(m_entry) + "=" + common::EndpointText(m_receiver.Local()));
        return command;
    }

    int64_t Send(int64_t count)
    {
        for (int64_t i = 0; i < count; ++i)
            m_writer.Add({ m_packet, sizeof(m_packet) }, m_entry);
        return static_cast<int64_t>(m_writer.Flush(m_sender.Fd()).sent);
    }

    int64_t Receive()
    {
        int64_t received = 0;
        int count = 0;
        do {
            count = std::max(m_reader.Read(m_receiver.Fd()), 0);
            received += count;
        } while (count == static_cast<int>(MOST_TOGETHER));
        return received;
    }

    // The first ones may come before it listens, or be lost on purpose.
    void WaitUntilOpen()
    {
        const int64_t untilUs = common::NowUs() + PATIENCE_US;
        while (Receive() == 0) {
            if (common::NowUs() > untilUs)
                GiveUp("arqlink forwards nothing");
            (void)Send(1);
            Doze();
        }
        while (common::NowUs() < untilUs - PATIENCE_US + common::US_PER_SECOND / 2) {
            (void)Receive();
            Doze();
        }
    }

    common::UdpSocket m_sender;
    common::UdpSocket m_receiver;
    common::Endpoint m_entry;
    Child m_relay;
    common::DatagramWriter m_writer;
    common::DatagramReader m_reader;
    uint8_t m_packet[PACKET_BYTES] = { 0x80, 33 };
};

// False: a line that loses nothing has lost something.
bool Print(const Row& row, const Result& result)
{
    const double seconds = static_cast<double>(result.tookUs) / 1e6;
    const int64_t lost = result.sent - result.received;
    std::printf("%-42s %9.0f %12lld %9lld %7.3f %% %6.2f us %5.0f %%\n", row.name,
        static_cast<double>(result.sent) / seconds, static_cast<long long>(result.received),
        static_cast<long long>(lost), 100 * static_cast<double>(lost) / static_cast<double>(result.sent),
        static_cast<double>(result.cpuNs) / 1e3 / static_cast<double>(result.sent),
        static_cast<double>(result.cpuNs) / 1e7 / seconds);
    (void)std::fflush(stdout);
    return lost <= 0 || !row.losesNothing;
}

int64_t Argument(int argc, char** argv, int index, int64_t otherwise)
{
    int64_t value = 0;
    if (argc <= index)
        return otherwise;
    const char* end = argv[index] + std::strlen(argv[index]);
    const auto [stop, error] = std::from_chars(argv[index], end, value);
    if (error != std::errc() || stop != end || value <= 0 || value > 10'000'000)
        GiveUp("usage: relay [PACKETS_A_SECOND [SECONDS]]");
    return value;
}

} // namespace

int main(int argc, char** argv)
{
    bool complete = true;
    const int status = RunBenchmark([&] {
        StopOnSignals();
        const int64_t rate = Argument(argc, argv, 1, 100'000);
        const int64_t seconds = Argument(argc, argv, 2, 5);
        std::printf("%-42s %9s %12s %9s %9s %9s %7s\n", "arqlink, 1328 bytes, one client, upwards",
            "packets/s", "received", "lost", "", "a packet", "core");
        for (const Row& row : ROWS)
            complete = Print(row, Path(row).Run(rate, seconds)) && complete;
    });
    return status != 0 || complete ? status : 1;
}
