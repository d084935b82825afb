#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "arqrx/core/receiver.h"
#include "arqrx/core/ts_continuity.h"
#include "arqrx/program/decryption_library.h"
#include "arqrx/program/lateness.h"
#include "arqrx/program/output.h"
#include "arqrx/program/sample.h"

namespace arqrx {

// Gives packets that are due together to all outputs at once. Threads: the media thread's own.
class PlayOut {
public:
    // `decryption` may be null: packets leave as they came then.
    PlayOut(std::vector<std::unique_ptr<Output>> outputs, std::unique_ptr<DecryptionLibrary> decryption);

    // Copies the packet; it leaves with the next Flush, or before when many wait. `nowUs` tells how late it is. One that
    // cannot be decrypted is counted and leaves nowhere.
    void Add(const Packet& packet, int64_t nowUs);
    void Flush();
    // See Output::Finish.
    void Finish(int64_t patienceUs);

    // There are outputs, and not one works any more.
    bool HasNoneLeft() const;
    // Fills in what is known here.
    void Count(Sample& sample) const;

private:
    bool Decrypt(std::span<uint8_t> payload);

    std::vector<std::unique_ptr<Output>> m_outputs;
    std::unique_ptr<DecryptionLibrary> m_pDecryption;
    DecryptionFigures m_decrypted;
    std::vector<uint8_t> m_bytes; // of the packets that wait; its place in memory never changes
    std::vector<PlayedPacket> m_packets;
    size_t m_nUsed = 0; // of the bytes
    TsContinuity m_continuity;
    Lateness m_lateness;
};

} // namespace arqrx
