#pragma once

#include <gtest/gtest.h>

#include <string>

#include "arqctl/core/checks.h"

// What the doctor sees of a proxy in good health; each test makes one thing wrong.
namespace arqctl::doctor_tests {

constexpr uint32_t GROUP = 0xEF010101; // 239.1.1.1
constexpr int PID = 4711;

inline InterfaceFacts Ethernet(const std::string& name)
{
    return { .name = name,
        .isUp = true,
        .isRunning = true,
        .isMulticast = true,
        .isLoopback = false,
        .sourceFilter = 0,
        .groups = {} };
}

inline HeldSocket Held(uint32_t address, uint16_t port, int pid, const std::string& name = "tx_proxy")
{
    return { .socket
        = { .address = address, .port = port, .receiveQueueBytes = 0, .drops = 0, .inode = port, .user = 7 },
        .isIpv6 = false,
        .pid = pid,
        .name = name };
}

inline FileFacts Folder(uint32_t mode)
{
    return { .isFolder = true, .isSocket = false, .isReadOnly = false, .mode = mode, .user = 0, .group = 0 };
}

// 1000 packets/s of 1316 bytes.
inline CountsLook LookAt(double seconds, const UdpSocketFacts& input)
{
    CountsLook look;
    look.atUs = static_cast<int64_t>(seconds * 1e6);
    const auto packets = static_cast<uint64_t>(seconds * 1000);
    look.statistics = Statistics { .receivedPackets = packets,
        .receivedBitRate = 1328 * 8 * 1000,
        .receivedLoss = 0,
        .sentPackets = packets,
        .sentBitRate = 1328 * 8 * 1000,
        .receivers = { "10.0.0.1" } };
    look.input = input;
    look.clockOffsetUs = 1000;
    look.sourceFilterDrops = 5;
    look.closedPortDatagrams = 6;
    look.unreachableMessages = 7;
    return look;
}

inline DoctorFacts Healthy()
{
    DoctorFacts facts;
    facts.options = { .instance = 1,
        .listenPort = 5000,
        .group = "239.1.1.1",
        .idleAddress = "",
        .destinations = { "10.0.0.1" },
        .mediaPort = 5002,
        .requestPort = 5003 };
    facts.isRunning = true;
    facts.pid = PID;
    facts.state = 'S';
    facts.user = { .user = 0, .groups = { 0 }, .mayWriteAnywhere = true, .mayBindLowPorts = true };
    facts.control = { .path = "/dev/arq_tx_ctrl1",
        .state = ControlState::Answers,
        .file = FileFacts {
            .isFolder = false, .isSocket = true, .isReadOnly = false, .mode = 0755, .user = 0, .group = 0 } };
    facts.deviceFolder = Folder(0755);
    facts.runFolder = Folder(0755);
    facts.receiveBufferLimit = 4194304;
    facts.receiveBuffer = 1048576;
    facts.sockets = { Held(GROUP, 5000, PID), Held(0, 5002, PID), Held(0, 5003, PID), Held(0, 32124, PID) };
    facts.interfaces = { Ethernet("eth0") };
    facts.interfaces[0].groups = { GROUP };
    facts.defaultInterface = "eth0";
    facts.inputGroupInterface = "eth0";
    facts.ephemeralPorts = PortRange { 32768, 60999 };
    facts.connections = 10;
    facts.connectionsLimit = 1000;
    facts.descriptors = 12;
    facts.descriptorsLimit = 1024;
    facts.destinations = { { "10.0.0.1", { 0x0A000001 } } };
    facts.first = LookAt(10, facts.sockets[0].socket);
    facts.second = LookAt(11, facts.sockets[0].socket);
    facts.arrivals = ArrivalFacts { .input = 1000, .pingers = {} };
    facts.deliberateLoss = LossFinding { LossState::Off, LossDoubt::None, 1000, 0 };
    return facts;
}

// The same machine before the proxy starts.
inline DoctorFacts BeforeTheStart()
{
    DoctorFacts facts = Healthy();
    facts.isRunning = false;
    facts.pid = 0;
    facts.control.state = ControlState::NoFile;
    facts.control.file.reset();
    facts.sockets.clear();
    facts.interfaces[0].groups.clear();
    facts.receiveBuffer.reset();
    facts.descriptors.reset();
    facts.first = {};
    facts.second = {};
    facts.arrivals.reset();
    facts.deliberateLoss.reset();
    return facts;
}

// A finding of this verdict whose text has the words, with a way to mend it unless all is well.
inline void ExpectFinding(
    const Finding& finding, Verdict verdict, const std::string& words, const std::string& command = "")
{
    EXPECT_STREQ(VerdictText(finding.verdict), VerdictText(verdict)) << finding.text;
    EXPECT_NE(finding.text.find(words), std::string::npos) << "'" << words << "' is not in: " << finding.text;
    if (!command.empty()) {
        EXPECT_EQ(finding.command, command);
    }
    const bool isWrong = verdict == Verdict::Warning || verdict == Verdict::Fault;
    EXPECT_EQ(isWrong, !finding.advice.empty()) << finding.text;
}

inline void ExpectGood(const Finding& finding, const std::string& words = "")
{
    ExpectFinding(finding, Verdict::Good, words);
}
inline void ExpectWarning(const Finding& finding, const std::string& words, const std::string& command = "")
{
    ExpectFinding(finding, Verdict::Warning, words, command);
}
inline void ExpectFault(const Finding& finding, const std::string& words, const std::string& command = "")
{
    ExpectFinding(finding, Verdict::Fault, words, command);
}
inline void ExpectNotApplicable(const Finding& finding, const std::string& words = "")
{
    ExpectFinding(finding, Verdict::NotApplicable, words);
}

} // namespace arqctl::doctor_tests
