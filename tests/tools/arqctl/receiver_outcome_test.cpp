#include "arqctl/core/receiver_outcome.h"

#include <gtest/gtest.h>

namespace arqctl {
namespace {

using Receivers = std::vector<std::string>;

TEST(ReceiverOutcome, AnAddressIsAddedWhenItStandsThereOnceMore)
{
    const auto add = [](const Receivers& before, const Receivers& after) {
        return OutcomeOf(ReceiverAction::Add, "10.0.0.1", before, after);
    };
    EXPECT_EQ(add({}, { "10.0.0.1" }), Outcome::Done);
    EXPECT_EQ(add({ "10.0.0.1" }, { "10.0.0.1" }), Outcome::Already);
    EXPECT_EQ(
        add({ "10.0.0.1" }, { "10.0.0.1", "10.0.0.1" }), Outcome::Done); // the first one joined with an ID
    EXPECT_EQ(add({ "10.0.0.2" }, { "10.0.0.2", "10.0.0.3" }), Outcome::Refused); // another one came
    EXPECT_EQ(add({ "10.0.0.1" }, {}), Outcome::Refused); // it left in the same moment
}

TEST(ReceiverOutcome, AnAddressIsDeletedWhenItStandsThereOnceLess)
{
    const auto remove = [](const Receivers& before, const Receivers& after) {
        return OutcomeOf(ReceiverAction::Delete, "10.0.0.1", before, after);
    };
    EXPECT_EQ(remove({ "10.0.0.1" }, {}), Outcome::Done);
    EXPECT_EQ(remove({ "10.0.0.1", "10.0.0.1" }, { "10.0.0.1" }), Outcome::Done);
    EXPECT_EQ(remove({ "10.0.0.1" }, { "10.0.0.1" }), Outcome::Refused);
    EXPECT_EQ(remove({ "10.0.0.2" }, {}), Outcome::Already); // another one left
    EXPECT_EQ(remove({}, { "10.0.0.1" }), Outcome::Already);
}

TEST(ReceiverOutcome, ANameIsKnownByWhatCameOrWent)
{
    EXPECT_EQ(OutcomeOf(ReceiverAction::Add, "studio", {}, { "10.0.0.1" }), Outcome::Done);
    EXPECT_EQ(OutcomeOf(ReceiverAction::Add, "studio", { "10.0.0.1" }, { "10.0.0.1" }), Outcome::Refused);
    EXPECT_EQ(OutcomeOf(ReceiverAction::Delete, "studio", { "10.0.0.1" }, {}), Outcome::Done);
    EXPECT_EQ(OutcomeOf(ReceiverAction::Delete, "studio", { "10.0.0.1" }, { "10.0.0.1" }), Outcome::Refused);
    EXPECT_EQ(OutcomeOf(ReceiverAction::Delete, "studio", {}, {}), Outcome::Already);
}

TEST(ReceiverOutcome, EachOutcomeHasItsOwnSentenceAndOnlyARefusalAdvice)
{
    for (const ReceiverAction action : { ReceiverAction::Add, ReceiverAction::Delete }) {
        EXPECT_NE(OutcomeText(action, "a", Outcome::Done), OutcomeText(action, "a", Outcome::Already));
        EXPECT_NE(OutcomeText(action, "a", Outcome::Already), OutcomeText(action, "a", Outcome::Refused));
        EXPECT_EQ(OutcomeAdvice(action, Outcome::Done) + OutcomeAdvice(action, Outcome::Already), "");
        EXPECT_NE(OutcomeAdvice(action, Outcome::Refused), "");
    }
    EXPECT_EQ(
        OutcomeText(ReceiverAction::Delete, "10.0.0.1", Outcome::Refused), "10.0.0.1 is still in the list");
}

TEST(ReceiverOutcome, OnlyOneWordCanStandInACommand)
{
    for (const char* good : { "10.0.0.1", "studio-b.example", "a" })
        EXPECT_TRUE(IsReceiverWord(good)) << good;
    for (const char* bad : { "", "a b", " a", "a\n", "a\x7f", "10.0.0.1:5000", "::1", "caf\xc3\xa9" })
        EXPECT_FALSE(IsReceiverWord(bad)) << bad;
    EXPECT_TRUE(IsReceiverWord(std::string(253, 'a')));
    EXPECT_FALSE(IsReceiverWord(std::string(254, 'a')));
}

} // namespace
} // namespace arqctl
