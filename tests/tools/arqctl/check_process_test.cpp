#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

TEST(DoctorProcess, AHealthyProxyHasOnlyGoodFindings)
{
    for (const Finding& finding : Diagnose(Healthy())) {
        EXPECT_TRUE(finding.verdict == Verdict::Good || finding.verdict == Verdict::NotApplicable)
            << finding.name << ": " << finding.text;
        EXPECT_TRUE(finding.advice.empty()) << finding.name;
    }
    EXPECT_EQ(Worst(Diagnose(Healthy())), Verdict::Good);
    EXPECT_EQ(Worst(Diagnose(BeforeTheStart())), Verdict::Good);
}

TEST(DoctorProcess, NamesAreShortAndEachStandsOnce)
{
    std::vector<std::string> names;
    for (const Finding& finding : Diagnose(Healthy())) {
        EXPECT_LE(finding.name.size(), 20U);
        EXPECT_EQ(finding.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), std::string::npos)
            << finding.name;
        EXPECT_EQ(std::count(names.begin(), names.end(), finding.name), 0) << finding.name;
        names.push_back(finding.name);
    }
}

TEST(DoctorProcess, WithoutACommandLineOnlyWhatNeedsNoneIsJudged)
{
    DoctorFacts facts = Healthy();
    facts.areOptionsKnown = false;
    facts.pid = 0;
    for (const Finding& finding : Diagnose(facts)) {
        const bool isJudged = finding.name == "control-socket" || finding.name == "control-rights"
            || finding.name == "rmem-max" || finding.name == "input" || finding.name == "bit-rates"
            || finding.name == "conntrack" || finding.name == "clock";
        EXPECT_EQ(finding.verdict == Verdict::Good, isJudged) << finding.name;
    }
}

TEST(DoctorProcess, AStoppedOneIsAFaultAndGoesOnByASignal)
{
    DoctorFacts facts = Healthy();
    facts.state = 'T';
    ExpectFault(CheckProcess(facts), "stopped", "kill -CONT 4711");
    facts.state = 'Z';
    ExpectFault(CheckProcess(facts), "ended");
    facts.state = 'D';
    ExpectWarning(CheckProcess(facts), "waits");
    facts.state = 'R';
    ExpectGood(CheckProcess(facts), "process 4711 runs as user 0");
    facts.pid = 0;
    ExpectNotApplicable(CheckProcess(facts));
    ExpectNotApplicable(CheckProcess(BeforeTheStart()), "to be started");
}

TEST(DoctorControlSocket, EachWayOfNotAnsweringHasItsFinding)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckControlSocket(facts), "/dev/arq_tx_ctrl1 answers");
    facts.control.state = ControlState::NoFile;
    ExpectFault(CheckControlSocket(facts), "is missing");
    facts.control.state = ControlState::NobodyListens;
    ExpectFault(CheckControlSocket(facts), "nobody listens");
    facts.control.state = ControlState::NotAllowed;
    ExpectWarning(CheckControlSocket(facts), "no right", "sudo arqctl doctor -I 1");
    facts.control.state = ControlState::Silent;
    ExpectFault(CheckControlSocket(facts), "does not answer in time", "ss -xp | grep /dev/arq_tx_ctrl1");
    facts.control.state = ControlState::AnotherProgram;
    ExpectFault(CheckControlSocket(facts), "is no proxy");
}

TEST(DoctorControlSocket, BeforeAStartThePathIsFreeOrLeftBehind)
{
    DoctorFacts facts = BeforeTheStart();
    ExpectGood(CheckControlSocket(facts), "is free");
    facts.control.state = ControlState::NobodyListens;
    facts.control.file = FileFacts { .isFolder = false, .isSocket = true };
    ExpectGood(CheckControlSocket(facts), "left behind");
    facts.control.file->isFolder = true;
    ExpectFault(CheckControlSocket(facts), "is a folder", "rmdir /dev/arq_tx_ctrl1");
    facts.control.state = ControlState::Answers;
    ExpectFault(CheckControlSocket(facts), "a proxy that runs answers");
}

TEST(DoctorControlSocket, OneThatAnybodyMayWriteToIsAWarning)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckControlRights(facts), "only user 0 and root");
    facts.control.file->mode = 0770;
    ExpectGood(CheckControlRights(facts), "only user 0, group 0 and root");
    facts.control.file->mode = 0777;
    ExpectWarning(CheckControlRights(facts), "any user", "chmod o-w /dev/arq_tx_ctrl1");
    facts.control.file.reset();
    ExpectNotApplicable(CheckControlRights(facts));
}

TEST(DoctorFolders, OwnerGroupAndOthersAreToldApart)
{
    const UserFacts owner { .user = 5, .groups = { 6 } }, member { .user = 8, .groups = { 9, 7 } },
        other { .user = 8, .groups = { 9 } };
    FileFacts folder = Folder(0755);
    folder.user = 5;
    folder.group = 7;
    EXPECT_EQ(MayWriteIn(folder, owner), true);
    EXPECT_EQ(MayWriteIn(folder, member), false);
    folder.mode = 0575; // the owner has less than the group
    EXPECT_EQ(MayWriteIn(folder, owner), false);
    EXPECT_EQ(MayWriteIn(folder, member), true);
    EXPECT_EQ(MayWriteIn(folder, other), false);
    folder.mode = 0557;
    EXPECT_EQ(MayWriteIn(folder, member), false);
    EXPECT_EQ(MayWriteIn(folder, other), true);
    const UserFacts root { .user = 0, .groups = {}, .mayWriteAnywhere = true };
    folder.mode = 0;
    EXPECT_EQ(MayWriteIn(folder, root), true);
    folder.isReadOnly = true;
    EXPECT_EQ(MayWriteIn(folder, root), false);
    EXPECT_EQ(MayWriteIn(std::nullopt, root), std::nullopt);
}

TEST(DoctorFolders, WithoutTheRightToDevAStartIsFaultyAndAProxyThatRunsIsWarnedAbout)
{
    DoctorFacts facts = Healthy();
    facts.user = { .user = 1000, .groups = { 1000 } };
    ExpectWarning(CheckDeviceFolder(facts), "user 1000 may not write to /dev");
    ExpectWarning(CheckRunFolder(facts), "user 1000 may not write to /var/run");
    facts.isRunning = false;
    ExpectFault(CheckDeviceFolder(facts), "user 1000 may not write to /dev");
    facts.deviceFolder.reset();
    ExpectNotApplicable(CheckDeviceFolder(facts));
}

TEST(DoctorFolders, ReadOnlyAndOpenOnesAreWarnedAbout)
{
    DoctorFacts facts = Healthy();
    facts.runFolder->isReadOnly = true;
    ExpectWarning(CheckRunFolder(facts), "read-only", "mount -o remount,rw /var/run");
    facts.deviceFolder->mode = 0777;
    ExpectWarning(CheckDeviceFolder(facts), "anybody", "chmod o-w /dev");
    facts.isRunning = false;
    ExpectWarning(CheckDeviceFolder(facts), "anybody");
    facts.deviceFolder->mode = 01777;
    ExpectGood(CheckDeviceFolder(facts));
}

TEST(DoctorOpenFiles, FiftyReceiversNeedRoom)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckOpenFiles(facts), "12 of 1,024 files are open");
    facts.descriptorsLimit = 81;
    ExpectWarning(CheckOpenFiles(facts), "50 receivers need 82", "prlimit --pid 4711 --nofile=4096");
    facts.descriptorsLimit = 82;
    ExpectGood(CheckOpenFiles(facts));
    facts.options.interfaces = 9; // 4 are used
    facts.descriptorsLimit = 231;
    ExpectWarning(CheckOpenFiles(facts), "need 232");
    facts.descriptors = 224;
    ExpectFault(CheckOpenFiles(facts), "224 of 231");
    facts.descriptorsLimit.reset();
    ExpectNotApplicable(CheckOpenFiles(facts));
    facts = BeforeTheStart();
    facts.descriptorsLimit = 10;
    ExpectWarning(CheckOpenFiles(facts), "at most 10", "ulimit -n 4096");
}

TEST(DoctorEncryption, AMissingLibraryIsAFaultWhereItIsAskedFor)
{
    DoctorFacts facts = Healthy();
    facts.isLibraryLoaded = false;
    ExpectNotApplicable(CheckEncryption(facts), "neither -z nor -Z");
    facts.options.isEncrypting = true;
    ExpectFault(CheckEncryption(facts), "the stream leaves unencrypted");
    facts.isLibraryLoaded = true;
    ExpectGood(CheckEncryption(facts), "loaded");
    facts.isLibraryLoaded.reset();
    ExpectNotApplicable(CheckEncryption(facts), "without root");
    facts.isRunning = false;
    facts.isLibraryLoaded = false;
    ExpectFault(CheckEncryption(facts), "not installed");
    facts.isLibraryLoaded = true;
    ExpectGood(CheckEncryption(facts), "installed");
}

TEST(DoctorProcess, AClockThatIsSetIsAFault)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckClock(facts));
    facts.second.clockOffsetUs = *facts.first.clockOffsetUs + 99'999; // slewed, at most
    ExpectGood(CheckClock(facts));
    facts.second.clockOffsetUs = *facts.first.clockOffsetUs + 3'000'000;
    ExpectFault(CheckClock(facts), "set forward by 3.0 s", "timedatectl");
    facts.second.clockOffsetUs = *facts.first.clockOffsetUs - 100'000;
    ExpectFault(CheckClock(facts), "set back by 0.10 s");
    ExpectNotApplicable(CheckClock(BeforeTheStart()));
}

} // namespace arqctl::doctor_tests
