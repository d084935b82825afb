#pragma once

#include <cstdint>

// An ArqRequest as it lies in memory. Reads only; the memory belongs to the listener's pool.
class RequestList {
public:
    // `data` holds an ArqRequest of `length` bytes, at least 10. The list may claim more numbers than the
    // datagram holds: the memory behind it must be readable for the longest list there is.
    RequestList(const uint8_t* data, int32_t length) : m_pData(data), m_nLength(length) {}

    // Whether checksum plus the 16-bit words behind the fixed part make 0 modulo 65536. Covers the bytes
    // that came, whatever the count says; a last odd byte counts as its own value.
    bool IsChecksumRight() const;

    uint32_t Count() const;
    uint16_t operator[](uint32_t index) const;

    uint16_t Retries() const;
    uint16_t IntervalMs() const;
    uint16_t ExtraMs() const;

private:
    const uint8_t* m_pData;
    int32_t m_nLength; // bytes
};
