#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "arq/c_arq_send_cb.h"
#include "support/test_packets.h"

namespace test_support {

// A send callback that keeps a copy of the bytes of everything it is given, and the pointers.
//
// Threads: one at a time.
class RecordingCallback : public CArqSendCB {
public:
    int SendData(PacketBuffer* packet) override
    {
        m_pointers.push_back(packet);
        m_sent.push_back(BytesOf(*packet));
        return m_nResult;
    }

    // One entry for each datagram, in the order of sending.
    const std::vector<Bytes>& Sent() const { return m_sent; }
    const std::vector<PacketBuffer*>& Pointers() const { return m_pointers; }
    size_t Count() const { return m_sent.size(); }
    void Forget()
    {
        m_sent.clear();
        m_pointers.clear();
    }

    // What SendData answers from now on.
    void SetResult(int result) { m_nResult = result; }

private:
    std::vector<Bytes> m_sent;
    std::vector<PacketBuffer*> m_pointers;
    int m_nResult = 1;
};

// A send callback that counts and keeps nothing: it allocates nothing either.
class CountingCallback : public CArqSendCB {
public:
    int SendData(PacketBuffer* /*packet*/) override
    {
        ++m_nCount;
        return 1;
    }
    uint64_t Count() const { return m_nCount; }

private:
    uint64_t m_nCount = 0;
};

} // namespace test_support
