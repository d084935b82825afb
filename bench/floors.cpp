// Forwarding and nothing else: no ring, no clock, no answers. Each technique of the kernel's is a switch, so
// that what it costs or saves can be measured alone. The first row of the benchmarks, B, is this program with
// --threads 1.
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "support/child.h"
#include "support/floor_handover.h"
#include "support/floor_packet.h"
#include "support/floor_sender.h"
#include "support/floor_settings.h"
#include "support/udp.h"

namespace {

UniqueFd OpenInput(const FloorSettings& settings)
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

void StampIfAsked(const FloorSettings& settings)
{
    timespec now {};
    if (settings.stamp)
        (void)clock_gettime(CLOCK_REALTIME, &now);
}

// Receives one packet or more, `most` at most, into `packets`; returns how many.
uint32_t Receive(int input, const FloorSettings& settings, FloorPacket* const* packets, uint32_t most)
{
    if (!settings.receiveMany) {
        const ssize_t length
            = recvfrom(input, packets[0]->data, FloorPacket::SLICE_BYTES, 0, nullptr, nullptr);
        if (length > 0)
            packets[0]->length = static_cast<size_t>(length);
        return length > 0 ? 1 : 0;
    }
    mmsghdr messages[MOST_AT_ONCE] {};
    iovec pieces[MOST_AT_ONCE];
    for (uint32_t i = 0; i < most; ++i) {
        pieces[i] = { packets[i]->data, FloorPacket::SLICE_BYTES };
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int got = recvmmsg(input, messages, most, MSG_WAITFORONE, nullptr);
    for (int i = 0; i < got; ++i)
        packets[i]->length = messages[i].msg_len;
    return got > 0 ? static_cast<uint32_t>(got) : 0;
}

[[noreturn]] void RunOneThread(const FloorSettings& settings)
{
    const UniqueFd input = OpenInput(settings);
    FloorSender sender(settings);
    std::vector<FloorPacket> slots(settings.receiveMany ? MOST_AT_ONCE : 1);
    std::vector<FloorPacket*> packets;
    for (FloorPacket& slot : slots)
        packets.push_back(&slot);
    for (;;) {
        const uint32_t got
            = Receive(input.Get(), settings, packets.data(), static_cast<uint32_t>(packets.size()));
        StampIfAsked(settings);
        sender.Send(packets.data(), got);
    }
}

[[noreturn]] void ReceiveAll(const FloorSettings& settings, FloorHandover& handover)
{
    const UniqueFd input = OpenInput(settings);
    FloorPacket* packets[MOST_AT_ONCE];
    for (;;) {
        const uint32_t most = handover.FreeSlots(settings.receiveMany ? MOST_AT_ONCE : 1);
        for (uint32_t i = 0; i < most; ++i)
            packets[i] = &handover.Free(i);
        const uint32_t got = Receive(input.Get(), settings, packets, most);
        if (got != 0)
            handover.Put(got);
    }
}

[[noreturn]] void RunTwoThreads(const FloorSettings& settings)
{
    FloorHandover handover(settings.wakeByCondition);
    std::thread([&] { ReceiveAll(settings, handover); }).detach();
    FloorSender sender(settings);
    FloorPacket* packets[MOST_AT_ONCE];
    for (;;) {
        const uint32_t count = std::min(handover.Wait(), settings.train);
        for (uint32_t i = 0; i < count; ++i)
            packets[i] = &handover.Waiting(i);
        StampIfAsked(settings);
        sender.Send(packets, count);
        handover.Done(count);
    }
}

} // namespace

int main(int argc, char** argv)
{
    return RunBenchmark([=] {
        const FloorSettings settings = ReadFloorSettings(argc, argv);
        if (settings.oneThread)
            RunOneThread(settings);
        RunTwoThreads(settings);
    });
}
