#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "arqlink/core/line.h"
#include "arqlink/core/script.h"
#include "arqrx/core/receiver.h"
#include "common/datagrams.h"
#include "common/endpoint.h"
#include "common/udp_socket.h"
#include "demo/ledger.h"

namespace demo {

// One receiver with the bad line in front of it. Everything that passes between it and the proxy goes through the line,
// both ways, and into the ledger.
//
// What the proxy sends first and what it sends again each have a line of their own with the same settings: the fate of a
// packet depends on its place in its line, so that the first sendings have the same fate on both sides, though only one
// side gets anything sent again. Threads: one.
class Station {
public:
    using PlayedOut = std::function<void(Side, std::span<const uint8_t> datagram)>;

    // `ledger` and `played` outlive it.
    Station(Side side, const std::string& script, int64_t latencyUs, Ledger& ledger, PlayedOut played);

    // On that address, any port; the proxy's ports are where its datagrams go.
    bool Open(uint32_t address, const common::Endpoint& pingPort, const common::Endpoint& requestPort);
    std::string Address() const { return common::AddressText(m_socket.Local().address); }
    const std::string& Problem() const { return m_socket.Problem(); }

    // An echo ping past the line and the receiver: it comes back once the proxy serves this address.
    void Knock();
    bool IsAnswered() const { return m_bAnswered; }

    // The source begins: the script runs from here.
    void Begin(int64_t nowUs) { m_nStartUs = nowUs; }
    // Reads all that has come.
    void OnReadable(int64_t nowUs);
    // Moves everything that is due: out of the lines, into the receiver, out of it.
    void OnTime(int64_t nowUs);
    int64_t NextWakeUs() const;

    void EndOfStream(int64_t nowUs) { m_receiver.EndOfStream(nowUs); }
    void Leave(int64_t nowUs); // past the line: it must arrive
    const arqrx::Figures& Counted() const { return m_receiver.Counted(); }
    int Fd() const { return m_socket.Fd(); }

private:
    // A direction, with the script's settings for it.
    class Path {
    public:
        Path(uint64_t seed, const std::string& script, bool isDown, arqlink::PacketStore& store);
        void Advance(int64_t elapsedUs);
        arqlink::Line line;

    private:
        arqlink::Script m_script;
        std::array<arqlink::Settings, 2> m_settings; // down, up
        bool m_bDown;
    };

    void SendTo(arqrx::ProxyPort port, std::span<const uint8_t> bytes);
    void Take(std::span<const uint8_t> datagram, int64_t nowUs);
    void Deliver(Path& path, int64_t nowUs);
    void SendOn(int64_t nowUs);
    void DrawTransmits(int64_t nowUs);
    void DrawPackets();
    int64_t Elapsed(int64_t nowUs) const { return m_nStartUs == 0 ? 0 : nowUs - m_nStartUs; }

    const Side m_side;
    Ledger& m_ledger;
    PlayedOut m_played;
    arqlink::PacketStore m_store;
    Path m_first, m_again, m_up;
    arqrx::Receiver m_receiver;
    common::UdpSocket m_socket;
    common::DatagramReader m_reader;
    std::array<common::Endpoint, 2> m_proxy; // by arqrx::ProxyPort
    arqlink::Delivery m_delivery; // its memory is used again
    int64_t m_nStartUs = 0; // 0: not yet
    bool m_bAnswered = false;
};

} // namespace demo
