#pragma once

#include <sys/un.h>

#include <cstdint>

#include "base/plain_word.h"
#include "pacing/wall_clock_steps.h"

class ArqSendReplicator;

// What the control thread and its polls work with.
//
// Threads: main fills it before the control thread starts and leaves it alone afterwards, but for the run
// flag; the control thread alone uses the rest.
struct ControlContext {
    const PlainWord<int32_t>& running; // the run's own; the thread serves while it is not 0
    int32_t instance = 1; // numbers the files and sockets, and the stream that is reported
    ArqSendReplicator* replicator = nullptr; // owned by main's run
    int32_t statusFlag = 0; // whether status records are sent; nothing sets it
    int statusSocket = 0; // a descriptor only while the status flag is set
    sockaddr_un statusAddress {};
    uint32_t nextPollMs = 0; // next impairment poll, on the millisecond clock
    WallClockSteps clockSteps {}; // the next poll moves with a clock that is set
};
