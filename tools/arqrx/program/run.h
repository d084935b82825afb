#pragma once

#include "arqrx/program/line_printer.h"
#include "arqrx/program/media_loop.h"
#include "arqrx/program/report.h"
#include "arqrx/program/report_sender.h"

namespace arqrx {

// Keeps the signals that end a program for RunReceiver, in this thread and all that it starts; a reader that goes away
// kills nothing. Before any thread is started.
void HoldSignals();

// Figures for a server that gathers them, each second. `sender` need not be open: nothing is sent then.
struct ServerLine {
    Report& report;
    ReportSender& sender;
};

// Receives until it is over; prints figures to `figures` and news to standard error meanwhile. The media have a thread
// of their own, so that printing never holds them up.
ExitStatus RunReceiver(const Options& options, MediaParts&& parts, SampleBoard& board, Report& report,
    LinePrinter& figures, const ServerLine& server);

} // namespace arqrx
