#pragma once

#include <cstdint>
#include <cstring>

// Members of wire records. Each is a run of bytes (alignment 1, any offset) whose type says the byte
// order; records made of them are laid over a datagram as it stands.
//
// The bytes are read and written one by one as relaxed atomics: a record in a retransmission ring may be
// read by the thread that answers requests while the sending thread writes the packet that takes its
// place. Such a reader may see a mixture, never undefined behaviour; whoever reads there compares the
// sequence number afterwards.

class WireByte {
public:
    uint8_t Get() const { return __atomic_load_n(&m_byte, __ATOMIC_RELAXED); }
    void Set(uint8_t value) { __atomic_store_n(&m_byte, value, __ATOMIC_RELAXED); }

private:
    uint8_t m_byte;
};

// 16 bits, most significant byte first (network byte order).
class Be16 {
public:
    uint16_t Get() const { return static_cast<uint16_t>((m_bytes[0].Get() << 8) | m_bytes[1].Get()); }
    void Set(uint16_t value)
    {
        m_bytes[0].Set(static_cast<uint8_t>(value >> 8));
        m_bytes[1].Set(static_cast<uint8_t>(value));
    }

private:
    WireByte m_bytes[2];
};

// 32 bits, most significant byte first (network byte order).
class Be32 {
public:
    uint32_t Get() const
    {
        uint32_t value = 0;
        for (const WireByte& byte : m_bytes)
            value = (value << 8) | byte.Get();
        return value;
    }
    void Set(uint32_t value)
    {
        for (int i = 3; i >= 0; --i, value >>= 8)
            m_bytes[i].Set(static_cast<uint8_t>(value));
    }

private:
    WireByte m_bytes[4];
};

// 16 bits in the byte order of this machine: never swapped.
class Host16 {
public:
    uint16_t Get() const
    {
        const uint8_t bytes[2] = { m_bytes[0].Get(), m_bytes[1].Get() };
        uint16_t value = 0;
        std::memcpy(&value, bytes, sizeof(value));
        return value;
    }
    void Set(uint16_t value)
    {
        uint8_t bytes[2];
        std::memcpy(bytes, &value, sizeof(value));
        for (int i = 0; i < 2; ++i)
            m_bytes[i].Set(bytes[i]);
    }

private:
    WireByte m_bytes[2];
};

// 32 bits in the byte order of this machine: never swapped.
class Host32 {
public:
    uint32_t Get() const
    {
        const uint8_t bytes[4] = { m_bytes[0].Get(), m_bytes[1].Get(), m_bytes[2].Get(), m_bytes[3].Get() };
        uint32_t value = 0;
        std::memcpy(&value, bytes, sizeof(value));
        return value;
    }
    void Set(uint32_t value)
    {
        uint8_t bytes[4];
        std::memcpy(bytes, &value, sizeof(value));
        for (int i = 0; i < 4; ++i)
            m_bytes[i].Set(bytes[i]);
    }

private:
    WireByte m_bytes[4];
};

static_assert(sizeof(WireByte) == 1 && alignof(WireByte) == 1);
static_assert(sizeof(Be16) == 2 && alignof(Be16) == 1);
static_assert(sizeof(Be32) == 4 && alignof(Be32) == 1);
static_assert(sizeof(Host16) == 2 && alignof(Host16) == 1);
static_assert(sizeof(Host32) == 4 && alignof(Host32) == 1);

// How far a lies ahead of b on a counter that wraps; negative when it lies behind.
inline int16_t SeqDiff(uint16_t a, uint16_t b)
{
    return static_cast<int16_t>(static_cast<uint16_t>(a - b));
}

// Ticks or milliseconds from then to now on a 32-bit clock that wraps; negative when then is still ahead.
inline int32_t TicksSince(uint32_t now, uint32_t then)
{
    return static_cast<int32_t>(now - then);
}
