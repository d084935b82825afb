// Datagrams and time for the receiver's core. One input is a row of steps: media near the newest packet or far from it,
// any bytes, answers to what it asked and measured, time to a wake-up or beyond. After each step what comes out is
// drawn, and held against what always holds.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "arqrx/core/receiver.h"
#include "fuzz/world/input_reader.h"
#include "fuzz/world/require.h"

namespace {

using arqrx::ProxyPort;

constexpr int64_t MS = 1000;

arqrx::Settings SettingsFrom(InputReader& input)
{
    const uint8_t choice = input.Byte();
    arqrx::Settings settings;
    settings.streamId = (choice & 1) != 0 ? 0x01020304 : 0;
    settings.isPinging = (choice & 2) == 0;
    settings.isAsking = (choice & 4) == 0;
    settings.latencyUs = (choice & 8) != 0 ? 20 * MS : 600 * MS;
    settings.ringPackets = (choice & 16) != 0 ? 64 : 4096;
    settings.mostPackets = (choice & 32) != 0 ? 100 : 65'536;
    settings.proxyBitRate = (choice & 64) != 0 ? 10'737'419 : 50'000'000;
    settings.rejoinAfterUs = (choice & 128) != 0 ? 0 : 10'000 * MS;
    return settings;
}

class Play {
public:
    explicit Play(InputReader& input)
        : m_input(input),
          m_settings(SettingsFrom(input)),
          m_receiver(m_settings)
    {
    }

    void Step()
    {
        const uint8_t step = m_input.Byte();
        switch (step & 7) {
        case 0:
        case 1:
            SendRow(step >> 3);
            break;
        case 2:
            Send(Media(m_input.Word(), m_input.Long(), step >> 3));
            break;
        case 3:
            SendAnswers(step >> 3);
            break;
        case 4:
            Send(std::string(m_input.Take(step >> 3)));
            break;
        case 5:
            m_nNowUs += int64_t { step >> 3 } * int64_t { m_input.Word() };
            m_receiver.OnTime(m_nNowUs);
            break;
        case 6:
            GoToWakeUp();
            break;
        default:
            Rare(step >> 3);
        }
        Draw();
    }

    // What is left comes out once no packet can come any more, and then there is nothing to do.
    void End()
    {
        m_receiver.Leave();
        Draw();
        m_receiver.EndOfStream(m_nNowUs);
        Draw();
        while (m_receiver.NextWakeUp().timer == arqrx::Timer::PlayOut)
            GoToWakeUpAndDraw();
        Require(m_receiver.NextWakeUp().timer == arqrx::Timer::None, "nothing to do at the end");
        Require(m_receiver.Counted().waiting == 0 && m_receiver.Counted().buffered == 0,
            "nothing waits at the end");
    }

private:
    // A media datagram; `kind`: bit 0 sent again, bit 1 marker, bit 2 another source.
    static std::string Media(uint16_t seq, uint32_t timestamp, int kind)
    {
        std::string bytes(12 + 8, 'm');
        bytes[0] = static_cast<char>(0x80);
        bytes[1] = static_cast<char>(((kind & 1) != 0 ? 122 : 33) | ((kind & 2) != 0 ? 0x80 : 0));
        bytes[2] = static_cast<char>(seq >> 8);
        bytes[3] = static_cast<char>(seq);
        for (size_t i = 0; i < 4; ++i)
            bytes[4 + i] = static_cast<char>(timestamp >> (24 - 8 * i));
        std::memset(&bytes[8], (kind & 4) != 0 ? 2 : 1, 4);
        return bytes;
    }

    uint32_t Ticks() const { return static_cast<uint32_t>((m_nNowUs + m_nStepUs) * 9 / 100); }

    // Some packets in a row, one a millisecond, behind a gap; first sendings of numbers behind go back.
    void SendRow(int count)
    {
        const auto gap = static_cast<int8_t>(m_input.Byte());
        m_nSeq = static_cast<uint16_t>(m_nSeq + gap);
        for (int i = 0; i <= count; ++i) {
            m_nNowUs += MS;
            Send(Media(++m_nSeq, Ticks(), m_nSource));
            Draw();
        }
    }

    void SendAnswers(int share)
    {
        const std::vector<uint16_t> asked = std::move(m_asked);
        m_asked.clear();
        for (size_t i = 0; i < asked.size(); i += 1 + static_cast<size_t>(share) / 8) {
            const auto behind = static_cast<uint16_t>(m_nSeq - asked[i]);
            Send(Media(asked[i], Ticks() - uint32_t { behind } * 90, 1 | (share & 6)));
            Draw();
        }
    }

    void Rare(int what)
    {
        switch (what & 7) {
        case 0:
            return Send("\xDE\xAD\xBE\xEF\xBA\xBE\xFA\xCE");
        case 1:
            return Send(m_echo);
        case 2:
            m_nStepUs += static_cast<int32_t>(m_input.Long());
            return;
        case 3:
            m_nSource ^= 4;
            m_nSeq = m_input.Word();
            return;
        case 4:
            return m_receiver.EndOfStream(m_nNowUs);
        case 5:
            return m_receiver.Leave();
        case 6:
            m_nSeq = m_input.Word();
            return;
        default:
            m_nNowUs += int64_t { m_input.Long() } * MS;
            m_receiver.OnTime(m_nNowUs);
        }
    }

    void Send(const std::string& bytes)
    {
        const std::vector<uint8_t> datagram(
            bytes.begin(), bytes.end()); // of just its size: nothing behind it is read
        m_receiver.OnDatagram(datagram, m_nNowUs);
    }

    void GoToWakeUp()
    {
        const arqrx::WakeUp wakeUp = m_receiver.NextWakeUp();
        Require((wakeUp.timer == arqrx::Timer::None) == (wakeUp.timeUs == INT64_MAX),
            "a reason for each wake-up");
        if (wakeUp.timer == arqrx::Timer::None)
            return;
        m_nNowUs = std::max(m_nNowUs, wakeUp.timeUs);
        m_receiver.OnTime(m_nNowUs);
    }

    void GoToWakeUpAndDraw()
    {
        GoToWakeUp();
        Draw();
    }

    void Draw()
    {
        CheckIdentity();
        while (const auto transmit = m_receiver.NextTransmit()) {
            Look(*transmit);
            CheckIdentity();
        }
        while (const auto packet = m_receiver.NextPacket()) {
            Look(*packet);
            CheckIdentity();
        }
        if (m_bBegun)
            Require(m_receiver.NextWakeUp().timeUs > m_nNowUs, "no busy wake-ups");
        m_bBegun = m_bBegun || m_nNowUs > 0;
    }

    void CheckIdentity()
    {
        const arqrx::Figures& figures = m_receiver.Counted();
        Require(figures.missing == figures.recovered + figures.lost + figures.waiting, "the identity");
    }

    void Look(const arqrx::Packet& packet)
    {
        Require(packet.number > m_nNumber || !m_bPlayed, "in order, once");
        Require(packet.dueUs >= m_nDueUs && packet.dueUs <= m_nNowUs, "when it is due, not before");
        Require(packet.datagram.size() >= 12 && (packet.datagram[1] & 0x7F) != 122, "the type is restored");
        Require((packet.number & 0xFFFF) == (uint64_t { packet.datagram[2] } << 8 | packet.datagram[3]),
            "its own number");
        Require(packet.isRestart || !m_bPlayed || packet.number == m_nNumber + 1 + packet.lostBefore,
            "what is lost before it");
        m_bPlayed = true;
        m_nNumber = packet.number;
        m_nDueUs = packet.dueUs;
    }

    void Look(const arqrx::Transmit& transmit)
    {
        const std::vector<uint8_t> bytes(transmit.bytes.begin(), transmit.bytes.end());
        const size_t tag = m_settings.streamId == 0 ? 0 : 8;
        Require(bytes.size() <= 1536 && bytes.size() >= std::max<size_t>(tag, 4),
            "a datagram that the proxy reads whole");
        if (transmit.port == ProxyPort::Ping)
            return Require(m_settings.isPinging, "no ping when it only listens");
        Require(m_settings.isAsking, "no request when it only counts");
        if (bytes.size() < tag + 10)
            m_echo.assign(bytes.begin() + static_cast<ptrdiff_t>(tag), bytes.end());
        else
            LookAtRequest({ bytes.begin() + static_cast<ptrdiff_t>(tag), bytes.end() });
    }

    void LookAtRequest(const std::vector<uint8_t>& request)
    {
        std::vector<uint16_t> words(request.size() / 2);
        std::memcpy(words.data(), request.data(), request.size());
        Require(words.size() == size_t { words[0] } + 5 && words[0] > 0, "the true count");
        uint16_t sum = words[1];
        for (size_t i = 5; i < words.size(); ++i)
            sum = static_cast<uint16_t>(sum + words[i]);
        Require(sum == 0, "the checksum");
        m_asked.insert(m_asked.end(), words.begin() + 5, words.end());
        m_asked.resize(std::min<size_t>(m_asked.size(), 200));
    }

    InputReader& m_input;
    arqrx::Settings m_settings;
    arqrx::Receiver m_receiver;
    int64_t m_nNowUs = 0;
    int64_t m_nStepUs = 0; // of the proxy's clock
    uint16_t m_nSeq = 0;
    int m_nSource = 0;
    std::string m_echo;
    std::vector<uint16_t> m_asked;
    bool m_bBegun = false;
    bool m_bPlayed = false;
    uint64_t m_nNumber = 0;
    int64_t m_nDueUs = INT64_MIN;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_STEPS = 200;
    InputReader input(data, size);
    Play play(input);
    for (int i = 0; i < MOST_STEPS && !input.IsEmpty(); ++i)
        play.Step();
    play.End();
    return 0;
}
