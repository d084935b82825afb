// Forwarding and nothing else: no ring, no clock, no answers. Each technique of the kernel's is a switch, so
// that what it costs or saves can be measured alone. The first row of the benchmarks, B, is this program with
// --threads 1.
#include <linux/futex.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "support/child.h"
#include "support/udp.h"

namespace {

constexpr size_t SLICE_BYTES = 1536;
constexpr uint32_t SLOTS = 512; // the proxy's queue
constexpr uint32_t MOST_AT_ONCE = 64; // of one call: recvmmsg, and the pieces of a train
constexpr size_t MOST_BYTES = 65507; // of a train

constexpr char USAGE[]
    = "Usage: floors [switches] INPUT_PORT DEST_PORT ADDRESS,ADDRESS,...\n"
      "  --threads 1|2          2: one receives, another one sends (2)\n"
      "  --send plain|connected|together\n"
      "                         a sendto each, a send on a connected socket each, or one sendmmsg\n"
      "                         for all receivers over a socket that they share (plain)\n"
      "  --train N              up to N packets that wait go as one UDP_SEGMENT message (1: never)\n"
      "  --receive one|many     recvfrom, or recvmmsg with MSG_WAITFORONE (one)\n"
      "  --time-out MS          receive time-out on the input socket (0: none)\n"
      "  --wake futex|condition what the sending thread sleeps on; condition: with a mutex (futex)\n"
      "  --stamp                reads the clock once a packet, as the proxy does\n"
      "  --send-buffer BYTES    SO_SNDBUF of each sending socket (0: as it is)\n";

struct Settings {
    bool oneThread = false;
    bool connected = false;
    bool together = false;
    bool receiveMany = false;
    bool wakeByCondition = false;
    bool stamp = false;
    uint32_t train = 1;
    long timeOutMs = 0;
    int sendBuffer = 0;
    uint16_t inputPort = 0;
    std::vector<sockaddr_in> destinations;
};

struct Packet {
    size_t length;
    uint8_t data[SLICE_BYTES];
};

// Packets from the receiving to the sending thread, one of each. A slot is free again once its packet was
// sent.
class Handover {
public:
    explicit Handover(bool wakeByCondition) : m_slots(SLOTS), m_bWakeByCondition(wakeByCondition) {}

    // Receiving thread: the slots from the next free one on. Waits while there is none.
    uint32_t FreeSlots(uint32_t wanted)
    {
        for (;;) {
            const uint32_t free = SLOTS - (m_nPut.load(std::memory_order_relaxed) - m_nTaken.load());
            if (free != 0)
                return std::min(free, wanted);
            std::this_thread::yield();
        }
    }
    Packet& Free(uint32_t ahead) { return m_slots[(m_nPut.load(std::memory_order_relaxed) + ahead) % SLOTS]; }
    void Put(uint32_t count)
    {
        if (m_bWakeByCondition) {
            {
                const std::lock_guard lock(m_mutex);
                m_nPut.fetch_add(count);
            }
            m_condition.notify_one();
            return;
        }
        m_nPut.fetch_add(count);
        if (m_bSleeps.load())
            (void)Futex(FUTEX_WAKE_PRIVATE, 1);
    }

    // Sending thread: waits for a packet; returns how many wait.
    uint32_t Wait()
    {
        const uint32_t taken = m_nTaken.load(std::memory_order_relaxed);
        if (m_bWakeByCondition) {
            std::unique_lock lock(m_mutex);
            m_condition.wait(lock, [&] { return m_nPut.load() != taken; });
        }
        while (m_nPut.load() == taken) {
            m_bSleeps.store(true);
            (void)Futex(FUTEX_WAIT_PRIVATE, taken);
            m_bSleeps.store(false);
        }
        return m_nPut.load() - taken;
    }
    Packet& Waiting(uint32_t ahead)
    {
        return m_slots[(m_nTaken.load(std::memory_order_relaxed) + ahead) % SLOTS];
    }
    void Done(uint32_t count) { m_nTaken.fetch_add(count); }

private:
    long Futex(int operation, uint32_t value)
    {
        static_assert(sizeof(m_nPut) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free);
        return syscall(
            SYS_futex, reinterpret_cast<uint32_t*>(&m_nPut), operation, value, nullptr, nullptr, 0);
    }

    std::vector<Packet> m_slots;
    const bool m_bWakeByCondition;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    alignas(64) std::atomic<uint32_t> m_nPut { 0 };
    alignas(64) std::atomic<uint32_t> m_nTaken { 0 };
    std::atomic<bool> m_bSleeps { false };
};

// One message: a packet, or a train of packets of one size, the last of which may be shorter.
class Message {
public:
    // Takes as many of the `count` packets from `first` on as may travel together; returns how many.
    template <typename PacketAt>
    uint32_t Build(PacketAt packetAt, uint32_t first, uint32_t count)
    {
        const size_t size = packetAt(first).length;
        size_t sum = 0;
        uint32_t taken = 0;
        while (taken < count && packetAt(first + taken).length <= size) {
            Packet& packet = packetAt(first + taken);
            sum += packet.length;
            if (sum > MOST_BYTES)
                break;
            m_pieces[taken++] = { packet.data, packet.length };
            if (packet.length < size)
                break;
        }
        m_nPieces = taken;
        m_usSize = static_cast<uint16_t>(size);
        return taken;
    }

    // For one receiver. `destination` is null on a connected socket.
    msghdr To(const sockaddr_in* destination)
    {
        msghdr message {};
        message.msg_name = const_cast<sockaddr_in*>(destination);
        message.msg_namelen = destination == nullptr ? 0 : sizeof(*destination);
        message.msg_iov = m_pieces;
        message.msg_iovlen = m_nPieces;
        if (m_nPieces < 2)
            return message;
        message.msg_control = m_control;
        message.msg_controllen = sizeof(m_control);
        cmsghdr* item = CMSG_FIRSTHDR(&message);
        item->cmsg_level = IPPROTO_UDP;
        item->cmsg_type = UDP_SEGMENT;
        item->cmsg_len = CMSG_LEN(sizeof(m_usSize));
        std::memcpy(CMSG_DATA(item), &m_usSize, sizeof(m_usSize));
        return message;
    }
    bool IsTrain() const { return m_nPieces > 1; }
    const iovec& Only() const { return m_pieces[0]; }

private:
    iovec m_pieces[MOST_AT_ONCE] {};
    size_t m_nPieces = 0;
    uint16_t m_usSize = 0;
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(uint16_t))] {};
};

class Sender {
public:
    explicit Sender(const Settings& settings) : m_settings(settings), m_messages(settings.destinations.size())
    {
        const size_t sockets = settings.connected ? settings.destinations.size() : 1;
        for (size_t i = 0; i < sockets; ++i) {
            m_sockets.emplace_back(socket(AF_INET, SOCK_DGRAM, 0));
            const int fd = m_sockets.back().Get();
            if (settings.sendBuffer != 0)
                (void)setsockopt(
                    fd, SOL_SOCKET, SO_SNDBUF, &settings.sendBuffer, sizeof(settings.sendBuffer));
            if (settings.connected)
                (void)connect(
                    fd, reinterpret_cast<const sockaddr*>(&settings.destinations[i]), sizeof(sockaddr_in));
        }
    }

    // Sends `count` packets to every receiver.
    template <typename PacketAt>
    void Send(PacketAt packetAt, uint32_t count)
    {
        for (uint32_t sent = 0; sent < count;) {
            sent += m_message.Build(packetAt, sent, std::min(count - sent, m_settings.train));
            if (m_settings.together)
                SendTogether();
            else
                SendEach();
        }
    }

private:
    void SendEach()
    {
        for (size_t i = 0; i < m_settings.destinations.size(); ++i) {
            const sockaddr_in* destination = m_settings.connected ? nullptr : &m_settings.destinations[i];
            const int fd = m_sockets[m_settings.connected ? i : 0].Get();
            if (m_message.IsTrain()) {
                const msghdr message = m_message.To(destination);
                (void)sendmsg(fd, &message, 0);
            } else {
                (void)sendto(fd, m_message.Only().iov_base, m_message.Only().iov_len, 0,
                    reinterpret_cast<const sockaddr*>(destination),
                    destination == nullptr ? 0 : sizeof(*destination));
            }
        }
    }

    void SendTogether()
    {
        for (size_t i = 0; i < m_messages.size(); ++i)
            m_messages[i].msg_hdr = m_message.To(&m_settings.destinations[i]);
        (void)sendmmsg(m_sockets[0].Get(), m_messages.data(), static_cast<unsigned>(m_messages.size()), 0);
    }

    const Settings& m_settings;
    std::vector<UniqueFd> m_sockets;
    std::vector<mmsghdr> m_messages;
    Message m_message;
};

UniqueFd OpenInput(const Settings& settings)
{
    sockaddr_in any = LoopbackAddress(settings.inputPort);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    UniqueFd input = BoundSocket(any);
    const int bufferBytes = 524288; // what the proxy asks for
    (void)setsockopt(input.Get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof(bufferBytes));
    const timeval limit { settings.timeOutMs / 1000, settings.timeOutMs % 1000 * 1000 };
    if (settings.timeOutMs > 0)
        (void)setsockopt(input.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return input;
}

void StampIfAsked(const Settings& settings)
{
    timespec now {};
    if (settings.stamp)
        (void)clock_gettime(CLOCK_REALTIME, &now);
}

// Receives one packet or more, `most` at most, into what packetAt(0) and on give; returns how many.
template <typename PacketAt>
uint32_t Receive(int input, const Settings& settings, PacketAt packetAt, uint32_t most)
{
    if (!settings.receiveMany) {
        const ssize_t length = recvfrom(input, packetAt(0).data, SLICE_BYTES, 0, nullptr, nullptr);
        if (length > 0)
            packetAt(0).length = static_cast<size_t>(length);
        return length > 0 ? 1 : 0;
    }
    mmsghdr messages[MOST_AT_ONCE] {};
    iovec pieces[MOST_AT_ONCE];
    for (uint32_t i = 0; i < most; ++i) {
        pieces[i] = { packetAt(i).data, SLICE_BYTES };
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int got = recvmmsg(input, messages, most, MSG_WAITFORONE, nullptr);
    for (int i = 0; i < got; ++i)
        packetAt(static_cast<uint32_t>(i)).length = messages[i].msg_len;
    return got > 0 ? static_cast<uint32_t>(got) : 0;
}

[[noreturn]] void RunOneThread(const Settings& settings)
{
    const UniqueFd input = OpenInput(settings);
    Sender sender(settings);
    std::vector<Packet> packets(settings.receiveMany ? MOST_AT_ONCE : 1);
    const auto packetAt = [&](uint32_t i) -> Packet& { return packets[i]; };
    for (;;) {
        const uint32_t got = Receive(input.Get(), settings, packetAt, static_cast<uint32_t>(packets.size()));
        StampIfAsked(settings);
        sender.Send(packetAt, got);
    }
}

[[noreturn]] void RunTwoThreads(const Settings& settings)
{
    Handover handover(settings.wakeByCondition);
    std::thread([&] {
        const UniqueFd input = OpenInput(settings);
        for (;;) {
            const uint32_t most = handover.FreeSlots(MOST_AT_ONCE);
            const auto slot = [&](uint32_t i) -> Packet& { return handover.Free(i); };
            const uint32_t got = Receive(input.Get(), settings, slot, most);
            if (got != 0)
                handover.Put(got);
        }
    }).detach();
    Sender sender(settings);
    const auto waiting = [&](uint32_t i) -> Packet& { return handover.Waiting(i); };
    for (;;) {
        const uint32_t count = std::min(handover.Wait(), settings.train);
        StampIfAsked(settings);
        sender.Send(waiting, count);
        handover.Done(count);
    }
}

uint16_t Port(const char* text)
{
    return static_cast<uint16_t>(std::strtoul(text, nullptr, 10));
}

// Takes a switch with its value from argv[i] on; returns how many words that were, 0 for an unknown one.
int TakeSwitch(Settings& settings, const std::string& name, const std::string& value)
{
    if (name == "--stamp") {
        settings.stamp = true;
        return 1;
    }
    if (name == "--threads")
        settings.oneThread = value == "1";
    else if (name == "--send") {
        settings.connected = value == "connected";
        settings.together = value == "together";
    } else if (name == "--train")
        settings.train
            = std::clamp(static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10)), 1U, MOST_AT_ONCE);
    else if (name == "--receive")
        settings.receiveMany = value == "many";
    else if (name == "--time-out")
        settings.timeOutMs = std::strtol(value.c_str(), nullptr, 10);
    else if (name == "--wake")
        settings.wakeByCondition = value == "condition";
    else if (name == "--send-buffer")
        settings.sendBuffer = std::atoi(value.c_str());
    else
        return 0;
    return 2;
}

Settings ReadSettings(int argc, char** argv)
{
    constexpr int POSITIONALS = 3;
    Settings settings;
    int place = 1;
    while (place + POSITIONALS < argc) {
        const int words = TakeSwitch(settings, argv[place], argv[place + 1]);
        if (words == 0)
            GiveUp(USAGE);
        place += words;
    }
    if (place + POSITIONALS != argc)
        GiveUp(USAGE);
    settings.inputPort = Port(argv[place]);
    settings.destinations = ReadAddresses(argv[place + 2], Port(argv[place + 1]));
    return settings;
}

} // namespace

int main(int argc, char** argv)
{
    return RunBenchmark([=] {
        const Settings settings = ReadSettings(argc, argv);
        if (settings.oneThread)
            RunOneThread(settings);
        RunTwoThreads(settings);
    });
}
