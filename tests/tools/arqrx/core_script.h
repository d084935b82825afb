#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "arqrx/core/receiver.h"

namespace arqrx::test {

constexpr int64_t MS = 1000;
constexpr int64_t SECOND = 1'000'000;

// A media datagram as the proxy sends it.
struct Media {
    uint16_t seq = 0;
    uint32_t timestamp = 0; // 90 kHz
    uint32_t ssrc = 1;
    uint8_t payloadType = 33; // marker included
    std::string payload = "payload";

    std::vector<uint8_t> Bytes() const
    {
        std::vector<uint8_t> bytes { 0x80, payloadType, static_cast<uint8_t>(seq >> 8),
            static_cast<uint8_t>(seq) };
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<uint8_t>(timestamp >> shift));
        bytes.resize(12);
        std::memcpy(&bytes[8], &ssrc, sizeof(ssrc));
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        return bytes;
    }
};

struct Sent {
    ProxyPort port;
    std::vector<uint8_t> bytes;
    int64_t atUs;
};

struct Played {
    uint64_t number;
    int64_t dueUs;
    int64_t atUs;
    std::vector<uint8_t> datagram;
    bool isRecovered;
    uint64_t lostBefore;
    bool isRestart;
};

inline uint16_t HostWord(std::span<const uint8_t> bytes, size_t at)
{
    uint16_t word = 0;
    std::memcpy(&word, &bytes[at], sizeof(word));
    return word;
}

// The numbers that a request without tag asks for; empty for anything else.
inline std::vector<uint16_t> Asked(const Sent& sent, size_t tagBytes = 0)
{
    std::vector<uint16_t> numbers;
    if (sent.port != ProxyPort::Request || sent.bytes.size() < tagBytes + 10)
        return numbers;
    for (size_t at = tagBytes + 10; at + 1 < sent.bytes.size(); at += 2)
        numbers.push_back(HostWord(sent.bytes, at));
    return numbers;
}

// Drives a receiver: what comes out is noted, and the identity is looked at after every call.
class Script {
public:
    explicit Script(const Settings& settings = {}) : receiver(settings) {}

    void Come(const Media& media, int64_t atUs) { Come(media.Bytes(), atUs); }
    void Come(const std::vector<uint8_t>& bytes, int64_t atUs)
    {
        nowUs = atUs;
        receiver.OnDatagram(bytes, atUs);
        Draw();
    }

    // Packet `number` of a source with one packet each millisecond, on a way of no length.
    void ComeEven(int64_t number) { Come(Even(number), number * MS); }
    static Media Even(int64_t number)
    {
        return { static_cast<uint16_t>(number), static_cast<uint32_t>(number * 90), 1, 33,
            std::to_string(number) };
    }
    // The same, as the proxy sends it again.
    static Media ResendOf(int64_t number)
    {
        Media media = Even(number);
        media.payloadType = 122;
        return media;
    }
    void ComeAgain(int64_t number, int64_t atUs) { Come(ResendOf(number), atUs); }

    // Goes from wake-up to wake-up until then.
    void RunUntil(int64_t untilUs)
    {
        while (receiver.NextWakeUp().timeUs <= untilUs)
            At(std::max(receiver.NextWakeUp().timeUs, nowUs));
        At(untilUs);
    }
    void At(int64_t atUs)
    {
        nowUs = atUs;
        receiver.OnTime(atUs);
        Draw();
    }

    void Draw()
    {
        Check();
        while (auto transmit = receiver.NextTransmit()) {
            sent.push_back({ transmit->port, { transmit->bytes.begin(), transmit->bytes.end() }, nowUs });
            Check();
        }
        while (auto packet = receiver.NextPacket()) {
            played.push_back(
                { packet->number, packet->dueUs, nowUs, { packet->datagram.begin(), packet->datagram.end() },
                    packet->isRecovered, packet->lostBefore, packet->isRestart });
            Check();
        }
    }

    void Check()
    {
        const Figures& figures = receiver.Counted();
        isIdentityBroken |= figures.missing != figures.recovered + figures.lost + figures.waiting;
    }

    // All numbers asked for, in order, and when.
    std::vector<std::pair<uint16_t, int64_t>> AllAsked(size_t tagBytes = 0) const
    {
        std::vector<std::pair<uint16_t, int64_t>> all;
        for (const Sent& one : sent) {
            for (const uint16_t number : Asked(one, tagBytes))
                all.emplace_back(number, one.atUs);
        }
        return all;
    }

    std::vector<uint64_t> PlayedNumbers() const
    {
        std::vector<uint64_t> numbers;
        for (const Played& packet : played)
            numbers.push_back(packet.number & 0xFFFF);
        return numbers;
    }

    const Figures& Counted() const { return receiver.Counted(); }

    Receiver receiver;
    std::vector<Sent> sent;
    std::vector<Played> played;
    int64_t nowUs = 0;
    bool isIdentityBroken = false;
};

} // namespace arqrx::test
