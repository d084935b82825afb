#include "arqlink/relay/relay.h"

#include "common/clock.h"

#include <algorithm>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <utility>

namespace arqlink {

namespace {

constexpr size_t READ_TOGETHER = 64;
// The largest datagram has 65,507 bytes; slices that are no power of two apart do not share their places in the cache.
constexpr size_t SLICE_BYTES = 65'600;
// Half a second of 100,000 packets of usual size. The system takes the memory only as it is needed.
constexpr int SOCKET_BUFFER_BYTES = 64'000'000;
constexpr int64_t LOOK_EVERY_US = common::US_PER_SECOND;

enum class Kind : uint32_t { Listening, Upstream, Stop };

uint64_t Tag(Kind kind, size_t index)
{
    return static_cast<uint64_t>(kind) << 32 | index;
}

uint64_t Key(const common::Endpoint& endpoint)
{
    return static_cast<uint64_t>(endpoint.address) << 16 | endpoint.port;
}

// What the system has thrown away because the socket was not read in time.
uint64_t Overrun(int fd)
{
    uint32_t memory[SK_MEMINFO_VARS] = {};
    socklen_t sizeBytes = sizeof(memory);
    if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, memory, &sizeBytes) != 0)
        return 0;
    return memory[SK_MEMINFO_DROPS];
}

uint64_t LineSeed(const RelayOptions& options, uint64_t client, Way way)
{
    const uint64_t number = options.bAlike ? 0 : client;
    return Draws(options.seed, Purpose::Client).At(2 * number + (way == Way::Up ? 1 : 0));
}

} // namespace

Relay::Relay(RelayOptions options, FateLog& log)
    : m_options(std::move(options)),
      m_log(log),
      m_store(m_options.memoryBytes),
      m_reader(READ_TOGETHER, SLICE_BYTES)
{
}

bool Relay::Open(std::string& problem)
{
    if (!m_poller.Open(problem))
        return false;
    if (m_options.stopFd >= 0)
        (void)m_poller.Add(m_options.stopFd, Tag(Kind::Stop, 0));
    return TrySource(problem)
        && std::all_of(m_options.pairs.begin(), m_options.pairs.end(),
            [&](const Pair& pair) { return OpenPair(pair, problem); });
}

// Said at once, not when the first client comes.
bool Relay::TrySource(std::string& problem)
{
    common::UdpSocket socket;
    uint32_t source = 0;
    (void)m_options.sources.Take(source); // nobody has taken one yet
    const bool bGood = socket.Open() && socket.Bind({ source, 0 });
    m_options.sources.Give(source);
    problem = socket.BindProblem();
    return bGood;
}

bool Relay::OpenPair(const Pair& pair, std::string& problem)
{
    common::UdpSocket socket;
    if (!socket.Open() || !socket.Bind(pair.listen)) {
        problem = socket.BindProblem();
        return false;
    }
    socket.SetBuffers(SOCKET_BUFFER_BYTES, SOCKET_BUFFER_BYTES);
    if (!m_poller.Add(socket.Fd(), Tag(Kind::Listening, m_listening.size()))) {
        problem = "cannot wait on " + common::EndpointText(pair.listen);
        return false;
    }
    m_listening.push_back(std::move(socket));
    return true;
}

std::vector<common::Endpoint> Relay::Listening() const
{
    std::vector<common::Endpoint> endpoints;
    for (const common::UdpSocket& socket : m_listening)
        endpoints.push_back(socket.Local());
    return endpoints;
}

bool Relay::Turn(int64_t untilUs)
{
    const int count = m_poller.Wait(std::min(untilUs, NextDueUs()));
    bool bGoOn = true;
    for (int i = 0; i < count; i++) {
        const uint64_t tag = m_poller.Ready(i);
        const auto index = static_cast<size_t>(tag & 0xFFFFFFFF);
        if (tag >> 32 == static_cast<uint64_t>(Kind::Listening))
            ReadListening(index);
        else if (tag >> 32 == static_cast<uint64_t>(Kind::Upstream))
            ReadUpstream(index);
        else
            bGoOn = false;
    }
    Deliver();
    ForgetIdle(common::NowUs());
    return bGoOn;
}

void Relay::ReadListening(size_t pair)
{
    const int count = m_reader.Read(m_listening[pair].Fd());
    const int64_t nowUs = common::NowUs();
    for (int i = 0; i < count; i++) {
        Client* client = Find(m_reader.From(i), pair);
        if (!client) {
            m_past.clientsRefused++;
            continue;
        }
        client->heardUs = nowUs;
        const Fate fate = client->up.Push(m_reader.Data(i), nowUs, pair);
        if (m_log.IsOpen())
            m_log.Write(client->number, Way::Up, m_reader.Data(i), fate);
    }
}

void Relay::ReadUpstream(size_t place)
{
    Client& client = *m_clients[place];
    const int count = m_reader.Read(client.upstream.Fd());
    const int64_t nowUs = common::NowUs();
    for (int i = 0; i < count; i++) {
        size_t pair = 0;
        if (!PairOf(client, m_reader.From(i), pair)) {
            m_past.strangers++;
            continue;
        }
        const Fate fate = client.down.Push(m_reader.Data(i), nowUs, pair);
        if (m_log.IsOpen())
            m_log.Write(client.number, Way::Down, m_reader.Data(i), fate);
    }
}

Relay::Client* Relay::Find(const common::Endpoint& endpoint, size_t pair)
{
    const auto found = m_places.find(Key(endpoint));
    Client* client = found == m_places.end() ? Welcome(endpoint) : m_clients[found->second].get();
    if (client)
        client->lastPair = pair;
    return client;
}

// Null: there are as many clients as there may be, or the system refuses a socket.
Relay::Client* Relay::Welcome(const common::Endpoint& endpoint)
{
    const auto place
        = static_cast<size_t>(std::find(m_clients.begin(), m_clients.end(), nullptr) - m_clients.begin());
    if (place >= m_options.maxClients)
        return nullptr;
    const uint64_t number = m_ulClientsSeen;
    auto client = std::make_unique<Client>(
        LineSeed(m_options, number, Way::Down), LineSeed(m_options, number, Way::Up), m_options, m_store);
    client->number = number;
    client->endpoint = endpoint;
    if (!OpenUpstream(*client, place))
        return nullptr;
    m_ulClientsSeen++;
    m_places[Key(endpoint)] = place;
    if (place == m_clients.size())
        m_clients.emplace_back();
    m_clients[place] = std::move(client);
    m_news.push_back({ number, false, endpoint, m_clients[place]->upstream.Local() });
    return m_clients[place].get();
}

bool Relay::OpenUpstream(Client& client, size_t place)
{
    if (!m_options.sources.Take(client.source))
        return false;
    if (client.upstream.Open() && client.upstream.Bind({ client.source, 0 })) {
        client.upstream.SetBuffers(SOCKET_BUFFER_BYTES, SOCKET_BUFFER_BYTES);
        if (m_poller.Add(client.upstream.Fd(), Tag(Kind::Upstream, place)))
            return true;
    }
    m_options.sources.Give(client.source);
    return false;
}

// A target that has several addresses may answer from another one: then the port alone decides.
bool Relay::PairOf(const Client& client, const common::Endpoint& from, size_t& pair) const
{
    const auto& pairs = m_options.pairs;
    if (pairs[client.lastPair].target == from) {
        pair = client.lastPair;
        return true;
    }
    auto found = std::find_if(pairs.begin(), pairs.end(), [&](const Pair& p) { return p.target == from; });
    if (found == pairs.end())
        found = std::find_if(
            pairs.begin(), pairs.end(), [&](const Pair& p) { return p.target.port == from.port; });
    pair = static_cast<size_t>(found - pairs.begin());
    return found != pairs.end();
}

void Relay::Deliver()
{
    const int64_t nowUs = common::NowUs();
    for (const std::unique_ptr<Client>& client : m_clients) {
        if (!client)
            continue;
        DeliverDown(*client, nowUs);
        DeliverUp(*client, nowUs);
    }
}

// All of one client and direction go out before the next, so that what is refused is counted where it belongs.
void Relay::DeliverDown(Client& client, int64_t nowUs)
{
    while (client.down.PopDue(nowUs, m_outbox.Next()))
        m_past.down.refused += m_outbox.Send(m_listening[m_outbox.Next().cookie].Fd(), client.endpoint);
    m_past.down.refused += m_outbox.Flush();
}

void Relay::DeliverUp(Client& client, int64_t nowUs)
{
    while (client.up.PopDue(nowUs, m_outbox.Next()))
        m_past.up.refused
            += m_outbox.Send(client.upstream.Fd(), m_options.pairs[m_outbox.Next().cookie].target);
    m_past.up.refused += m_outbox.Flush();
}

int64_t Relay::NextDueUs() const
{
    int64_t dueUs = m_places.empty() ? NEVER : m_nNextLookUs;
    for (const std::unique_ptr<Client>& client : m_clients) {
        if (client)
            dueUs = std::min({ dueUs, client->down.NextWakeUs(), client->up.NextWakeUs() });
    }
    return dueUs;
}

void Relay::ForgetIdle(int64_t nowUs)
{
    if (nowUs < m_nNextLookUs)
        return;
    m_nNextLookUs = nowUs + LOOK_EVERY_US;
    for (size_t place = 0; place < m_clients.size(); place++) {
        if (m_clients[place] && nowUs - m_clients[place]->heardUs >= m_options.idleUs)
            Forget(place);
    }
}

void Relay::Forget(size_t place)
{
    Client& client = *m_clients[place];
    Add(m_past.down.counts, client.down.Figures());
    Add(m_past.up.counts, client.up.Figures());
    m_past.down.forgotten += client.down.UnderWay();
    m_past.up.forgotten += client.up.UnderWay();
    m_past.overrun += Overrun(client.upstream.Fd());
    m_options.sources.Give(client.source);
    m_places.erase(Key(client.endpoint));
    m_news.push_back({ client.number, true, client.endpoint, client.upstream.Local() });
    m_clients[place].reset();
}

void Relay::Configure(const Settings& down, const Settings& up)
{
    m_options.down = down;
    m_options.up = up;
    for (const std::unique_ptr<Client>& client : m_clients) {
        if (!client)
            continue;
        client->down.Configure(down);
        client->up.Configure(up);
    }
}

std::vector<ClientNews> Relay::TakeNews()
{
    return std::exchange(m_news, {});
}

Figures Relay::Now() const
{
    Figures figures = m_past;
    figures.clients = m_places.size();
    figures.clientsSeen = m_ulClientsSeen;
    for (const std::unique_ptr<Client>& client : m_clients) {
        if (!client)
            continue;
        Add(figures.down.counts, client->down.Figures());
        Add(figures.up.counts, client->up.Figures());
        figures.down.underWay += client->down.UnderWay();
        figures.up.underWay += client->up.UnderWay();
        figures.overrun += Overrun(client->upstream.Fd());
    }
    for (const common::UdpSocket& socket : m_listening)
        figures.overrun += Overrun(socket.Fd());
    return figures;
}

} // namespace arqlink
