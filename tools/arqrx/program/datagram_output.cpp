#include "arqrx/program/datagram_output.h"

#include <utility>

namespace arqrx {

namespace {

constexpr int SEND_BUFFER_BYTES = 4 * 1024 * 1024; // a burst after a gap was closed
constexpr int RECEIVE_BUFFER_BYTES = 4096; // nobody reads

} // namespace

DatagramOutput::DatagramOutput(std::string name, bool isStripping) : m_bStripping(isStripping)
{
    m_figures.name = std::move(name);
}

bool DatagramOutput::Open(const OutputAddress& address, std::string& problem)
{
    if (!common::LookUpEndpoint(address.hostAndPort, m_destination, problem))
        return false;
    const bool isForGroup = address.timeToLive != 1 || !address.networkInterface.empty();
    if (isForGroup && !m_destination.IsMulticast()) {
        problem = "ttl= and interface= are for a group, 224.0.0.0 to 239.255.255.255; leave them out";
        return false;
    }
    if (!m_socket.Open() || !m_socket.Bind(address.source)) {
        problem = m_socket.BindProblem();
        return false;
    }
    if (m_destination.IsMulticast()
        && !m_socket.SetGroupOutput(address.networkInterface, address.timeToLive, true)) {
        problem = m_socket.Problem() + "; see the interfaces with: ip -brief addr";
        return false;
    }
    m_socket.SetBuffers(RECEIVE_BUFFER_BYTES, SEND_BUFFER_BYTES);
    return true;
}

void DatagramOutput::Send(std::span<const PlayedPacket> packets)
{
    for (const PlayedPacket& packet : packets) {
        m_writer.Add(m_bStripping ? packet.payload : packet.datagram, m_destination);
        if (m_writer.IsFull())
            Flush();
    }
    Flush();
}

void DatagramOutput::Flush()
{
    const common::DatagramWriter::Result result = m_writer.Flush(m_socket.Fd());
    m_figures.packets += result.sent;
    m_figures.dropped += result.refused;
}

} // namespace arqrx
