#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "udp.h"
#include "world.h"

// A receiver's sockets, what it says, and the check of every datagram that comes to it.
//
// First sendings come in order and without a gap from the first one on until the receiver does something that
// may cost it one. A resend and an echo come only to who asked for just that. Once it is known that the proxy has
// taken its stream away, nothing comes that was sent after that.
class Receiver {
public:
    Receiver(World& world, uint8_t index, const sockaddr_in& address, uint32_t streamId);
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    virtual ~Receiver() = default;

    // Acts as its kind does; called again and again.
    virtual void Step(double now) = 0;

    // Takes some of what has come; true if there may be more.
    bool Read();

    int Socket() const { return m_current.socket.Get(); }

protected:
    void Ping();
    void SendStop();
    void Ask(const std::vector<uint64_t>& numbers, Window window);
    void Echo();
    bool IsEchoOpen() const { return m_openEchoes.count(m_nLastEcho) != 0; }

    // From another port from now on, as behind a NAT that forgot. What comes to the old one is looked at too.
    void Move();

    // The stream's life as the proxy must have it.
    void Come(); // nothing has come yet; the first packet may be any
    void ExpectFrom(uint64_t number) { m_nExpectedFrom = number; } // ... but no later one than this
    void BeLoose(bool loose)
    {
        m_bLoose = loose;
    } // gaps are right, for instance while it is deleted and comes back
    void ExpectStops(int count) { m_nStopsDue += count; }
    void BeginLeave(); // what was sent on before is still due
    void DueBefore(uint64_t number); // likewise, when it is not known when it leaves
    void HaveGone(); // known to be gone: what is sent from now on must not come
    bool HasBegun() const { return m_current.last != 0; }
    uint64_t Newest() const { return m_current.last; }
    std::string AddressText() const;

    virtual void OnFirst(uint64_t /*number*/) {}
    virtual void OnResend(uint64_t /*number*/) {}

    World& m_world;

private:
    struct Port {
        Udp socket;
        uint64_t first; // numbers of the first sendings that came to it; 0: none yet
        uint64_t last;
    };
    // How often a number was asked for and not yet sent again.
    struct Asked {
        uint32_t number; // its lower half
        uint32_t times;
    };
    static constexpr size_t NUMBERS = 65536;

    bool ReadPort(Port& port);
    void Take(const uint8_t* data, size_t size, Port& port);
    void TakeEcho(const uint8_t* data, size_t size);
    void TakeStop();
    void TakeFirst(uint64_t number, Port& port);
    void TakeResend(uint64_t number);
    bool MayFollow(uint64_t number, const Port& port);

    const uint8_t m_nIndex;
    const sockaddr_in m_address;
    const uint32_t m_nStreamId;
    Port m_current;
    std::optional<Port> m_old;
    std::vector<Asked> m_asked = std::vector<Asked>(NUMBERS);
    uint64_t m_nNewestEver = 0;
    uint64_t m_nExpectedFrom = 0;
    uint64_t m_nDueThrough = 0;
    uint64_t m_nGoneAfter = 0; // 0: not gone
    uint32_t m_nLastEcho = 0;
    std::set<uint32_t> m_openEchoes; // asked for and not yet come; many never come
    int m_nStopsDue = 0;
    bool m_bLoose = false;
};
