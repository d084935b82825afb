#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "demo/canvas.h"
#include "demo/mpegts_reader.h"
#include "demo/slice.h"

namespace demo {

// A picture as somebody would have seen it.
struct ShownPicture {
    uint64_t number;
    Canvas picture;
    int holes; // blocks that did not come; 0 where the decoder cannot tell
};

// The other end of TestStream: payloads of RTP packets in, pictures out, each number once and in order. What was lost
// is a hole in its picture, and a picture of which nothing came is one whole hole. Threads: one.
class PictureDecoder {
public:
    // The pictures that this payload ends: those before the one that it belongs to.
    std::vector<ShownPicture> OnPayload(std::span<const uint8_t> payload);
    // The stream is over: the last picture, if one was begun.
    std::vector<ShownPicture> Finish();

    uint64_t ContinuityErrors() const { return m_reader.ContinuityErrors(); }

private:
    void Take(const Slice& slice);
    void ShowUntil(uint32_t number);
    void Begin(uint32_t number);

    MpegTsReader m_reader;
    std::optional<ShownPicture> m_present;
    std::vector<bool> m_here; // blocks of the present picture
    std::vector<ShownPicture> m_done;
};

} // namespace demo
