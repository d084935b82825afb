#pragma once

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "arqctl/top/dialog.h"
#include "arqctl/top/view.h"

namespace arqctl::top {

// A screen with three proxies: one that loses a little, one that withholds, one whose input went away 12 s ago.
class TopView : public testing::Test {
protected:
    TopView()
    {
        m_state.clock = "14:02:31";
        m_state.nowUs = NOW_US;
        for (size_t i = 0; i < m_histories.size(); ++i)
            Live(m_histories[i], i);
        m_state.proxies = { Good("1", 0), Good("2", 1), Good("ssh:edge1/3", 2) };
        m_state.proxies[0].facts = "input 5000, media 10000, requests 7020, ring 4096";
        m_state.proxies[0].reading.rates.lost = 0.4;
        m_state.proxies[0].reading.totals.lost = 61;
        m_state.proxies[1].reading.rates.withheld = 11.2;
        m_state.proxies[1].reading.totals.withheld = 23'456;
        Reading& gone = m_state.proxies[2].reading;
        gone.isInputGone = true;
        gone.statistics.receivedBitRate = gone.statistics.sentBitRate = 0;
        gone.rates = {};
        gone.inputChangedUs = NOW_US - 12'400'000;
    }

    // A quarter of an hour of it, with a gap of 20 s.
    static void Live(RecentHistory& history, size_t place)
    {
        for (int64_t second = NOW_S - 899; second <= NOW_S; ++second) {
            const bool isSilent = place == 2 && second > NOW_S - 12;
            const double wave = isSilent ? 0 : 1 + 0.3 * std::sin(static_cast<double>(second) / 20);
            if (second > NOW_S - 120 && second <= NOW_S - 100)
                continue;
            history.Take({ 12.3e6 * wave, 24.6e6 * wave, place == 0 && second % 60 == 0 ? 3.0 : 0, 10 * wave,
                             place == 1 ? 11.2 * wave : 0 },
                second * 1'000'000);
        }
    }

    ShownProxy Good(const std::string& name, size_t place)
    {
        ShownProxy proxy;
        proxy.name = name;
        proxy.path = "/dev/arq_tx_ctrl" + name;
        proxy.history = &m_histories[place];
        Reading& reading = proxy.reading;
        reading.isUp = reading.hasBeenUp = reading.hasHadInput = true;
        reading.statistics
            = { 1'234'567, 12'345'678, 61, 2'469'134, 24'691'356, { "10.0.0.1", "192.168.100.200" } };
        reading.totals.received = 1'234'567;
        reading.totals.sent = 2'469'134;
        reading.totals.sentBeyond = 999'950;
        reading.rates = { 1172, 0, 2356, 12.4, 0 };
        reading.inputChangedUs = NOW_US - 200'000;
        return proxy;
    }

    static std::vector<std::string> Receivers(int count)
    {
        std::vector<std::string> receivers;
        for (int i = 1; i <= count; ++i)
            receivers.push_back("10.20.30." + std::to_string(i));
        return receivers;
    }

    // The rows of text and, between two bars, those of tones.
    std::string Screen(int columns, int rows, bool hasTones = false) const
    {
        const Grid grid = DrawView(m_state, columns, rows);
        EXPECT_EQ(grid.Rows(), rows);
        EXPECT_EQ(grid.Columns(), columns);
        std::string text;
        for (int row = 0; row < rows; ++row)
            text += grid.Line(row) + "\n";
        for (int row = 0; hasTones && row < rows; ++row)
            text += "|" + grid.Tones(row) + "\n";
        return text;
    }

    static constexpr int64_t NOW_S = 100'000, NOW_US = NOW_S * 1'000'000 + 300'000;
    std::array<RecentHistory, 3> m_histories;
    ViewState m_state;
};

} // namespace arqctl::top
