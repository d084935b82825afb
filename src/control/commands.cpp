#include "control/commands.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "control/request_words.h"
#include "replicator/arq_send_replicator.h"

namespace {

using Handler
    = void (*)(ArqSendReplicator& replicator, const std::string& argument, char (&reply)[REPLY_BYTES]);

struct Command {
    std::string_view name;
    Handler handler;
};

unsigned long long Wide(uint64_t count)
{
    return count;
}

void Delete(ArqSendReplicator& replicator, const std::string& argument, char (&reply)[REPLY_BYTES])
{
    (void)replicator.DeleteStream(argument.c_str());
    (void)snprintf(reply, sizeof(reply), "OK: Deleting: %s", argument.c_str());
}

void Add(ArqSendReplicator& replicator, const std::string& argument, char (&reply)[REPLY_BYTES])
{
    (void)replicator.AddStream(argument.c_str(), 0);
    (void)snprintf(reply, sizeof(reply), "OK: Adding: %s", argument.c_str());
}

void Debug(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&/*reply*/)[REPLY_BYTES])
{
    replicator.DebugDump();
}

void AllStats(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&reply)[REPLY_BYTES])
{
    const ReceiveStats& rx = replicator.RxStats();
    const TransmitStats& tx = replicator.TxStats();
    (void)snprintf(reply, sizeof(reply),
        "RECV_PACKETS=%llu\nRECV_BITRATE=%d\nRECV_LOSS=%d\nSEND_PACKETS=%llu\nSEND_BITRATE=%d\nCLIENTS=",
        Wide(rx.m_nRxPackets), static_cast<int>(rx.m_nRxBitrate), rx.m_nRxLoss.Load(), Wide(tx.m_nTxPackets),
        static_cast<int>(tx.m_nTxBitrate));
    const size_t used = std::strlen(reply);
    (void)replicator.ListStreams(reply + used, sizeof(reply) - used);
}

void List(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&reply)[REPLY_BYTES])
{
    (void)replicator.ListStreams(reply, sizeof(reply));
}

void RxStat(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&reply)[REPLY_BYTES])
{
    const ReceiveStats& rx = replicator.RxStats();
    (void)snprintf(reply, sizeof(reply), "NET_TOTAL_PACKETS=%llu\nNET_LOSS=%d\n", Wide(rx.m_nRxPackets),
        rx.m_nRxLoss.Load());
}

void StatClear(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&reply)[REPLY_BYTES])
{
    replicator.ResetRxStats();
    replicator.ResetTxStats();
    (void)snprintf(reply, sizeof(reply), "OK: Stat Reset");
}

void RxStatClear(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&reply)[REPLY_BYTES])
{
    replicator.ResetRxStats();
    (void)snprintf(reply, sizeof(reply), "OK: Rx Stat Reset");
}

void TxStatClear(ArqSendReplicator& replicator, const std::string& /*argument*/, char (&reply)[REPLY_BYTES])
{
    replicator.ResetTxStats();
    (void)snprintf(reply, sizeof(reply), "OK: Tx Stat Reset");
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

void CarryOutCommand(ArqSendReplicator& replicator, const char* request, char (&reply)[REPLY_BYTES])
{
    std::memset(
        reply, 0, sizeof(reply)); // "List" without streams leaves it as it is: no stale text may go out
    const RequestWords words(request);
    for (const Command& command : COMMANDS) {
        if (command.name == words.Command()) {
            command.handler(replicator, std::string(words.Argument()), reply);
            return;
        }
    }
    (void)snprintf(reply, sizeof(reply), "command not implemented");
}
