#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "../support/machine_load.h"
#include "settings.h"

// The rounds of one table. A round in which other programs used the machine is taken again.
class Rounds {
public:
    // `ours`: the processes whose use of the machine is no disturbance.
    Rounds(const Settings& settings, std::vector<pid_t> ours);

    // Calls measure(number) until enough rounds counted; keep() behind each that does. After three times as
    // many as are wanted, busy rounds count as well, and Report says how many.
    void Repeat(const std::function<void(int)>& measure, const std::function<void()>& keep);

    // One line for the foot of the table.
    std::string Report() const;

private:
    const Settings& m_settings;
    LoadMeter m_meter;
    std::vector<double> m_others; // of the rounds that count
    int m_nRejected = 0;
    int m_nBusy = 0;
};
