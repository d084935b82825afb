#include "control/status_poll.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "arq/arq_send.h"
#include "base/byte_order.h"
#include "base/file_path.h"
#include "control/config_file.h"
#include "control/control_context.h"
#include "control/impairment.h"
#include "control/paths.h"
#include "control/unix_address.h"
#include "pacing/ms_clock.h"
#include "replicator/arq_send_replicator.h"

namespace {

constexpr uint32_t POLL_PERIOD_MS = 1000;

bool Exists(const FilePath& path)
{
    return access(path.c_str(), F_OK) == 0;
}

// Converts the value if there is a non-empty one; the default stays otherwise.
void ReadSetting(ConfigFile& file, const char* key, int32_t* number)
{
    const char* value = file.Get(key);
    if (value != nullptr && *value != '\0')
        *number = static_cast<int32_t>(std::strtol(value, nullptr, 10));
    fprintf(stderr, "%s = %d\n", key, *number);
}

ImpairmentSettings ReadSettings(int32_t instance)
{
    ImpairmentSettings settings;
    const FilePath path = ImpairmentSettingsPath(instance);
    if (!Exists(path))
        return settings;
    ConfigFile file;
    (void)file.Load(path.c_str());
    ReadSetting(file, "min_drop", &settings.minDrop);
    ReadSetting(file, "min_dist", &settings.minDist);
    ReadSetting(file, "max_drop", &settings.maxDrop);
    ReadSetting(file, "max_dist", &settings.maxDist);
    ReadSetting(file, "mode", &settings.mode);
    return settings;
}

void ToggleImpairment(ControlContext& context)
{
    Impairment& impair = context.replicator->m_impair;
    if (impair.m_mode != IMPAIRMENT_OFF) {
        fprintf(stderr, "Impairment OFF\n");
        impair.m_mode = IMPAIRMENT_OFF;
        return;
    }
    ConfigureImpairment(impair, ReadSettings(context.instance));
    fprintf(stderr, "Impairment ON\n");
}

// Instance N reports and clears its N-th output stream.
int32_t StatusStream(const ControlContext& context)
{
    return static_cast<int32_t>(static_cast<uint32_t>(context.instance) - 1U);
}

void AnswerClearRequest(ControlContext& context)
{
    const FilePath path = ClearRequestPath(context.instance);
    if (!Exists(path))
        return;
    context.replicator->ClearStreamStats(StatusStream(context));
    (void)unlink(path.c_str());
}

void SendStatusRecord(ControlContext& context)
{
    ArqSendStats record {};
    if (context.replicator->GetStreamStats(&record, StatusStream(context)) == 0)
        return;
    // Not read by anyone, the other side's queue may fill: the poll must not wait for it.
    (void)sendto(context.statusSocket, &record, sizeof(record), MSG_DONTWAIT,
        reinterpret_cast<const sockaddr*>(&context.statusAddress), sizeof(context.statusAddress));
}

} // namespace

void PollImpairment(ControlContext& context)
{
    const uint32_t now = GetTimeMs();
    context.nextPollMs += context.clockSteps.Look(now, GetSteadyMs());
    if (TicksSince(now, context.nextPollMs) < 0)
        return;
    const FilePath toggle = ImpairmentTogglePath(context.instance);
    if (Exists(toggle)) {
        (void)unlink(toggle.c_str()); // one that stays is seen again and toggles again
        ToggleImpairment(context);
    }
    context.nextPollMs = now + POLL_PERIOD_MS;
    if (context.statusFlag == 0)
        return;
    AnswerClearRequest(context);
    SendStatusRecord(context);
}

void OpenStatusSocket(ControlContext& context)
{
    if (context.statusFlag == 0)
        return;
    context.statusSocket = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (context.statusSocket < 0) {
        perror("Creating ARQ Status socket");
        context.statusFlag = 0;
        return;
    }
    context.statusAddress = UnixAddress(StatusSocketPath(context.instance));
    fprintf(stderr, "Created ARQ TX Status Socket\n");
}
