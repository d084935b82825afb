#pragma once

#include <string>

#include "arqrx/program/output.h"
#include "common/datagrams.h"
#include "common/udp_socket.h"

namespace arqrx {

// The stream as datagrams to one address or group. Threads: see Output.
class DatagramOutput : public Output {
public:
    // `isStripping`: the payload only.
    DatagramOutput(std::string name, bool isStripping);

    // False with the reason in `problem`, as the end of a sentence.
    bool Open(const OutputAddress& address, std::string& problem);

    void Send(std::span<const PlayedPacket> packets) override;
    void Finish(int64_t) override {}
    OutputFigures Counted() const override { return m_figures; }

private:
    void Flush();

    common::UdpSocket m_socket;
    common::DatagramWriter m_writer;
    common::Endpoint m_destination;
    const bool m_bStripping;
    OutputFigures m_figures;
};

} // namespace arqrx
