#include <gtest/gtest.h>

#include "arqctl/core/channel_state.h"
#include "arqctl/core/receiver_watch.h"

namespace arqctl::channel_state_test {

Reading Up(bool hasHadInput, bool isInputGone)
{
    Reading reading;
    reading.isUp = true;
    reading.hasBeenUp = true;
    reading.hasHadInput = hasHadInput;
    reading.isInputGone = isInputGone;
    return reading;
}

TEST(ChannelAlarm, FollowsInputFromWaitingOverGoodToGoneAndBack)
{
    ChannelAlarm alarm(5);
    EXPECT_EQ(alarm.State(), ChannelState::Waiting);
    alarm.Take(Up(false, true), 10);
    EXPECT_EQ(alarm.State(), ChannelState::Waiting);
    EXPECT_EQ(alarm.SinceUs(), 5);
    alarm.Take(Up(true, false), 20);
    EXPECT_EQ(alarm.State(), ChannelState::Good);
    alarm.Take(Up(true, true), 30);
    EXPECT_EQ(alarm.State(), ChannelState::InputGone);
    alarm.Take(Up(true, true), 40);
    EXPECT_EQ(alarm.SinceUs(), 30);
    alarm.Take(Reading {}, 50);
    EXPECT_EQ(alarm.State(), ChannelState::Down);
    alarm.Take(Up(true, false), 60);
    EXPECT_EQ(alarm.State(), ChannelState::Good);
    EXPECT_EQ(alarm.SinceUs(), 60);
}

TEST(ChannelAlarm, EachStateHasANameAndASentence)
{
    ChannelAlarm alarm(0);
    EXPECT_STREQ(NameOf(alarm.State()), "waiting");
    EXPECT_EQ(alarm.Text(), "The proxy answers and has had no input yet.");
    alarm.Take(Up(true, false), 1);
    EXPECT_STREQ(NameOf(alarm.State()), "good");
    EXPECT_EQ(alarm.Text(), "Input arrives.");
    alarm.Take(Up(true, true), 1);
    EXPECT_STREQ(NameOf(alarm.State()), "input_gone");
    EXPECT_EQ(alarm.Text(), "The input is gone: nothing arrives at the proxy.");
    alarm.Take(Reading {}, 1);
    EXPECT_STREQ(NameOf(alarm.State()), "down");
    EXPECT_EQ(alarm.Text(), "The proxy does not answer.");
}

// "10.0.0.1+5" for one in the list since 5, "-" for one that is gone.
std::string TextOf(const ReceiverWatch& watch)
{
    std::string text;
    for (const WatchedReceiver& one : watch.All())
        text += one.address + (one.isReceiving ? "+" : "-") + std::to_string(one.sinceUs) + " ";
    return text;
}

TEST(ReceiverWatch, SaysSinceWhenAReceiverIsThereOrGone)
{
    ReceiverWatch watch;
    watch.Take({ "b", "a", "b" }, 1);
    EXPECT_EQ(TextOf(watch), "a+1 b+1 ");
    watch.Take({ "b" }, 2);
    watch.Take({ "b" }, 3);
    EXPECT_EQ(TextOf(watch), "a-2 b+1 ");
    watch.Take({ "a", "b" }, 4);
    EXPECT_EQ(TextOf(watch), "a+4 b+1 ");
}

TEST(ReceiverWatch, ForgetsAfterAnHour)
{
    ReceiverWatch watch;
    watch.Take({ "a" }, 1);
    watch.Take({}, 10);
    watch.Take({}, 9 + ReceiverWatch::REMEMBERED_US);
    EXPECT_EQ(TextOf(watch), "a-10 ");
    watch.Take({}, 10 + ReceiverWatch::REMEMBERED_US);
    EXPECT_EQ(TextOf(watch), "");
}

TEST(ReceiverWatch, OneThatWasDeletedOnPurposeIsNotMissed)
{
    ReceiverWatch watch;
    watch.Take({ "a", "b" }, 1);
    watch.Forget("a");
    watch.Take({ "a", "b" }, 2); // an answer from before the deletion
    watch.Take({}, 3);
    EXPECT_EQ(TextOf(watch), "b-3 ");
}

TEST(ReceiverWatch, OneThatJoinsAgainAfterItsDeletionIsMissedWhenItLeaves)
{
    ReceiverWatch watch;
    watch.Take({ "a" }, 1);
    watch.Forget("a");
    for (int64_t at = 2; at < 2 + ReceiverWatch::ANSWERS_AFTER_DELETION; at++)
        watch.Take({ "a" }, at);
    watch.Take({}, 100);
    EXPECT_EQ(TextOf(watch), "a-100 ");
}

TEST(ReceiverWatch, RemembersABoundedNumberTheNewest)
{
    ReceiverWatch watch;
    for (int number = 0; number < 1000; number++)
        watch.Take({ std::to_string(number) }, number);
    watch.Take({}, 1000);
    EXPECT_EQ(watch.All().size(), ReceiverWatch::MOST_GONE);
    EXPECT_NE(TextOf(watch).find("999-1000"), std::string::npos);
}

} // namespace arqctl::channel_state_test
