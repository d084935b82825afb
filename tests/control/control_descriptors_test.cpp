// The control thread's sockets when no descriptor is free.
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "control/control_context.h"
#include "control/control_thread.h"
#include "control/status_poll.h"
#include "support/captured_output.h"
#include "support/no_free_descriptor.h"
#include "support/temp_root.h"

namespace {

using namespace test_support;

const std::string NO_DESCRIPTOR = std::string(": ") + strerror(EMFILE) + "\n";

TEST(ControlDescriptors, WithoutAStatusSocketTheFlagIsClearedAndTheReasonPrinted)
{
    const TempRoot root;
    const PlainWord<int32_t> running { 1 };
    ControlContext context { running };
    context.statusFlag = 1;
    CapturedOutput output;
    {
        const NoFreeDescriptor limit;
        OpenStatusSocket(context);
    }
    EXPECT_EQ(context.statusFlag, 0);
    EXPECT_EQ(output.Err(), "Creating ARQ Status socket" + NO_DESCRIPTOR);
}

TEST(ControlDescriptors, WithoutAControlSocketTheThreadEndsAtOnceWithItsMessages)
{
    const TempRoot root;
    const PlainWord<int32_t> running { 1 };
    ControlContext context { running };
    CapturedOutput output;
    bool isUp = true;
    {
        const NoFreeDescriptor limit;
        isUp = process_request_thread(context);
    }
    EXPECT_FALSE(isUp);
    EXPECT_EQ(output.Err(), "creating socket" + NO_DESCRIPTOR + "process_request_thread: exiting\n");
}

} // namespace
