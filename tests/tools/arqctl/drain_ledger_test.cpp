#include "arqctl/core/drain_ledger.h"

#include <gtest/gtest.h>

namespace {

using Left = std::vector<arqctl::DrainLedger::Left>;
using Addresses = std::vector<std::string>;

TEST(ArqctlDrainLedger, WhatWentAndDidNotComeBackIsGone)
{
    arqctl::DrainLedger ledger;
    ledger.Take({ "a", "b", "a" });
    ledger.Take({ "b" });
    ledger.Take({});
    EXPECT_EQ(ledger.Gone(), (Addresses { "a", "b" }));
    EXPECT_EQ(ledger.NotGone(), Left {});
}

TEST(ArqctlDrainLedger, WhatIsThereAgainCameBackAndWhatNeverWentDidNot)
{
    arqctl::DrainLedger ledger;
    ledger.Take({ "a", "b" });
    ledger.Take({ "b" });
    ledger.Take({ "b", "a" });
    EXPECT_EQ(ledger.NotGone(), (Left { { "a", true }, { "b", false } }));
    EXPECT_EQ(ledger.Gone(), Addresses {});
}

TEST(ArqctlDrainLedger, WhatHasComeBackOnceIsNotGoneThoughTheLastListHasItNot)
{
    arqctl::DrainLedger ledger;
    ledger.Take({ "a" });
    ledger.Take({});
    ledger.Take({ "a" });
    ledger.Take({});
    EXPECT_EQ(ledger.NotGone(), (Left { { "a", true } }));
    EXPECT_EQ(ledger.Gone(), Addresses {});
}

TEST(ArqctlDrainLedger, AReceiverThatJoinsMeanwhileIsLeftToo)
{
    arqctl::DrainLedger ledger;
    ledger.Take({ "a" });
    ledger.Take({ "c", "c" });
    EXPECT_EQ(ledger.NotGone(), (Left { { "c", false } }));
    EXPECT_EQ(ledger.Gone(), Addresses { "a" });
}

} // namespace
