#include "control/commands.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "control/request_words.h"
#include "replicator/arq_send_replicator.h"

namespace {

using Handler = void (*)(ArqSendReplicator& replicator, const char* argument, Reply& reply);

struct Command {
    std::string_view name;
    Handler handler;
};

// The second word as a text of its own. One that is longer than any reply is cut off: no host is called so.
struct Argument {
    explicit Argument(std::string_view word) { word.copy(text, sizeof(text) - 1); }

    char text[Reply::BYTES] = "";
};

unsigned long long Wide(uint64_t count)
{
    return count;
}

void Delete(ArqSendReplicator& replicator, const char* argument, Reply& reply)
{
    (void)replicator.DeleteStream(argument);
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Deleting: %s", argument);
}

void Add(ArqSendReplicator& replicator, const char* argument, Reply& reply)
{
    (void)replicator.AddStream(argument, 0);
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Adding: %s", argument);
}

void Debug(ArqSendReplicator& replicator, const char* /*argument*/, Reply& /*reply*/)
{
    replicator.DebugDump();
}

void AllStats(ArqSendReplicator& replicator, const char* /*argument*/, Reply& reply)
{
    const ReceiveStats& rx = replicator.RxStats();
    const TransmitStats& tx = replicator.TxStats();
    (void)snprintf(reply.text, sizeof(reply.text),
        "RECV_PACKETS=%llu\nRECV_BITRATE=%d\nRECV_LOSS=%d\nSEND_PACKETS=%llu\nSEND_BITRATE=%d\nCLIENTS=",
        Wide(rx.m_nRxPackets), static_cast<int>(rx.m_nRxBitrate), rx.m_nRxLoss.Load(), Wide(tx.m_nTxPackets),
        static_cast<int>(tx.m_nTxBitrate));
    const size_t used = std::strlen(reply.text);
    (void)replicator.ListStreams(reply.text + used, sizeof(reply.text) - used);
}

void List(ArqSendReplicator& replicator, const char* /*argument*/, Reply& reply)
{
    (void)replicator.ListStreams(reply.text, sizeof(reply.text));
}

void RxStat(ArqSendReplicator& replicator, const char* /*argument*/, Reply& reply)
{
    const ReceiveStats& rx = replicator.RxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "NET_TOTAL_PACKETS=%llu\nNET_LOSS=%d\n",
        Wide(rx.m_nRxPackets), rx.m_nRxLoss.Load());
}

void StatClear(ArqSendReplicator& replicator, const char* /*argument*/, Reply& reply)
{
    replicator.ResetRxStats();
    replicator.ResetTxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Stat Reset");
}

void RxStatClear(ArqSendReplicator& replicator, const char* /*argument*/, Reply& reply)
{
    replicator.ResetRxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Rx Stat Reset");
}

void TxStatClear(ArqSendReplicator& replicator, const char* /*argument*/, Reply& reply)
{
    replicator.ResetTxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Tx Stat Reset");
}

// Matched whole and with case: a line end sent behind a command makes it another word.
constexpr Command COMMANDS[] = {
    { "Delete", Delete },
    { "Add", Add },
    { "Debug", Debug },
    { "AllStats", AllStats },
    { "List", List },
    { "RxStat", RxStat },
    { "StatClear", StatClear },
    { "RxStatClear", RxStatClear },
    { "TxStatClear", TxStatClear },
};

} // namespace

void CarryOutCommand(ArqSendReplicator& replicator, const char* request, Reply& reply)
{
    reply.text[0] = '\0'; // "List" without streams leaves it as it is
    const RequestWords words(request);
    for (const Command& command : COMMANDS) {
        if (command.name == words.Command()) {
            command.handler(replicator, Argument(words.Argument()).text, reply);
            return;
        }
    }
    (void)snprintf(reply.text, sizeof(reply.text), "command not implemented");
}
