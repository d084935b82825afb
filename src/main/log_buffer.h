#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "main/log_batch.h"

enum class LogStream { OUTPUT, ERROR };

// The log between those who print and the one who writes: two batches, of which one is filled while the other
// is written. When the one that is filled has no room, lines are lost whole, all of them until the other one
// has been written; a line on standard error that says how many stands where they would have stood.
//
// Threads: one at a time. The batch that Take returned belongs to the caller until the next Take.
class LogBuffer {
public:
    // `capacity` of each batch, in bytes. The descriptors of standard output and standard error are borrowed.
    LogBuffer(bool& ok, size_t capacity, int outputFd, int errorFd);

    // The text may be a part of a line, or several lines.
    void Append(LogStream stream, std::string_view text);

    // Everything appended so far, oldest first.
    const LogBatch& Take();

    // True when Take would return nothing.
    bool IsEmpty() const { return m_filled->IsEmpty() && m_nLost == 0; }

private:
    // One stream, as a line on it grows.
    struct Line {
        int fd;
        bool isBegun = false; // the last byte that was kept is no line end
        bool isLost = false; // a part of the line that is being printed was lost: the rest goes too
    };
    bool Keep(Line& line, std::string_view text);
    void Lose(Line& line, std::string_view text);
    void PutNotice();

    LogBatch m_first;
    LogBatch m_second;
    LogBatch* m_filled = &m_first;
    LogBatch* m_written = &m_second;
    std::array<Line, 2> m_lines; // in the order of LogStream
    int m_nLost = 0; // lines, since the last notice
};
