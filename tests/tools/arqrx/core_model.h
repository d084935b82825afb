#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <queue>
#include <random>
#include <set>
#include <vector>

#include "tools/arqrx/core_script.h"

namespace arqrx::test {

// Draws of one purpose: a draw more in one place leaves those elsewhere alone.
class Draws {
public:
    explicit Draws(uint64_t seed) : m_engine(seed) {}
    uint64_t Below(uint64_t end) { return m_engine() % end; }
    int64_t Between(int64_t least, int64_t most)
    {
        return least + static_cast<int64_t>(Below(static_cast<uint64_t>(most - least + 1)));
    }
    bool Happens(double share) { return static_cast<double>(Below(1'000'000)) < share * 1e6; }

private:
    std::mt19937_64 m_engine;
};

// One direction of a line.
struct LineSettings {
    double lossShare = 0;
    double doubleShare = 0;
    int64_t delayUs = 0;
    int64_t jitterUs = 0; // added to the delay, evenly distributed: packets overtake each other
};

class ModelLine {
public:
    ModelLine(const LineSettings& settings, uint64_t seed) : m_settings(settings), m_draws(seed) {}
    // When a datagram that is sent now arrives: not at all, once or twice.
    std::vector<int64_t> Arrivals(int64_t nowUs)
    {
        std::vector<int64_t> times;
        const bool isLost = m_draws.Happens(m_settings.lossShare);
        const bool isDouble = m_draws.Happens(m_settings.doubleShare);
        const int64_t first = nowUs + m_settings.delayUs + m_draws.Between(0, m_settings.jitterUs);
        const int64_t second = nowUs + m_settings.delayUs + m_draws.Between(0, m_settings.jitterUs + MS);
        if (isLost)
            return times;
        times.push_back(first);
        if (isDouble)
            times.push_back(second);
        return times;
    }

private:
    LineSettings m_settings;
    Draws m_draws;
};

// What the proxy does with requests, as docs/protocol.md tells it: ring, hold-off, age and budget.
class ModelProxy {
public:
    struct Rules {
        uint32_t ringPackets = 4096;
        uint32_t bitRate = 50'000'000;
        int64_t holdOffUs = 100 * MS;
    };

    explicit ModelProxy(const Rules& rules) : m_rules(rules) {}

    std::vector<uint8_t> SendFirst(const Media& media, int64_t nowUs)
    {
        m_ring[media.seq % m_rules.ringPackets] = { media, nowUs, INT64_MIN / 2 };
        return media.Bytes();
    }

    std::vector<std::vector<uint8_t>> Answer(const std::vector<uint8_t>& request, int64_t nowUs)
    {
        std::vector<std::vector<uint8_t>> answers;
        if (!IsGood(request))
            return answers;
        const uint32_t budget = BudgetOf(request);
        const int64_t mostAgeUs = AgeMsOf(request) * MS;
        uint32_t spent = 0;
        for (size_t at = 10; at + 1 < request.size(); at += 2) {
            Stored* stored = Find(HostWord(request, at));
            if (stored == nullptr)
                continue;
            if (nowUs - stored->resentUs < m_rules.holdOffUs) {
                ++heldOff;
                continue;
            }
            if (nowUs - stored->sentUs >= mostAgeUs) {
                ++tooOld;
                continue;
            }
            Media again = stored->media;
            again.payloadType = static_cast<uint8_t>((again.payloadType & 0x80) | 122);
            spent += static_cast<uint32_t>(again.Bytes().size());
            if (spent > budget) {
                ++overBudget;
                break;
            }
            stored->resentUs = nowUs;
            answers.push_back(again.Bytes());
        }
        return answers;
    }

    uint64_t wrongChecksum = 0;
    uint64_t notInRing = 0;
    uint64_t heldOff = 0;
    uint64_t tooOld = 0;
    uint64_t overBudget = 0;

private:
    struct Stored {
        Media media;
        int64_t sentUs = 0;
        int64_t resentUs = 0;
    };

    bool IsGood(const std::vector<uint8_t>& request)
    {
        uint16_t sum = HostWord(request, 2);
        for (size_t at = 10; at + 1 < request.size(); at += 2)
            sum = static_cast<uint16_t>(sum + HostWord(request, at));
        const bool isGood
            = sum == 0 && HostWord(request, 0) * 2U + 10 == request.size() && request.size() <= 1536;
        wrongChecksum += isGood ? 0 : 1;
        return isGood;
    }
    uint32_t BudgetOf(const std::vector<uint8_t>& request) const
    {
        const uint32_t delayMs
            = uint32_t { HostWord(request, 4) } * HostWord(request, 6) + HostWord(request, 8);
        return delayMs * m_rules.bitRate / 8000;
    }
    static int64_t AgeMsOf(const std::vector<uint8_t>& request)
    {
        return (int64_t { HostWord(request, 4) } + 1) * HostWord(request, 6) + HostWord(request, 8);
    }
    Stored* Find(uint16_t seq)
    {
        const auto place = m_ring.find(seq % m_rules.ringPackets);
        if (place == m_ring.end() || place->second.media.seq != seq) {
            ++notInRing;
            return nullptr;
        }
        return &place->second;
    }

    Rules m_rules;
    std::map<uint32_t, Stored> m_ring;
};

// A source, a proxy, a line and a receiver on one clock that jumps from event to event. What the receiver could have
// is noted beside it: a number that came before any higher one was played out.
class Model {
public:
    struct Plan {
        Settings receiver;
        ModelProxy::Rules proxy;
        LineSettings toReceiver;
        LineSettings toProxy;
        int64_t packets = 2000;
        int64_t spacingUs = MS;
        uint16_t firstSeq = 0;
        uint32_t firstTimestamp = 0;
        uint64_t seed = 1;
        std::function<int64_t(int64_t)> proxyClock = [](int64_t nowUs) { return nowUs; }; // its wall clock
    };

    explicit Model(const Plan& plan)
        : m_plan(plan),
          m_receiver(plan.receiver),
          m_proxy(plan.proxy),
          m_down(plan.toReceiver, plan.seed * 2 + 1),
          m_up(plan.toProxy, plan.seed * 2 + 2)
    {
    }

    // The whole stream, and then until nothing waits any more. False when it does not fall silent.
    bool Run()
    {
        m_nNowUs = SECOND;
        Wake();
        for (int64_t number = 0; number < m_plan.packets; ++number) {
            RunUntil(SECOND + number * m_plan.spacingUs);
            Send(number);
        }
        const int64_t endUs = m_nNowUs + m_plan.receiver.latencyUs + 5 * SECOND;
        RunUntil(endUs);
        m_receiver.Leave();
        Draw();
        RunUntil(endUs + 5 * SECOND);
        return m_events.empty() && m_receiver.NextWakeUp().timer == Timer::None;
    }

    const Figures& Counted() const { return m_receiver.Counted(); }
    const ModelProxy& Proxy() const { return m_proxy; }

    std::vector<int64_t> played; // numbers of the source
    std::vector<int64_t> dueUs;
    std::vector<int64_t> delayUs; // from sending to due, of each played
    std::vector<int64_t> restarts; // numbers with which play-out began afresh
    std::set<int64_t> couldBeHad;
    std::map<int64_t, int> tries; // requests that left for a number
    bool isIdentityBroken = false;
    bool isWrongByte = false;
    bool isWrongLoss = false; // lostBefore does not tell what is missing in between
    bool isEarly = false; // played before it was due, or due before the latency
    bool isBusy = false; // wanted to be woken although it was just awake
    bool isAskedTooSoon = false;
    bool isAskedInVain = false; // for a number outside the ring, or one that is here

private:
    struct Event {
        int64_t timeUs;
        uint64_t order;
        bool isForReceiver;
        ProxyPort port;
        std::vector<uint8_t> bytes;
        bool operator<(const Event& other) const
        {
            return timeUs != other.timeUs ? timeUs > other.timeUs : order > other.order;
        }
    };

    void RunUntil(int64_t untilUs)
    {
        for (;;) {
            const int64_t wakeUs = m_receiver.NextWakeUp().timeUs;
            const int64_t eventUs = m_events.empty() ? INT64_MAX : m_events.top().timeUs;
            if (std::min(wakeUs, eventUs) > untilUs)
                break;
            m_nNowUs = std::max(m_nNowUs, std::min(wakeUs, eventUs));
            if (eventUs <= wakeUs)
                Arrive();
            else
                Wake();
        }
        m_nNowUs = untilUs;
    }

    void Wake()
    {
        m_receiver.OnTime(m_nNowUs);
        Draw();
    }

    Media MediaOf(int64_t number) const
    {
        const auto ticks = static_cast<uint32_t>(m_clockUs.at(number) * 9 / 100);
        return { static_cast<uint16_t>(m_plan.firstSeq + number), m_plan.firstTimestamp + ticks, 7, 33,
            "packet " + std::to_string(number) };
    }

    void Send(int64_t number)
    {
        m_clockUs[number] = m_plan.proxyClock(m_nNowUs);
        m_sentUs[number] = m_nNowUs;
        m_nSent = number;
        const std::vector<uint8_t> bytes = m_proxy.SendFirst(MediaOf(number), m_nNowUs);
        Travel(m_down, true, ProxyPort::Ping, bytes);
    }

    void Travel(ModelLine& line, bool isForReceiver, ProxyPort port, const std::vector<uint8_t>& bytes)
    {
        for (const int64_t timeUs : line.Arrivals(m_nNowUs))
            m_events.push({ timeUs, m_nOrder++, isForReceiver, port, bytes });
    }

    void Arrive()
    {
        const Event event = m_events.top();
        m_events.pop();
        if (event.isForReceiver)
            return Deliver(event.bytes);
        if (event.port == ProxyPort::Ping)
            return;
        if (event.bytes.size() < 10)
            return Travel(m_down, true, ProxyPort::Ping, event.bytes);
        for (const std::vector<uint8_t>& answer : m_proxy.Answer(event.bytes, m_nNowUs))
            Travel(m_down, true, ProxyPort::Ping, answer);
    }

    // The source's number that is nearest to the newest one sent.
    int64_t NumberOf(uint16_t seq) const
    {
        const auto newest = static_cast<uint16_t>(m_plan.firstSeq + m_nSent);
        return m_nSent + static_cast<int16_t>(static_cast<uint16_t>(seq - newest));
    }

    void Deliver(const std::vector<uint8_t>& bytes)
    {
        if (bytes.size() >= 12) {
            const int64_t number = NumberOf(static_cast<uint16_t>(bytes[2] << 8 | bytes[3]));
            const bool isFirstEver = m_nFirst < 0;
            if (isFirstEver)
                m_nFirst = number;
            if (number >= m_nFirst && (played.empty() || number > played.back()))
                couldBeHad.insert(number);
            m_nNewestHere = std::max(m_nNewestHere, number);
        }
        m_receiver.OnDatagram(bytes, m_nNowUs);
        Draw();
    }

    void Check()
    {
        const Figures& figures = m_receiver.Counted();
        isIdentityBroken |= figures.missing != figures.recovered + figures.lost + figures.waiting;
    }

    void Draw()
    {
        Check();
        while (const auto transmit = m_receiver.NextTransmit()) {
            const std::vector<uint8_t> bytes(transmit->bytes.begin(), transmit->bytes.end());
            Look({ transmit->port, bytes, m_nNowUs });
            Travel(m_up, false, transmit->port, bytes);
            Check();
        }
        while (const auto packet = m_receiver.NextPacket()) {
            Take(*packet);
            Check();
        }
        isBusy |= m_receiver.NextWakeUp().timeUs <= m_nNowUs;
    }

    void Look(const Sent& sent)
    {
        for (const uint16_t seq : Asked(sent)) {
            const int64_t number = NumberOf(seq);
            const auto last = m_askedUs.find(number);
            isAskedTooSoon |= last != m_askedUs.end() && m_nNowUs - last->second < m_plan.receiver.holdOffUs;
            m_askedUs[number] = m_nNowUs;
            ++tries[number];
            isAskedInVain
                |= couldBeHad.count(number) != 0 || m_nNewestHere - number >= m_plan.receiver.ringPackets;
        }
    }

    void Take(const Packet& packet)
    {
        const int64_t number = NumberOf(static_cast<uint16_t>(packet.number));
        const std::vector<uint8_t> expected = MediaOf(number).Bytes();
        isWrongByte
            |= !std::equal(expected.begin(), expected.end(), packet.datagram.begin(), packet.datagram.end());
        if (!played.empty())
            isWrongLoss |= number != played.back() + 1 + static_cast<int64_t>(packet.lostBefore);
        isEarly
            |= packet.dueUs > m_nNowUs || packet.dueUs < m_sentUs.at(number) + m_plan.receiver.latencyUs - MS;
        played.push_back(number);
        dueUs.push_back(packet.dueUs);
        delayUs.push_back(packet.dueUs - m_sentUs.at(number));
        if (packet.isRestart)
            restarts.push_back(number);
    }

    Plan m_plan;
    Receiver m_receiver;
    ModelProxy m_proxy;
    ModelLine m_down;
    ModelLine m_up;
    std::priority_queue<Event> m_events;
    uint64_t m_nOrder = 0;
    int64_t m_nNowUs = 0;
    int64_t m_nSent = -1;
    int64_t m_nFirst = -1;
    int64_t m_nNewestHere = -1;
    std::map<int64_t, int64_t> m_clockUs;
    std::map<int64_t, int64_t> m_sentUs;
    std::map<int64_t, int64_t> m_askedUs;
};

} // namespace arqrx::test
