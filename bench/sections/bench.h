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
void MeasureHandover(Bench& bench); // from the receiving to the sending thread, and what adds to it
void MeasureTrains(Bench& bench); // what the limit of a train's length is worth
void MeasureGrowth(Bench& bench); // processor time against the number of receivers
void MeasureLatency(Bench& bench); // added, over loopback
void MeasureTopRate(Bench& bench); // the highest input rate without loss
void MeasureEncoder(Bench& bench); // a real encoder's bursts
void MeasureMemory(Bench& bench); // resident, with 50 streams
void MeasureLinks(Bench& bench); // programs whose receivers must answer, over loopback
void MeasureRequests(Bench& bench); // per retransmitted datagram
void MeasureAsking(Bench& bench); // the media's latency while receivers ask
