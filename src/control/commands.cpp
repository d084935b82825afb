#include "control/commands.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "control/request_words.h"
#include "replicator/arq_send_replicator.h"

namespace {

using Handler = void (*)(ArqSendReplicator& replicator, const std::string& argument, Reply& reply);

struct Command {
    std::string_view name;
    Handler handler;
};

unsigned long long Wide(uint64_t count)
{
    return count;
}

void Delete(ArqSendReplicator& replicator, const std::string& argument, Reply& reply)
{
    (void)replicator.DeleteStream(argument.c_str());
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Deleting: %s", argument.c_str());
}

void Add(ArqSendReplicator& replicator, const std::string& argument, Reply& reply)
{
    (void)replicator.AddStream(argument.c_str(), 0);
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Adding: %s", argument.c_str());
}

void Debug(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& /*reply*/)
{
    replicator.DebugDump();
}

void AllStats(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& reply)
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

void List(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& reply)
{
    (void)replicator.ListStreams(reply.text, sizeof(reply.text));
}

void RxStat(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& reply)
{
    const ReceiveStats& rx = replicator.RxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "NET_TOTAL_PACKETS=%llu\nNET_LOSS=%d\n",
        Wide(rx.m_nRxPackets), rx.m_nRxLoss.Load());
}

void StatClear(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& reply)
{
    replicator.ResetRxStats();
    replicator.ResetTxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Stat Reset");
}

void RxStatClear(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& reply)
{
    replicator.ResetRxStats();
    (void)snprintf(reply.text, sizeof(reply.text), "OK: Rx Stat Reset");
}

void TxStatClear(ArqSendReplicator& replicator, const std::string& /*argument*/, Reply& reply)
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
            command.handler(replicator, std::string(words.Argument()), reply);
            return;
        }
    }
    (void)snprintf(reply.text, sizeof(reply.text), "command not implemented");
}
