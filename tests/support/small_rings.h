#pragma once

#include <cstdint>

#include "arq/arq_settings.h"

namespace test_support {

// Engines and pools that are made while the object lives are small.
class SmallRings {
public:
    static constexpr int32_t PACKETS = 64;

    SmallRings() { g_nArqBufferCount = PACKETS; }
    SmallRings(const SmallRings&) = delete;
    SmallRings& operator=(const SmallRings&) = delete;
    ~SmallRings() { g_nArqBufferCount = m_nSaved; }

private:
    const int32_t m_nSaved = g_nArqBufferCount;
};

} // namespace test_support
