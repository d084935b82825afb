#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

// The fuzzer's input, taken from the front. What is behind its end reads as 0.
class InputReader {
public:
    InputReader(const uint8_t* data, size_t size) : m_pData(data), m_nLeft(size) {}

    bool IsEmpty() const { return m_nLeft == 0; }

    uint8_t Byte()
    {
        if (m_nLeft == 0)
            return 0;
        --m_nLeft;
        return *m_pData++;
    }
    uint16_t Word()
    {
        const uint8_t low = Byte();
        return static_cast<uint16_t>(low | Byte() << 8);
    }
    uint32_t Long()
    {
        const uint32_t low = Word();
        return low | static_cast<uint32_t>(Word()) << 16;
    }

    // A length up to `most`: one byte for the short ones.
    size_t Length(size_t most)
    {
        constexpr uint8_t LONG_FORM = 0xF0;
        const uint8_t first = Byte();
        return std::min(first < LONG_FORM ? size_t { first } : size_t { Word() } % (most + 1), most);
    }

    // The next `wanted` bytes, or what is left of them.
    std::string_view Take(size_t wanted)
    {
        const size_t count = std::min(wanted, m_nLeft);
        const std::string_view piece(reinterpret_cast<const char*>(m_pData), count);
        m_pData += count;
        m_nLeft -= count;
        return piece;
    }
    std::string_view Rest() { return Take(m_nLeft); }

private:
    const uint8_t* m_pData;
    size_t m_nLeft;
};
