#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fan_out_fixture.h"
#include "support/send_hooks.h"

namespace test_support {

// Three streams with receivers A, B and C, and packets that are sent to them together.
template <typename Base>
class BatchTest : public Base {
protected:
    BatchTest()
    {
        (void)this->AddStreamTo("127.0.0.2", m_a);
        (void)this->AddStreamTo("127.0.0.3", m_b);
        (void)this->AddStreamTo("127.0.0.4", m_c);
    }

    void Make(const std::vector<Bytes>& packets)
    {
        for (const Bytes& bytes : packets) {
            m_packets.push_back(std::make_unique<OwnedPacket>(bytes));
            m_pointers.push_back(m_packets.back()->Get());
        }
    }
    // RTP packets with the numbers 0, 1, ... and payloads of these sizes.
    void MakeRtp(const std::vector<size_t>& payloadBytes)
    {
        std::vector<Bytes> packets;
        for (const size_t bytes : payloadBytes)
            packets.push_back(RtpPacket(static_cast<uint16_t>(packets.size()), 0, bytes));
        Make(packets);
    }
    int SendAll()
    {
        return this->m_fanOut.SendPackets(m_pointers.data(), static_cast<int32_t>(m_pointers.size()));
    }

    MyArqSendCB& Stream(int32_t index)
    {
        const StreamTable::View view(this->m_table);
        return view.At(index);
    }
    static std::vector<uint16_t> SeqsAt(Receiver& receiver)
    {
        std::vector<uint16_t> seqs;
        while (receiver.HasDatagram())
            seqs.push_back(RtpSeq(receiver.Next()));
        return seqs;
    }
    void ExpectEachGot(const std::vector<uint16_t>& seqs)
    {
        for (Receiver* receiver : { &m_a, &m_b, &m_c })
            EXPECT_EQ(SeqsAt(*receiver), seqs);
    }

    // What is sent to B, datagrams of that size or any, would have to wait.
    WatchedSends::Refusal BWaits(size_t datagramBytes = 0)
    {
        return [port = m_b.Port(), datagramBytes](const SentMessage& message) {
            const size_t bytes = message.segmentBytes != 0 ? message.segmentBytes : message.bytes.size();
            const bool isMeant = datagramBytes == 0 || bytes == datagramBytes;
            return message.port == port && !message.mayWait && isMeant ? EAGAIN : 0;
        };
    }

    // The first message to B would have to wait, and what follows it would not.
    WatchedSends::Refusal BWaitsOnce()
    {
        return [port = m_b.Port(), hasWaited = false](const SentMessage& message) mutable {
            const bool waits = message.port == port && !hasWaited;
            hasWaited = hasWaited || waits;
            return waits ? EAGAIN : 0;
        };
    }

    // A call as the receivers' letters, "*" behind those of a call that does not wait, and the number of the
    // first packet: "A*0", "B2".
    std::string Text(const SendCall& call)
    {
        std::string text;
        for (const SentMessage& message : call.messages) {
            text += message.port == m_a.Port() ? "A" : message.port == m_b.Port() ? "B" : "C";
            text += (call.flags & MSG_DONTWAIT) != 0 ? "*" : "";
            text += std::to_string(RtpSeq(message.bytes));
        }
        return text;
    }
    std::vector<std::string> CallsOf(const WatchedSends& sends)
    {
        std::vector<std::string> texts;
        for (const SendCall& call : sends.Calls())
            texts.push_back(Text(call));
        return texts;
    }

    Receiver m_a { "127.0.0.2" };
    Receiver m_b { "127.0.0.3" };
    Receiver m_c { "127.0.0.4" };
    std::vector<std::unique_ptr<OwnedPacket>> m_packets;
    std::vector<PacketBuffer*> m_pointers;
};

} // namespace test_support
