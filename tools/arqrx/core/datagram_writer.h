#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "arqrx/core/request_window.h"

namespace arqrx {

// Writes what goes to the proxy, with the stream's tag in front if it has one. What is returned stands until the next.
class DatagramWriter {
public:
    explicit DatagramWriter(uint32_t streamId) : m_nStreamId(streamId) {}

    std::span<const uint8_t> Ping();
    std::span<const uint8_t> Leave();
    std::span<const uint8_t> Echo(uint64_t number); // the lower 40 bits come back
    // At most as many numbers as MostNumbers() says.
    std::span<const uint8_t> Request(std::span<const uint16_t> numbers, const RequestWindow& window);

private:
    static constexpr size_t MOST_BYTES = 1536; // the proxy reads no more

    uint8_t* Begin(uint32_t magic, size_t bytes);

    std::array<uint8_t, MOST_BYTES> m_bytes {};
    size_t m_nBytes = 0;
    uint32_t m_nStreamId;
};

} // namespace arqrx
