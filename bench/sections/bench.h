#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../support/contender.h"
#include "../support/outlet.h"
#include "settings.h"
#include "targets.h"

// What the sections share.
struct Bench {
    const Settings& settings;
    Outlet& outlet;
    std::string scratch; // a folder that goes away with the benchmark
    Targets targets;
};

// Sections: each prints its tables and adds what has a bound to the targets.
void MeasureCpu(Bench& bench); // per delivered datagram, against floors and other programs
void MeasureTrains(Bench& bench); // what the limit of a train's length is worth
void MeasureGrowth(Bench& bench); // processor time against the number of receivers
