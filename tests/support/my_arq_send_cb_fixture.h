#pragma once

#include <fcntl.h>

#include <memory>

#include <gtest/gtest.h>

#include "replicator/my_arq_send_cb.h"
#include "support/captured_output.h"
#include "support/loopback.h"

namespace test_support {

inline bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// Streams to a receiver on loopback; none of them stands in a table.
class MyArqSendCBTest : public testing::Test {
protected:
    // A living stream to the receiver with a socket of its own.
    std::unique_ptr<MyArqSendCB> MakeStream()
    {
        auto stream = MakeStreamWithoutSocket();
        stream->OpenSocket();
        return stream;
    }
    std::unique_ptr<MyArqSendCB> MakeStreamWithoutSocket()
    {
        auto stream
            = std::make_unique<MyArqSendCB>(m_stats, Net("127.0.0.2"), m_receiver.Port(), uint32_t { 0 });
        stream->m_bIsAlive = 1;
        return stream;
    }

    TransmitStats m_stats;
    Receiver m_receiver { "127.0.0.2" };
};

} // namespace test_support
