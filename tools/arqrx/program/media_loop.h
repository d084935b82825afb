#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "arqrx/core/receiver.h"
#include "arqrx/program/media_sockets.h"
#include "arqrx/program/options.h"
#include "arqrx/program/play_out.h"
#include "arqrx/program/proxy_address.h"
#include "arqrx/program/sample_board.h"

namespace arqrx {

// Why a run ended.
enum class EndReason : uint8_t {
    Signal,
    Duration, // --duration
    Silence, // --exit-after-silence
    OutputsFailed // not one is left
};

// What a run needs of the system.
struct MediaParts {
    ProxyAddress proxy;
    MediaSockets sockets;
    std::vector<std::unique_ptr<Output>> outputs;
    std::unique_ptr<DecryptionLibrary> decryption; // null without --decrypt
    std::vector<std::string> news; // what is to be said at the start
};

// Opens what the options name. False with a sentence in `problem`. Looks names up, which can take seconds.
bool OpenMedia(const Options& options, MediaParts& parts, std::string& problem);

// Receives, repairs and plays out, on one thread that waits for nothing but time and datagrams.
// Threads: Run is the media thread; any other may call Stop.
class MediaLoop {
public:
    MediaLoop(const Options& options, MediaParts&& parts, SampleBoard& board);

    // Until Stop or an end of its own. The board has the last sample then, and is closed.
    EndReason Run();
    // Ends Run with the next turn; with --drain only a second call ends it before all is played out.
    void Stop() { m_nStops.fetch_add(1); }

private:
    void Wait();
    void Turn();
    void SendAll();
    void PlayAll();
    void LookAround();
    void Drain();
    bool IsOver(EndReason& reason) const;
    Sample Count() const;

    const Options m_options;
    SampleBoard& m_board;
    ProxyAddress m_proxy;
    MediaSockets m_sockets;
    Receiver m_receiver;
    PlayOut m_playOut;
    std::atomic<int> m_nStops { 0 };
    const int64_t m_startUs;
    int64_t m_nowUs; // of this turn
    int64_t m_lookedAroundUs = 0;
    int64_t m_mediaUs = -1; // when media came last; -1: never
    uint64_t m_nReceived = 0; // at the last look
    uint64_t m_nRejoins = 0; // at the last look
    bool m_bNoOutputLeft = false; // there were some
};

} // namespace arqrx
