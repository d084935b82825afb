#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "demo/gallery.h"
#include "demo/proxy.h"

namespace demo {

// Where the stream comes from and how it becomes pictures again. All of it is driven by the demo's one loop: nothing waits.
class Feed {
public:
    virtual ~Feed() = default;

    // Makes ready to send; false: Problem() says why. Before the source begins.
    virtual bool Open() = 0;
    virtual void Begin(int64_t nowUs) = 0;
    // RTP packets to send now.
    virtual std::vector<std::vector<uint8_t>> Due(int64_t nowUs) = 0;
    // When there will be more, INT64_MAX if only a descriptor tells.
    virtual int64_t NextWakeUs() const = 0;
    // No more of it: the run's time is over.
    virtual void End() = 0;

    // A payload that a side plays out, for its decoder.
    virtual void Play(Side side, std::span<const uint8_t> payload) = 0;
    // Nothing more will be played out; then Decode goes on until IsDecoded.
    virtual void EndPlay() = 0;
    // Moves what the decoders have done into the gallery.
    virtual void Decode(Gallery& gallery) = 0;
    virtual bool IsDecoded() const = 0;

    // Descriptors to wait on for reading, and for writing.
    virtual std::vector<int> ReadFds() const { return {}; }
    virtual std::vector<int> WriteFds() const { return {}; }
    // Why it cannot go on; empty while it can.
    virtual std::string Problem() { return {}; }
    virtual std::string Name() const = 0; // in a few words
    virtual int PicturesPerSecond() const { return 25; }
};

// The built-in pictures.
std::unique_ptr<Feed> MakeBuiltInFeed();

} // namespace demo
