#include "replicator/train_send.h"

#include <sys/socket.h>

#include <cerrno>

#include "pacing/ms_clock.h"
#include "replicator/earlier_error.h"
#include "replicator/train_messages.h"
#include "replicator/train_refusals.h"

namespace {

// So often an error is taken to be about an earlier datagram, and says nothing about this train.
constexpr int MOST_ERRORS_OF_EARLIER = 2;

class TrainSender {
public:
    TrainSender(
        const DatagramTarget& target, PacketBuffer* const* packets, int32_t count, TrainRefusals& refusals)
        : m_target(target),
          m_refusals(refusals),
          m_messages(target, packets, count)
    {
    }

    TrainResult Send()
    {
        while (m_result.taken < m_messages.Packets()) {
            const int32_t count = m_messages.LayOut(m_result.taken, m_refusals);
            const int sent
                = sendmmsg(m_target.fd, m_messages.Messages(), static_cast<unsigned>(count), MSG_DONTWAIT);
            if (sent > 0)
                Take(sent);
            else if (!GoesOnAfter(errno))
                break;
        }
        return m_result;
    }

private:
    void Take(int32_t messages)
    {
        int32_t packets = 0;
        for (int32_t i = 0; i < messages; ++i)
            packets += m_messages.PacketsOf(i);
        m_result.bytes += m_messages.Bytes(m_result.taken, packets);
        m_result.taken += packets;
        m_nErrors = 0;
    }

    // Whether it is worth another call after the first message has failed.
    bool GoesOnAfter(int error)
    {
        if (error == EINTR)
            return true;
        if (error == EAGAIN) {
            m_refusals.OnFull(GetSteadyMs());
            return EndWith(TrainEnd::WouldWait);
        }
        if (m_target.isConnected && IsOfEarlierDatagram(error) && ++m_nErrors <= MOST_ERRORS_OF_EARLIER)
            return true;
        if (m_messages.PacketsOf(0) == 1)
            return EndWith(TrainEnd::Refused);
        m_refusals.OnRefused(m_messages.PieceBytesOf(0), error, GetSteadyMs());
        return true;
    }

    bool EndWith(TrainEnd end)
    {
        m_result.end = end;
        return false;
    }

    const DatagramTarget& m_target;
    TrainRefusals& m_refusals;
    TrainMessages m_messages;
    TrainResult m_result;
    int m_nErrors = 0; // since something left
};

} // namespace

TrainResult SendTrains(
    const DatagramTarget& target, PacketBuffer* const* packets, int32_t count, TrainRefusals& refusals)
{
    return TrainSender(target, packets, count, refusals).Send();
}
