#pragma once

#include "arqlink/core/line.h"
#include "arqlink/relay/fate_log.h"
#include "arqlink/relay/figures.h"
#include "arqlink/relay/outbox.h"
#include "arqlink/relay/poller.h"
#include "arqlink/relay/source_pool.h"
#include "common/datagrams.h"
#include "common/udp_socket.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace arqlink {

// Clients send to `listen`, it goes on to `target`.
struct Pair {
    common::Endpoint listen; // port 0: the system chooses
    common::Endpoint target;
};

// A client that came, or was forgotten.
struct ClientNews {
    uint64_t number = 0; // in the order in which they came, from 0
    bool bForgotten = false;
    common::Endpoint from;
    common::Endpoint upstream; // what the targets see; address 0: the one on the way to each target
};

struct RelayOptions {
    std::vector<Pair> pairs;
    Settings down;
    Settings up;
    uint64_t seed = 1;
    bool bAlike = false; // every client's line has the draws of the first one's
    size_t maxClients = 256;
    int64_t idleUs = 60'000'000; // a client that is silent for so long is forgotten
    size_t memoryBytes = 256'000'000; // of all that is under way
    SourcePool sources;
    int stopFd = -1; // readable when it is time to stop; borrowed
};

// Forwards datagrams both ways, as a NAT would: each client (address and port) has one socket upstream for all pairs, so
// that the targets hear all of one client from one address and port. What comes back goes to the client from the socket
// on which it would have sent to that target. Each client has a line of its own for each direction.
// Threads: one object is one thread's own.
class Relay {
public:
    // The log outlives the relay; one that is not open is not written.
    Relay(RelayOptions options, FateLog& log);

    // Takes the addresses. False: `problem` says what is wrong, as a sentence without its full stop.
    bool Open(std::string& problem);
    // Where clients send to, in the order of the pairs.
    std::vector<common::Endpoint> Listening() const;

    // Waits until datagrams come, one is due or the moment has come, and moves what there is to move. False: stopFd
    // became readable.
    bool Turn(int64_t untilUs);

    // From the next packet of every client on.
    void Configure(const Settings& down, const Settings& up);
    const Settings& Down() const { return m_options.down; }
    const Settings& Up() const { return m_options.up; }

    Figures Now() const;
    // Who came and went since the last call.
    std::vector<ClientNews> TakeNews();

private:
    struct Client {
        uint64_t number = 0; // as in its news
        common::Endpoint endpoint;
        common::UdpSocket upstream;
        uint32_t source = 0;
        size_t lastPair = 0;
        int64_t heardUs = 0;
        Line down;
        Line up;

        Client(uint64_t seedDown, uint64_t seedUp, const RelayOptions& options, PacketStore& store)
            : down(seedDown, options.down, store),
              up(seedUp, options.up, store)
        {
        }
    };

    bool TrySource(std::string& problem);
    bool OpenPair(const Pair& pair, std::string& problem);
    void ReadListening(size_t pair);
    void ReadUpstream(size_t place);
    Client* Find(const common::Endpoint& endpoint, size_t pair);
    Client* Welcome(const common::Endpoint& endpoint);
    bool OpenUpstream(Client& client, size_t place);
    bool PairOf(const Client& client, const common::Endpoint& from, size_t& pair) const;
    void Deliver();
    void DeliverDown(Client& client, int64_t nowUs);
    void DeliverUp(Client& client, int64_t nowUs);
    int64_t NextDueUs() const;
    void ForgetIdle(int64_t nowUs);
    void Forget(size_t place);

    RelayOptions m_options;
    FateLog& m_log;
    PacketStore m_store;
    Poller m_poller;
    common::DatagramReader m_reader;
    Outbox m_outbox;
    std::vector<common::UdpSocket> m_listening;
    std::vector<std::unique_ptr<Client>> m_clients; // by place; a free place is empty
    std::unordered_map<uint64_t, size_t> m_places; // address and port -> place
    uint64_t m_ulClientsSeen = 0;
    int64_t m_nNextLookUs = 0; // for idle clients
    std::vector<ClientNews> m_news;
    Figures m_past; // of clients that were forgotten, and what belongs to none
};

} // namespace arqlink
