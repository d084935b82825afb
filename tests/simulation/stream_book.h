#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "simulation/config.h"
#include "simulation/engine_model.h"
#include "simulation/machine.h"

class MyArqSendCB;
class StreamTable;

namespace simulation {

// Ports of the proxy, host order.
constexpr uint16_t DEST_PORT = 10000;
constexpr uint16_t REQUEST_PORT = 7020;

// Who a receiver is. A receiver's ports are its own among all receivers, whatever their addresses.
struct ReceiverIdentity {
    static constexpr uint16_t FIRST_PORT = 20000;
    static constexpr uint16_t PORTS_EACH = 500; // it moves through them

    int index;
    in_addr_t addressNet;
    uint32_t streamId; // 0: none
    bool configured;
    bool readsBytes = false; // an ArqrxReceiver; the others look at numbers only

    uint16_t Port(int move) const
    {
        return static_cast<uint16_t>(FIRST_PORT + index * PORTS_EACH + move % PORTS_EACH);
    }
};

std::vector<ReceiverIdentity> MakeReceivers(const Config& config);

// One receiver's stream as it ought to be.
struct StreamModel {
    bool inTable = false;
    bool isStatic = false;
    uint16_t portNet = 0; // where its datagrams go
    uint16_t sourcePort = 0; // where they come from, host order; 0: none has been sent
    uint32_t ssrc = 0; // of built headers
    int64_t lastPingUs = 0;
    int64_t lockHeldUs = 0; // as LockHeldUs was then
    std::optional<EngineModel> engine;
};

// The book on who has a stream. It sees the proxy's table after each step of it and allows only what had a reason:
// a stream joins by a ping or by "Add", leaves by a stop message, by "Delete" or after 5 s of silence, and after
// 10 s at the latest.
class StreamBook {
public:
    static constexpr int NOBODY = -1;

    StreamBook(Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers);

    // The table to look at; null before and behind the replicator's life.
    void Watch(const StreamTable* table) { m_pTable = table; }

    // Receivers that may join or leave by what is done at the moment. ALL: at the start.
    static constexpr int ALL = -2;
    void AllowJoin(int receiver) { m_nMayJoin = receiver; }
    void AllowLeave(int receiver, bool isAllowed) { m_mayLeave[static_cast<size_t>(receiver)] = isAllowed; }

    void OnSocketMade();

    // Compares the table with the book and carries over what was allowed.
    void Compare();

    // A ping of that receiver has been served, which came at `atUs` and leaves the stream in the table.
    void OnPingServed(int receiver, uint16_t portNet, int64_t atUs);
    // A time in which the table's lock was held by a sleeper: looks at the streams were late by so much.
    void OnLockHeld(int64_t forUs) { m_nLockHeldUs += forUs; }

    // Nobody who is silent may stay for ever.
    void CheckSilent() const;
    // Whether the proxy may turn another stream away.
    bool IsFull() const;

    StreamModel& Of(int receiver) { return m_streams[static_cast<size_t>(receiver)]; }
    const StreamModel& Of(int receiver) const { return m_streams[static_cast<size_t>(receiver)]; }
    // As the proxy looks for a stream: by its ID, otherwise the one without ID at that address.
    int Find(in_addr_t addressNet, uint32_t streamId) const;
    // Receivers in the order of the table.
    const std::vector<int>& Order() const { return m_order; }
    const MyArqSendCB& Entry(size_t place) const { return *m_entries[place]; }

private:
    bool IsUnchanged() const;
    int ReceiverOf(const MyArqSendCB& entry) const;
    void Join(int receiver);
    void Leave(int receiver);

    Machine& m_machine;
    const Config& m_config;
    const std::vector<ReceiverIdentity>& m_receivers;
    const StreamTable* m_pTable = nullptr;
    std::vector<StreamModel> m_streams;
    std::vector<const MyArqSendCB*> m_entries; // as last seen, with whose they were
    std::vector<int> m_order;
    int m_nMayJoin = NOBODY;
    std::vector<bool> m_mayLeave;
    uint32_t m_nSocketSeconds = 0; // when the last socket was made
    int64_t m_nLockHeldUs = 0;
};

} // namespace simulation
