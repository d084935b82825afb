#pragma once

#include <vector>

#include "arqctl/core/doctor_facts.h"
#include "arqctl/core/finding.h"

namespace arqctl {

// Each judges one thing and leaves the name to the table of all.

// check_process.cpp: what runs, its files and rights.
Finding CheckProcess(const DoctorFacts& facts);
Finding CheckControlSocket(const DoctorFacts& facts);
Finding CheckControlRights(const DoctorFacts& facts);
Finding CheckDeviceFolder(const DoctorFacts& facts);
Finding CheckRunFolder(const DoctorFacts& facts);
Finding CheckOpenFiles(const DoctorFacts& facts);
Finding CheckEncryption(const DoctorFacts& facts);
Finding CheckClock(const DoctorFacts& facts);

// check_ports.cpp: UDP ports, whose they are, and whether they stay so.
Finding CheckLockPort(const DoctorFacts& facts);
Finding CheckListenPort(const DoctorFacts& facts);
Finding CheckPingPort(const DoctorFacts& facts);
Finding CheckRequestPort(const DoctorFacts& facts);
Finding CheckEphemeralPorts(const DoctorFacts& facts);

// check_network.cpp: routes, interfaces, tables of the kernel.
Finding CheckListenAddress(const DoctorFacts& facts);
Finding CheckGroupRoute(const DoctorFacts& facts);
Finding CheckGroupInterface(const DoctorFacts& facts);
Finding CheckGroupJoined(const DoctorFacts& facts);
Finding CheckSourceFilter(const DoctorFacts& facts);
Finding CheckOutputRoute(const DoctorFacts& facts);
Finding CheckOutputInterfaces(const DoctorFacts& facts);
Finding CheckUnreachable(const DoctorFacts& facts);
Finding CheckClosedPorts(const DoctorFacts& facts);
Finding CheckConnections(const DoctorFacts& facts);

// check_arrivals.cpp: what reaches the machine against what reaches the proxy.
Finding CheckFirewall(const DoctorFacts& facts);
Finding CheckPings(const DoctorFacts& facts);

// check_buffers.cpp: whether the kernel has room for what comes.
Finding CheckReceiveBufferLimit(const DoctorFacts& facts);
Finding CheckReceiveBuffer(const DoctorFacts& facts);
Finding CheckInputDrops(const DoctorFacts& facts);
Finding CheckReceiveQueue(const DoctorFacts& facts);
Finding CheckRequestDrops(const DoctorFacts& facts);

// check_stream.cpp: what the proxy counts, and whom it serves.
Finding CheckInput(const DoctorFacts& facts);
Finding CheckInputLoss(const DoctorFacts& facts);
Finding CheckDeliberateLoss(const DoctorFacts& facts);
Finding CheckBitRates(const DoctorFacts& facts);
Finding CheckDestinations(const DoctorFacts& facts);
Finding CheckReceivers(const DoctorFacts& facts);

// check_sizing.cpp: options against the stream.
Finding CheckRingTime(const DoctorFacts& facts);
Finding CheckRequestBudget(const DoctorFacts& facts);
Finding CheckPacingRate(const DoctorFacts& facts);
Finding CheckPacingQuota(const DoctorFacts& facts);

// All of them with their names, in the order in which they are printed.
std::vector<Finding> Diagnose(const DoctorFacts& facts);

// Whether a user may make files in a folder, by owner, mode, rights and file system. Empty where the folder was not seen.
std::optional<bool> MayWriteIn(const std::optional<FileFacts>& folder, const UserFacts& user);

// The same for writing to a file.
bool MayWrite(const FileFacts& file, const UserFacts& user);

// What a finding is made of.
inline Finding NotApplicable(std::string text, std::string command = "")
{
    return { {}, Verdict::NotApplicable, std::move(text), {}, std::move(command) };
}
inline Finding Good(std::string text)
{
    return { {}, Verdict::Good, std::move(text), {}, {} };
}
inline Finding Warning(std::string text, std::string advice, std::string command = "")
{
    return { {}, Verdict::Warning, std::move(text), std::move(advice), std::move(command) };
}
inline Finding Fault(std::string text, std::string advice, std::string command = "")
{
    return { {}, Verdict::Fault, std::move(text), std::move(advice), std::move(command) };
}

} // namespace arqctl
