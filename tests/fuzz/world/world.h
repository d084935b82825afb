#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fuzz/world/datagrams.h"
#include "fuzz/world/input_reader.h"
#include "fuzz/world/kernel.h"
#include "fuzz/world/refusals.h"
#include "fuzz/world/sent_checker.h"
#include "replicator/arq_send_replicator.h"

// A whole replicator with its threads on a kernel of its own. Made once; each input begins and ends with the same
// few streams. What comes in goes the way of a datagram, from its socket on, and all that leaves is checked.
//
// Threads: one.
class World {
public:
    // How the proxy is set up.
    enum class Setup : uint8_t { Rtp, UdpInput, SharedPorts, Multicast, MulticastUdpInput };
    static constexpr uint8_t SETUPS = 5;

    static constexpr uint16_t PING_PORT = 10000; // host order, as the next
    static constexpr uint16_t REQUEST_PORT = 7020;
    static constexpr uint16_t UNICAST_PORT = 10002;
    static constexpr uint16_t INPUT_PORT = 5000;

    // The one of a set-up, entered and as it is before each input. `start` also says what older datagrams have left
    // behind in memory.
    static World& Begin(uint8_t start);
    // Back to that state; checks what is left over.
    void End();

    // Input: through SendPacket at once, or through the input's socket and queue.
    void SendMedia(std::string_view packet) { SendMedia(std::vector<std::string_view> { packet }); }
    void ReceiveMedia(std::string_view packet) { ReceiveMedia(std::vector<std::string_view> { packet }); }
    // Likewise some that come at once, MOST_TOGETHER at most.
    void SendMedia(const std::vector<std::string_view>& packets);
    void ReceiveMedia(const std::vector<std::string_view>& packets);
    // From receivers. Address and port in network order.
    void SendRequest(std::string_view datagram, in_addr_t addressNet, uint16_t portNet);
    void SendPing(std::string_view datagram, in_addr_t addressNet, uint16_t portNet);
    // A control request, as CarryOutCommand takes it.
    std::string_view Command(const char* request);

    void Advance(uint32_t ms);
    void StepWallClock(int32_t ms) { m_kernel.StepWallClock(ms); }
    // The next sends end with errors, of which the byte says how many and which.
    void FailSends(uint8_t plan);

    // Some streams have few addresses, so that inputs meet.
    static in_addr_t Address(InputReader& input);

    ArqSendReplicator& Replicator() { return *m_replicator; }
    const SentChecker& Sent() const { return m_sent; }
    Setup GetSetup() const { return m_setup; }
    bool SharesPorts() const { return m_setup == Setup::SharedPorts; }

private:
    struct Input; // the input thread's parts

    explicit World(Setup setup);
    ~World();

    void StartInput();
    void EndInput();
    void Restore();
    void RemoveAll();
    void CheckStreams();
    void NotePing(in_addr_t addressNet, uint16_t portNet, uint32_t streamId);
    void CheckPings();
    bool IsThere(const MyArqSendCB* stream) const;
    MyArqSendCB* Find(in_addr_t addressNet, uint32_t streamId) const;
    std::vector<const MyArqSendCB*> FirstReceivers() const;
    std::vector<const MyArqSendCB*> Holders() const;
    void Deliver(const std::vector<PacketBuffer*>& packets);
    std::vector<PacketBuffer*> TakeReceived(const std::vector<std::string_view>& packets);

    const Setup m_setup;
    Kernel m_kernel;
    SentChecker m_sent;
    std::unique_ptr<ArqSendReplicator> m_replicator;
    std::unique_ptr<Input> m_input;
    std::unordered_map<const MyArqSendCB*, uint64_t> m_pings; // when each learnt stream pinged last, in ms
    size_t m_nOpenAtRest = 0;
    Refusals m_refusals;
    std::unique_ptr<Kernel::Entered> m_entered;
};
