#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

TEST(DoctorBuffers, LessThanTheProxyAsksForIsAWarning)
{
    DoctorFacts facts = Healthy();
    facts.receiveBufferLimit = 524288;
    ExpectGood(CheckReceiveBufferLimit(facts), "524,288");
    facts.receiveBufferLimit = 524287;
    ExpectWarning(CheckReceiveBufferLimit(facts), "524,287", "sysctl -w net.core.rmem_max=524288");
    facts.receiveBufferLimit.reset();
    ExpectNotApplicable(CheckReceiveBufferLimit(facts));
}

TEST(DoctorBuffers, TheSocketsOwnRoomCounts)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckReceiveBuffer(facts), "1,048,576");
    facts.receiveBuffer = 1048575;
    ExpectWarning(CheckReceiveBuffer(facts), "bursts may be lost");
    EXPECT_EQ(CheckReceiveBuffer(facts).command, ""); // the limit is high: a new start is all
    facts.receiveBufferLimit = 212992;
    ExpectWarning(CheckReceiveBuffer(facts), "bursts", "sysctl -w net.core.rmem_max=524288");
    facts.receiveBuffer.reset();
    ExpectNotApplicable(CheckReceiveBuffer(facts));
}

TEST(DoctorBuffers, AQueueThatIsFullInBothLooksIsNotRead)
{
    DoctorFacts facts = Healthy();
    facts.first.input->receiveQueueBytes = 1000000;
    ExpectGood(CheckReceiveQueue(facts), "0 bytes wait");
    facts.second.input->receiveQueueBytes = 524288;
    ExpectWarning(CheckReceiveQueue(facts), "524,288 of 1,048,576 bytes wait", "arqctl -I 1 list");
    facts.second.input->receiveQueueBytes = 1000000;
    ExpectFault(CheckReceiveQueue(facts), "does not read");
    facts.second.input.reset();
    ExpectNotApplicable(CheckReceiveQueue(facts));
}

TEST(DoctorBuffers, DropsThatGrowAreAFaultAndOldOnesAWarning)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckInputDrops(facts));
    facts.second.input->drops = 3;
    ExpectFault(CheckInputDrops(facts), "just dropped 3 input datagrams, 3 since the start");
    facts.first.input->drops = 3;
    ExpectWarning(CheckInputDrops(facts), "dropped 3 input datagrams");
    facts.first.input->drops = 4; // another socket: the proxy has been started again
    ExpectWarning(CheckInputDrops(facts), "dropped 3");
    facts.first.input.reset();
    ExpectNotApplicable(CheckInputDrops(facts));
}

TEST(DoctorBuffers, DroppedPingsAndRequestsAreTold)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckRequestDrops(facts));
    facts.second.otherDrops = 9;
    ExpectFault(CheckRequestDrops(facts), "just dropped 9");
    facts.first.otherDrops = 9;
    ExpectWarning(CheckRequestDrops(facts), "dropped 9");
    facts.first.input.reset();
    ExpectNotApplicable(CheckRequestDrops(facts));
}

} // namespace arqctl::doctor_tests
