// What the model's sockets do, beside the system's own on loopback: each test runs its calls with both.
#include "kernel_model/socket_kernel.h"

#include <gtest/gtest.h>
#include <netinet/udp.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace kernel_model {

namespace {

// Delivers to its own sockets what they send to each other, and tells a connected one that nobody has the port.
class Loopback : public SocketKernel {
public:
    Loopback() { SetCurrent(this); }
    ~Loopback() override { SetCurrent(nullptr); }

    std::vector<Fate> fates;
    std::vector<int> refusals; // of the next messages; 0 for none

private:
    int Refuse(const Attempt& /*attempt*/) override
    {
        if (refusals.empty())
            return 0;
        const int error = refusals.front();
        refusals.erase(refusals.begin());
        return error;
    }
    void OnMessage(const Attempt& attempt, Fate fate) override
    {
        fates.push_back(fate);
        if (fate != Fate::Left)
            return;
        const in_addr_t fromNet = htonl(INADDR_LOOPBACK);
        attempt.message.ForEachDatagram([&](const uint8_t* bytes, size_t count) {
            const bool isHeard = Put(ntohs(attempt.destination.sin_port),
                { fromNet, htons(attempt.socket.port), { bytes, bytes + count } });
            if (!isHeard && attempt.socket.peer)
                sockets.Find(attempt.fd)->pendingError = ECONNREFUSED;
        });
    }
    void WaitForDatagrams(int64_t /*ms*/) override {}
    void OnMisuse(const char* promise) override { ADD_FAILURE() << promise; }
};

sockaddr_in LoopbackAt(uint16_t port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

const sockaddr* Raw(const sockaddr_in& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

// A socket, and what its calls say: the result, or the error number below 0.
class Udp {
public:
    Udp() : m_nFd(socket(AF_INET, SOCK_DGRAM, 0))
    {
        const timeval limit { 0, 20000 };
        (void)setsockopt(m_nFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    Udp(const Udp&) = delete;
    Udp& operator=(const Udp&) = delete;
    ~Udp() { (void)close(m_nFd); }

    int Fd() const { return m_nFd; }

    long Bind(uint16_t port = 0) const
    {
        const sockaddr_in local = LoopbackAt(port);
        return Said(bind(m_nFd, Raw(local), sizeof(local)));
    }
    long Connect(uint16_t port) const
    {
        const sockaddr_in peer = LoopbackAt(port);
        return Said(connect(m_nFd, Raw(peer), sizeof(peer)));
    }
    uint16_t Port() const
    {
        sockaddr_in local {};
        socklen_t size = sizeof(local);
        (void)getsockname(m_nFd, reinterpret_cast<sockaddr*>(&local), &size);
        return ntohs(local.sin_port);
    }
    void MayShare() const { Set(SO_REUSEADDR, 1); }
    void Set(int option, int value) const
    {
        (void)setsockopt(m_nFd, SOL_SOCKET, option, &value, sizeof(value));
    }

    long Send() const { return Said(send(m_nFd, "x", 1, MSG_DONTWAIT)); }
    // `bytes` to that port (0: where it is connected to), cut into pieces of `segment` (below 0: not at all).
    long SendTrain(uint16_t port, size_t bytes, int segment, int flags = MSG_DONTWAIT) const
    {
        std::vector<char> payload(bytes, 'p');
        iovec piece { payload.data(), bytes };
        sockaddr_in address = LoopbackAt(port);
        msghdr header {};
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        if (port != 0) {
            header.msg_name = &address;
            header.msg_namelen = sizeof(address);
        }
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(uint16_t))] = {};
        if (segment >= 0) {
            const auto size = static_cast<uint16_t>(segment);
            header.msg_control = control;
            header.msg_controllen = sizeof(control);
            cmsghdr* first = CMSG_FIRSTHDR(&header);
            first->cmsg_level = SOL_UDP;
            first->cmsg_type = UDP_SEGMENT;
            first->cmsg_len = CMSG_LEN(sizeof(size));
            std::memcpy(CMSG_DATA(first), &size, sizeof(size));
        }
        return Said(sendmsg(m_nFd, &header, flags));
    }
    long SendPortZero() const
    {
        const sockaddr_in nowhere = LoopbackAt(0);
        return Said(sendto(m_nFd, "x", 1, MSG_DONTWAIT, Raw(nowhere), sizeof(nowhere)));
    }
    // One byte to each of these ports; 0: where it is connected to.
    long SendMany(const std::vector<uint16_t>& ports) const
    {
        iovec piece { const_cast<char*>("y"), 1 };
        std::vector<sockaddr_in> addresses;
        std::vector<mmsghdr> messages(ports.size());
        for (const uint16_t port : ports)
            addresses.push_back(LoopbackAt(port));
        for (size_t i = 0; i < ports.size(); ++i) {
            msghdr& header = messages[i].msg_hdr;
            header.msg_iov = &piece;
            header.msg_iovlen = 1;
            header.msg_name = ports[i] != 0 ? &addresses[i] : nullptr;
            header.msg_namelen = ports[i] != 0 ? sizeof(sockaddr_in) : 0;
        }
        return Said(sendmmsg(m_nFd, messages.data(), static_cast<unsigned>(ports.size()), MSG_DONTWAIT));
    }

    // Lengths of what waits; an error ends them, below 0.
    std::vector<long> Read() const
    {
        std::vector<long> lengths;
        for (;;) {
            char buffer[70000];
            const long got = Said(recvfrom(m_nFd, buffer, sizeof(buffer), MSG_DONTWAIT, nullptr, nullptr));
            if (got == -EAGAIN)
                return lengths;
            lengths.push_back(got);
        }
    }
    // How many of `wanted` datagrams one call takes, and their lengths.
    std::vector<long> ReadMany(unsigned wanted, int flags) const
    {
        std::vector<std::array<char, 4>> rooms(wanted);
        std::vector<iovec> pieces;
        std::vector<mmsghdr> messages(wanted);
        for (auto& room : rooms)
            pieces.push_back({ room.data(), room.size() });
        for (unsigned i = 0; i < wanted; ++i) {
            messages[i].msg_hdr.msg_iov = &pieces[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const long count = Said(recvmmsg(m_nFd, messages.data(), wanted, flags, nullptr));
        std::vector<long> told { count };
        for (long i = 0; i < count; ++i)
            told.push_back((messages[static_cast<size_t>(i)].msg_hdr.msg_flags & MSG_TRUNC) != 0
                    ? -1
                    : static_cast<long>(messages[static_cast<size_t>(i)].msg_len));
        return told;
    }
    int Error() const
    {
        int error = 0;
        socklen_t size = sizeof(error);
        (void)getsockopt(m_nFd, SOL_SOCKET, SO_ERROR, &error, &size);
        return error;
    }
    short Polled() const
    {
        pollfd wanted { m_nFd, POLLIN, 0 };
        (void)poll(&wanted, 1, 0);
        return wanted.revents;
    }

private:
    static long Said(long result) { return result < 0 ? -errno : result; }

    int m_nFd;
};

using Answers = std::vector<long>;

// A port that nobody has open.
uint16_t ClosedPort()
{
    const Udp socket;
    EXPECT_EQ(socket.Bind(), 0);
    return socket.Port();
}

// What both kernels answer to the same calls.
template <typename Calls>
void ExpectAlike(Calls calls, const Answers& expected)
{
    EXPECT_EQ(calls(), expected) << "the system's kernel";
    const Loopback loopback;
    EXPECT_EQ(calls(), expected) << "the model";
}

Answers operator+(Answers first, const Answers& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

struct Train {
    size_t bytes;
    int segment;
};

// What both kernels answer to these trains to one socket, and what is read there then.
void ExpectTrainsAlike(const std::vector<Train>& trains, const Answers& sent, const Answers& read)
{
    ExpectAlike(
        [&] {
            const Udp from;
            const Udp to;
            (void)to.Bind();
            Answers told;
            for (const Train& train : trains)
                told.push_back(from.SendTrain(to.Port(), train.bytes, train.segment));
            return told + to.Read();
        },
        sent + read);
}

} // namespace

TEST(KernelModel, ATrainIsReadAsItsDatagramsOfWhichTheLastMayBeShorter)
{
    ExpectTrainsAlike({ { 1000, 300 }, { 600, 300 } }, { 1000, 600 }, { 300, 300, 300, 100, 300, 300 });
}

TEST(KernelModel, WhatIsNoLongerThanAPieceIsOneDatagramAndNoSizeIsNoTrain)
{
    ExpectTrainsAlike(
        { { 300, 300 }, { 200, 300 }, { 700, 0 }, { 0, 300 } }, { 300, 200, 700, 0 }, { 300, 200, 700, 0 });
}

TEST(KernelModel, ATrainHas64PiecesAnd65507Bytes)
{
    ExpectTrainsAlike(
        { { 64, 1 }, { 65508, 1400 }, { 65508, -1 } }, { 64, -EMSGSIZE, -EMSGSIZE }, Answers(64, 1));
    const Loopback loopback; // newer kernels take 128
    EXPECT_EQ(Udp().SendTrain(9, 65, 1), -EINVAL);
}

TEST(KernelModel, WithoutChecksumsThereAreNoTrains)
{
    ExpectAlike(
        [] {
            const Udp from;
            from.Set(SO_NO_CHECK, 1);
            return Answers { from.SendTrain(9, 1000, 300), from.SendTrain(9, 300, 300),
                from.SendTrain(9, 300, -1) };
        },
        { -EINVAL, -EINVAL, 300 });
}

TEST(KernelModel, APieceAboveTheMtuIsRefusedAndTheSameBytesLeavePlainly)
{
    Loopback loopback; // how large the system's loopback is depends on the machine
    loopback.mtuBytes = 1300;
    const Udp from;
    EXPECT_EQ(from.SendTrain(9, 2544, 1272), 2544);
    EXPECT_EQ(from.SendTrain(9, 2546, 1273), -EMSGSIZE);
    EXPECT_EQ(from.SendTrain(9, 1273, -1), 1273);
    loopback.tooLongError = EINVAL;
    EXPECT_EQ(from.SendTrain(9, 2546, 1273), -EINVAL);
}

TEST(KernelModel, EverySecondSendToAClosedPortIsToldOfTheOneBefore)
{
    ExpectAlike(
        [] {
            const Udp from;
            (void)from.Connect(ClosedPort());
            return Answers { from.Send(), from.Send(), from.Send(), from.Send() };
        },
        { 1, -ECONNREFUSED, 1, -ECONNREFUSED });
}

TEST(KernelModel, AnErrorIsToldOnceByWhateverIsCalledNext)
{
    ExpectAlike(
        [] {
            const Udp from;
            (void)from.Connect(ClosedPort());
            Answers told { from.Send(), from.Error(), from.Error(), from.Send() };
            told = told + from.Read();
            told = told + Answers { from.Send(), from.ReadMany(2, MSG_DONTWAIT)[0] };
            const Udp other;
            (void)other.Bind();
            told = told
                + Answers { from.Send(), from.Polled() & POLLERR, from.Connect(other.Port()), from.Send() };
            told.push_back(from.Send());
            return told + other.Read();
        },
        { 1, ECONNREFUSED, 0, 1, -ECONNREFUSED, 1, -ECONNREFUSED, 1, POLLERR, 0, -ECONNREFUSED, 1, 1 });
}

TEST(KernelModel, SendsToOtherPlacesFromAConnectedSocketAreToldToo)
{
    ExpectAlike(
        [] {
            const Udp from;
            const Udp to;
            (void)to.Bind();
            (void)from.Connect(ClosedPort());
            const Answers sent { from.Send(), from.SendTrain(to.Port(), 5, -1),
                from.SendTrain(to.Port(), 6, -1) };
            return sent + to.Read();
        },
        { 1, -ECONNREFUSED, 6, 6 });
}

TEST(KernelModel, SendmmsgTellsHowManyLeftAndForgetsWhyTheNextDidNot)
{
    ExpectAlike(
        [] {
            const Udp from;
            const Udp to;
            (void)to.Bind();
            (void)from.Connect(ClosedPort());
            const uint16_t other = to.Port();
            Answers told { from.SendMany({ other, 0, other }), from.SendMany({ other, other }) };
            told = told + to.Read();
            (void)from.Send();
            return told + Answers { from.SendMany({ other, other }), from.SendMany({ other, other }) };
        },
        { 2, 2, 1, 1, 1, -ECONNREFUSED, 2 });
}

TEST(KernelModel, ThereIsNoPortZero)
{
    ExpectAlike(
        [] {
            const Udp to;
            (void)to.Bind();
            const Answers sent { Udp().SendPortZero(), Udp().SendMany({ to.Port() }) };
            return sent + to.Read();
        },
        { -EINVAL, 1, 1 });
}

TEST(KernelModel, WithoutAddressASocketMustBeConnected)
{
    ExpectAlike(
        [] {
            return Answers { Udp().Send(), Udp().SendMany({ 0 }) };
        },
        { -EDESTADDRREQ, -EDESTADDRREQ });
}

TEST(KernelModel, RecvmmsgWaitsForOneAtMost)
{
    ExpectAlike(
        [] {
            const Udp from;
            const Udp to;
            (void)to.Bind();
            Answers told = to.ReadMany(3, MSG_WAITFORONE);
            told = told + to.ReadMany(3, MSG_DONTWAIT);
            (void)from.SendTrain(to.Port(), 3, -1);
            told = told + to.ReadMany(3, MSG_WAITFORONE);
            (void)from.SendTrain(to.Port(), 7, 3);
            (void)from.SendTrain(to.Port(), 5, -1);
            told = told + to.ReadMany(3, MSG_DONTWAIT);
            return told + to.ReadMany(3, MSG_WAITFORONE);
        },
        { -EAGAIN, -EAGAIN, 1, 3, 3, 3, 3, 1, 1, -1 });
}

TEST(KernelModel, APortIsSharedByThoseWhoAllSaySoAndTheLastOneGetsWhatComes)
{
    ExpectAlike(
        [] {
            const uint16_t port = ClosedPort();
            const Udp from;
            const Udp first;
            const Udp second;
            Answers told { first.Bind(port), second.Bind(port), first.Bind(port) };
            second.MayShare();
            told = told + Answers { second.Bind(port) };
            first.MayShare();
            told = told + Answers { second.Bind(port) };
            (void)from.SendTrain(port, 1, -1);
            return told + first.Read() + second.Read();
        },
        { 0, -EADDRINUSE, -EINVAL, -EADDRINUSE, 0, 1 });
}

TEST(KernelModel, AConnectedSocketTakesItsPeersDatagramsAndNoOthers)
{
    ExpectAlike(
        [] {
            const uint16_t port = ClosedPort();
            const Udp peer;
            const Udp stranger;
            const Udp connected;
            const Udp open;
            (void)peer.Bind();
            connected.MayShare();
            open.MayShare();
            (void)connected.Bind(port);
            (void)open.Bind(port);
            Answers told { connected.Connect(peer.Port()), connected.Bind(port) };
            (void)peer.SendTrain(port, 1, -1);
            (void)stranger.SendTrain(port, 2, -1);
            return told + connected.Read() + open.Read();
        },
        { 0, -EINVAL, 1, 2 });
}

TEST(KernelModel, APortIsChosenByTheFirstSendOrConnect)
{
    ExpectAlike(
        [] {
            const Udp sends;
            const Udp connects;
            Answers told { sends.Port(), connects.Port() };
            (void)sends.SendTrain(9, 1, -1);
            (void)connects.Connect(9);
            return told
                + Answers { sends.Port() != 0, connects.Port() != 0, sends.Port() != connects.Port() };
        },
        { 0, 0, 1, 1, 1 });
}

TEST(KernelModel, AfterAShutdownNothingIsSentWhateverItSaid)
{
    const Udp socket;
    EXPECT_EQ(shutdown(socket.Fd(), SHUT_WR), -1);
    EXPECT_EQ(socket.SendTrain(9, 1, -1), -EPIPE) << "the system's kernel";
    Loopback loopback;
    const Udp model;
    EXPECT_EQ(shutdown(model.Fd(), SHUT_WR), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_TRUE(loopback.sockets.Find(model.Fd())->isShut); // a send is a misuse here
    EXPECT_EQ(model.Connect(9), 0);
    EXPECT_EQ(shutdown(model.Fd(), SHUT_WR), 0);
}

TEST(KernelModel, ADuplicateKeepsTheSocketWhenTheFirstDescriptorIsClosed)
{
    Sockets sockets;
    const int first = sockets.Make();
    const int second = sockets.Make();
    sockets.Find(first)->port = 7;
    EXPECT_EQ(sockets.Duplicate(first, second), second);
    EXPECT_EQ(sockets.Close(first), 0);
    EXPECT_EQ(sockets.Close(first), -EBADF);
    EXPECT_EQ(sockets.FindReceiver(7, 0, 0), sockets.Find(second));
    EXPECT_EQ(sockets.Open(), 1);
    EXPECT_EQ(sockets.Make(), first) << "the lowest free number is given out";
}

TEST(KernelModel, WhoIsToldWhyADatagramAloneWasRefusedMayGiveItUp)
{
    Loopback loopback;
    const Udp from;
    loopback.refusals = { ENOBUFS, EIO, 0, EPERM };
    EXPECT_EQ(from.SendTrain(9, 1, -1, 0), -ENOBUFS);
    EXPECT_EQ(from.SendTrain(9, 8, 4, 0), -EIO);
    EXPECT_EQ(from.SendMany({ 9, 9 }), 1);
    loopback.refusals = { EAGAIN };
    EXPECT_EQ(from.SendTrain(9, 1, -1), -EAGAIN);
    const std::vector<Fate> fates { Fate::Lost, Fate::MustComeAgain, Fate::Left, Fate::MustComeAgain,
        Fate::MustComeAgain };
    EXPECT_EQ(loopback.fates, fates);
}

TEST(KernelModel, OnAConnectedSocketNoRefusalIsTheLastWord)
{
    Loopback loopback;
    const Udp from;
    EXPECT_EQ(from.Connect(9), 0);
    EXPECT_EQ(from.Send(), 1); // whose answer refuses the next
    loopback.refusals = { 0, ENOBUFS, ENOBUFS };
    EXPECT_EQ(from.Send(), -ECONNREFUSED);
    EXPECT_EQ(from.Send(), 1);
    EXPECT_EQ(from.Error(), ECONNREFUSED);
    EXPECT_EQ(from.Send(), -ENOBUFS);
    EXPECT_EQ(from.SendTrain(9, 1, -1), -ENOBUFS);
    const std::vector<Fate> fates { Fate::Left, Fate::MustComeAgain, Fate::Left, Fate::MustComeAgain,
        Fate::MayComeAgain };
    EXPECT_EQ(loopback.fates, fates);
}

TEST(KernelModel, WithoutAWayNothingLeavesAndNothingIsConnected)
{
    Loopback loopback;
    const Udp connected;
    EXPECT_EQ(connected.Connect(9), 0);
    loopback.sockets.routedSourceNet = 0;
    const Udp other;
    EXPECT_EQ(other.Connect(9), -ENETUNREACH);
    EXPECT_EQ(other.Send(), -EDESTADDRREQ);
    EXPECT_EQ(other.SendTrain(9, 1, -1), -ENETUNREACH);
    EXPECT_EQ(connected.Send(), -ENETUNREACH);
}

TEST(KernelModel, ASourceAddressThatThisMachineHasNoMoreSendsNothingUnlessAnotherIsChosen)
{
    Loopback loopback;
    const Udp from;
    EXPECT_EQ(from.Connect(9), 0);
    loopback.sockets.routedSourceNet = htonl(0x0A000002);
    EXPECT_EQ(from.Send(), -EINVAL);
    sockaddr_in address = LoopbackAt(9);
    iovec piece { const_cast<char*>("z"), 1 };
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr header {};
    header.msg_name = &address;
    header.msg_namelen = sizeof(address);
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    cmsghdr* first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = IPPROTO_IP;
    first->cmsg_type = IP_PKTINFO;
    first->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    EXPECT_EQ(sendmsg(from.Fd(), &header, 0), 1);
    EXPECT_EQ(from.Error(), ECONNREFUSED);
    EXPECT_EQ(from.Connect(9), 0);
    EXPECT_EQ(from.Send(), 1);
}

} // namespace kernel_model
