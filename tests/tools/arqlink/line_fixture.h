#pragma once

#include "arqlink/core/line.h"
#include "arqlink/core/settings_text.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace arqlink {

// Settings as they are written: {{"loss", "5%"}, {"delay", "20ms"}}.
inline Settings Written(std::initializer_list<std::pair<const char*, const char*>> texts)
{
    Settings settings;
    std::string problem;
    for (const auto& [name, value] : texts)
        EXPECT_TRUE(ApplySetting(settings, name, value, problem)) << problem;
    return settings;
}

// An RTP packet with this sequence number.
inline std::vector<uint8_t> Rtp(uint16_t number, size_t sizeBytes = 200)
{
    std::vector<uint8_t> packet(sizeBytes, 0x5A);
    packet[0] = 0x80;
    packet[1] = 33;
    packet[2] = static_cast<uint8_t>(number >> 8);
    packet[3] = static_cast<uint8_t>(number);
    return packet;
}

constexpr int64_t SPACING_US = 1000;

struct Course {
    std::vector<Fate> fates;
    std::vector<Delivery> delivered; // in the order of their delivery
    Counts counts;
};

// Everything that is due by then.
inline void Drain(Line& line, int64_t nowUs, std::vector<Delivery>& delivered)
{
    Delivery delivery;
    while (line.PopDue(nowUs, delivery))
        delivered.push_back(delivery);
}

// `count` packets, one a millisecond, their cookies from 0, and then what is still under way.
inline Course Drive(uint64_t seed, const Settings& settings, size_t count, int64_t spacingUs = SPACING_US)
{
    PacketStore store;
    Line line(seed, settings, store);
    Course run;
    for (size_t i = 0; i < count; i++) {
        const int64_t nowUs = static_cast<int64_t>(i) * spacingUs;
        Drain(line, nowUs, run.delivered);
        run.fates.push_back(line.Push(Rtp(static_cast<uint16_t>(i)), nowUs, i));
    }
    while (line.NextWakeUs() != NEVER)
        Drain(line, line.NextWakeUs(), run.delivered);
    run.counts = line.Figures();
    return run;
}

} // namespace arqlink
