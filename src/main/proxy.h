#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "input/packet_queue.h"
#include "main/instance_lock.h"
#include "main/options.h"
#include "pacing/pacer_cb.h"
#include "replicator/arq_send_replicator.h"
#include "replicator/thread_crew.h"

struct ProxyContext;

// One run of the proxy, from the command line to the exit status.
//
// Threads: main constructs it and calls Run, which delivers packets on main's thread; the input thread
// and the control thread run beside it, each with the context as its only argument.
class Proxy {
public:
    // The context outlives the proxy; clearing its run flag ends the run.
    Proxy(ProxyContext& context, int argc, char** argv);
    ~Proxy();

    // Starts up, delivers until the run flag is cleared and shuts down. Returns the exit status.
    int Run();

private:
    ParseResult StartUp();
    void PrintSettings() const;
    bool CreateReplicator();
    void LoadLibrary();
    void StartThreads();
    void CreatePacer();
    void Deliver();
    void DeliverPackets(PacketBuffer* const* packets, int32_t count);
    void WaitForThreads();
    void ShutDown();

    static void ReceiveInput(void* context);
    static void ServeControl(void* context);

    ProxyContext& m_context;
    MainSettings m_settings;
    const int m_nArgs;
    char** const m_pArgs;
    std::optional<InstanceLock> m_lock;
    std::unique_ptr<ArqSendReplicator> m_pReplicator;
    std::optional<PacketQueue> m_queue;
    std::unique_ptr<PacerCB> m_pPacerCB; // null without pacing; has a pacer otherwise
    ThreadCrew m_crew; // input and control threads
};
