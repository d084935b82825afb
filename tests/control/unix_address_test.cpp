#include "control/unix_address.h"

#include <sys/socket.h>

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(UnixAddress, HasFamilyAndPathAndIs110BytesLong)
{
    const sockaddr_un address = UnixAddress("/dev/arq_tx_ctrl1");
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_STREQ(address.sun_path, "/dev/arq_tx_ctrl1");
    EXPECT_EQ(sizeof(address), 110U);
}

TEST(UnixAddress, APathThatIsTooLongIsCutBeforeItsTerminatingZero)
{
    EXPECT_EQ(std::string(UnixAddress(std::string(107, 'x')).sun_path), std::string(107, 'x'));
    EXPECT_EQ(std::string(UnixAddress(std::string(500, 'x')).sun_path), std::string(107, 'x'));
}

} // namespace
