#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

// Bytes that go to one descriptor in one piece.
struct LogRun {
    int fd = -1;
    std::string_view text; // in the batch's memory
};

// Texts for several descriptors in the order in which they came, in memory of a fixed size. Memory that
// was never filled was never touched.
//
// Threads: one at a time.
class LogBatch {
public:
    // `capacity` in bytes. Without memory `ok` becomes false, and nothing fits.
    LogBatch(bool& ok, size_t capacity);

    // Puts all of the text, or nothing and returns false, when fewer than `reserve` bytes would stay free.
    bool Put(int fd, std::string_view text, size_t reserve);

    // The run that starts at `*place`, which moves behind it; 0 is the first, and an empty text ends the
    // batch. Texts for one descriptor that came one behind the other are one run.
    LogRun Next(size_t* place) const;

    bool IsEmpty() const { return m_nUsed == 0; }
    void Clear();

    // What one text costs beside its own bytes, at most.
    static constexpr size_t RUN_BYTES = sizeof(int) + sizeof(size_t);

private:
    struct Head {
        size_t length;
        int fd;
    };
    Head HeadAt(size_t place) const;
    void SetHead(size_t place, const Head& head);

    std::unique_ptr<char[]> m_bytes; // each run: its head, then its text
    const size_t m_nCapacity;
    size_t m_nUsed = 0;
    size_t m_nLast = 0; // where the head of the last run is, if there is one
};
