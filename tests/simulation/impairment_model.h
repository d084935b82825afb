#pragma once

#include <cstdint>

namespace simulation {

// Which packets the fixed mode of the impairment withholds: after switching on `distance` - 1 packets pass, then
// `drop` are withheld and `distance` pass, again and again. The random mode draws from the C library and is only
// counted.
class ImpairmentModel {
public:
    void SwitchOff() { m_bOn = false; }
    void SwitchOn(int32_t drop, int32_t distance)
    {
        m_bOn = true;
        m_bRandom = false;
        m_nDrop = drop;
        m_nDistance = distance;
        m_nLeftToPass = distance - 1;
        m_nLeftToDrop = drop;
    }
    void SwitchOnRandom()
    {
        m_bOn = true;
        m_bRandom = true;
    }

    bool IsRandom() const { return m_bOn && m_bRandom; }

    // The next packet: whether it is withheld. Not to be asked in the random mode.
    bool Step()
    {
        if (!m_bOn)
            return false;
        if (m_nLeftToPass > 0) {
            --m_nLeftToPass;
            return false;
        }
        if (m_nLeftToDrop > 0) {
            --m_nLeftToDrop;
            return true;
        }
        m_nLeftToPass = m_nDistance - 1; // this one passes as well
        m_nLeftToDrop = m_nDrop;
        return false;
    }

private:
    bool m_bOn = false;
    bool m_bRandom = false;
    int32_t m_nDrop = 1;
    int32_t m_nDistance = 100;
    int32_t m_nLeftToPass = 0;
    int32_t m_nLeftToDrop = 0;
};

} // namespace simulation
