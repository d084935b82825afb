#pragma once

#include <string>

#include "arqrx/program/exit_status.h"
#include "arqrx/program/media_loop.h"
#include "arqrx/program/sample.h"

namespace arqrx {

// How a run ended.
struct RunEnd {
    EndReason reason = EndReason::Signal;
    ExitStatus status = ExitStatus::Good;
};

// "signal", "duration", "silence", "outputs": as JSON has it.
std::string ReasonWord(EndReason reason);

// Status and what it means, from everything that was counted.
ExitStatus StatusOf(const Sample& last, const Options& options);

// Turns figures into lines. All texts end with a line feed or are empty.
// Threads: one thread's own.
class Report {
public:
    Report() = default;
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;
    virtual ~Report() = default;

    // `wallSeconds`: of the wall clock, for the reader.
    virtual std::string Interval(const Sample& now, int64_t wallSeconds) = 0;
    virtual std::string Last(const Sample& last, const RunEnd& end, int64_t wallSeconds) = 0;
};

} // namespace arqrx
