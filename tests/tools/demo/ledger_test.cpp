#include "demo/ledger.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "demo/verdict.h"

namespace {

using demo::Side;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int64_t LENGTH_US = 1'000'000;
constexpr int64_t LATENCY_US = 100'000;
constexpr uint16_t FIRST = 65534; // so that every story goes over the wrap

using Datagram = std::vector<uint8_t>;

// What the source sends as its packet `index`.
Datagram Sent(int index)
{
    const auto sequence = static_cast<uint16_t>(FIRST + index);
    Datagram datagram { 0x80, static_cast<uint8_t>(index % 2 == 0 ? 33 : 0x80 | 33),
        static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence), 1, 2, 3, 4, 9, 9, 9, 9 };
    for (int byte = 0; byte < 50; ++byte)
        datagram.push_back(static_cast<uint8_t>(index * 3 + byte));
    return datagram;
}

// The same as the proxy sends it: with a time of its own.
Datagram Stamped(int index)
{
    Datagram datagram = Sent(index);
    datagram[5] ^= 0xFF;
    return datagram;
}

Datagram Again(int index)
{
    Datagram datagram = Stamped(index);
    datagram[1] = static_cast<uint8_t>((datagram[1] & 0x80) | 122);
    return datagram;
}

Datagram Request(int index)
{
    const auto sequence = static_cast<uint16_t>(FIRST + index);
    return { 1, 0, 0, 0, 2, 0, 200, 0, 0, 0, static_cast<uint8_t>(sequence),
        static_cast<uint8_t>(sequence >> 8) };
}

// A run of packets 10 ms apart in which some are lost on the lines of both, and A gets those again.
class Story {
public:
    demo::Ledger ledger { LENGTH_US, LATENCY_US };

    int64_t TimeOf(int index) const { return 5'000'000 + index * 10'000; }

    void Send(int index, bool isLost)
    {
        ledger.OnSent(Sent(index), TimeOf(index));
        for (const Side side : demo::SIDES) {
            ledger.OnFromProxy(side, Stamped(index), !isLost);
            if (!isLost)
                ledger.OnDelivered(side, Stamped(index), TimeOf(index) + 1000);
        }
    }
    // A asks `times` times, of which `seen` reach the proxy; it answers each of these `answers` times, `arrive` of which come.
    void AskAgain(int index, int times, int seen, int answered, bool arrives)
    {
        for (int time = 0; time < times; ++time)
            ledger.OnRequest(Side::A, Request(index), time < seen);
        for (int time = 0; time < answered; ++time)
            ledger.OnFromProxy(Side::A, Again(index), arrives);
        if (arrives)
            ledger.OnDelivered(Side::A, Again(index), TimeOf(index) + 50'000);
    }
    void Play(Side side, int index) { ledger.OnPlayed(side, Stamped(index)); }

    // Packet 2 is lost on both lines; A gets it again.
    void Good()
    {
        for (int index = 0; index < 5; ++index)
            Send(index, index == 2);
        AskAgain(2, 1, 1, 1, true);
        for (int index = 0; index < 5; ++index) {
            Play(Side::A, index);
            if (index != 2)
                Play(Side::B, index);
        }
        ledger.Finish();
    }
};

// All is well but for what A does with packet 2.
std::vector<std::string> FaultsWhen(const std::function<void(Story&)>& two)
{
    Story story;
    for (int index = 0; index < 5; ++index)
        story.Send(index, index == 2 || index == 1);
    story.AskAgain(1, 1, 1, 1, true);
    story.Play(Side::A, 0);
    story.Play(Side::B, 0);
    story.Play(Side::A, 1);
    two(story);
    for (int index = 3; index < 5; ++index)
        for (const Side side : demo::SIDES)
            story.Play(side, index);
    story.ledger.Finish();
    return demo::Faults(story.ledger);
}

} // namespace

TEST(Verdict, ARunInWhichAGetsBackWhatBLosesIsGood)
{
    Story story;
    story.Good();
    EXPECT_THAT(demo::Faults(story.ledger), IsEmpty());
    EXPECT_EQ(demo::Summary(story.ledger),
        "A recovered 1 of 1 missing packets, each sent again as payload type 122, restored to 33 and byte for byte what "
        "the source sent; B lost 1 of 1");
    const demo::Losses& a = story.ledger.Past().All()[0].sides[0];
    EXPECT_EQ(a, (demo::Losses { .missing = 1, .recovered = 1, .lost = 0 }));
    const demo::Losses& b = story.ledger.Past().All()[0].sides[1];
    EXPECT_EQ(b, (demo::Losses { .missing = 1, .recovered = 0, .lost = 1 }));
}

TEST(Verdict, ASourceThatSendsNothingProvesNothing)
{
    EXPECT_THAT(demo::Faults(demo::Ledger(LENGTH_US, LATENCY_US)), ElementsAre("the source sent nothing"));
}

TEST(Verdict, NoLossOnBProvesNothing)
{
    Story story;
    for (int index = 0; index < 3; ++index) {
        story.Send(index, false);
        story.Play(Side::A, index);
        story.Play(Side::B, index);
    }
    story.ledger.Finish();
    EXPECT_THAT(demo::Faults(story.ledger),
        ElementsAre("A recovered nothing, so nothing was proved", "B shows no loss, so nothing was proved"));
}

TEST(Verdict, APacketOfWhichTheLineLostEveryTryIsNotHeldAgainstA)
{
    EXPECT_THAT(FaultsWhen([](Story& story) { story.AskAgain(2, 3, 0, 0, false); }), IsEmpty());
    EXPECT_THAT(FaultsWhen([](Story& story) { story.AskAgain(2, 3, 2, 2, false); }), IsEmpty());
}

TEST(Verdict, APacketThatWasNeverAskedForOrOnlyOnceIsAFaultOfA)
{
    const std::string fault = "A lost 1 packets that it could have had (the first: number 0, asked for ";
    EXPECT_THAT(FaultsWhen([](Story&) {}), ElementsAre(HasSubstr(fault + "0 times")));
    EXPECT_THAT(FaultsWhen([](Story& story) { story.AskAgain(2, 1, 0, 0, false); }),
        ElementsAre(HasSubstr(fault + "1 times")));
}

TEST(Verdict, ARequestThatTheProxySawAndDidNotAnswerIsAFault)
{
    EXPECT_THAT(FaultsWhen([](Story& story) { story.AskAgain(2, 3, 1, 0, false); }),
        ElementsAre(HasSubstr("asked for 3 times, of which the proxy saw 1, and sent again 0 times")));
}

TEST(Verdict, APacketThatCameInTimeAndWasNotPlayedIsAFault)
{
    EXPECT_THAT(FaultsWhen([](Story& story) { story.AskAgain(2, 3, 3, 1, true); }),
        ElementsAre(HasSubstr("A lost 1 packets")));
}

TEST(Verdict, APacketThatCameAfterItsTimeIsNoFault)
{
    EXPECT_THAT(FaultsWhen([](Story& story) {
        story.AskAgain(2, 3, 3, 3, false);
        story.ledger.OnDelivered(Side::A, Again(2), story.TimeOf(2) + LATENCY_US);
    }),
        IsEmpty());
}

TEST(Verdict, AWrongByteAnywhereButInTheTimestampIsSeen)
{
    for (size_t place = 0; place < Sent(2).size(); ++place) {
        if (place == 2 || place == 3) // another number is another packet
            continue;
        const auto faults = FaultsWhen([place](Story& story) {
            story.AskAgain(2, 1, 1, 1, true);
            Datagram changed = Stamped(2);
            changed[place] ^= 0x01;
            story.ledger.OnPlayed(Side::A, changed);
        });
        const bool isTimestamp = place >= 4 && place < 8;
        EXPECT_EQ(faults.empty(), isTimestamp) << place;
        if (!isTimestamp) {
            EXPECT_THAT(
                faults, ElementsAre(HasSubstr("A played 1 packets that are not what the source sent")));
        }
    }
}

TEST(Verdict, APayloadTypeThatWasNotRestoredIsSeen)
{
    EXPECT_THAT(FaultsWhen([](Story& story) {
        story.AskAgain(2, 1, 1, 1, true);
        story.ledger.OnPlayed(Side::A, Again(2));
    }),
        ElementsAre(HasSubstr("number 0, with 62 bytes and payload type 122")));
}

TEST(Verdict, ACutOrLongerPacketIsSeen)
{
    for (const int more : { -51, -50, -1, 1 }) {
        const auto faults = FaultsWhen([more](Story& story) {
            story.AskAgain(2, 1, 1, 1, true);
            Datagram changed = Stamped(2);
            changed.resize(changed.size() + static_cast<size_t>(more));
            story.ledger.OnPlayed(Side::A, changed);
        });
        EXPECT_THAT(faults, testing::Contains(HasSubstr("not what the source sent"))) << more;
    }
}

TEST(Verdict, APacketThatCameBackWithoutPayloadType122IsSeen)
{
    EXPECT_THAT(FaultsWhen([](Story& story) {
        story.ledger.OnDelivered(Side::A, Stamped(2), story.TimeOf(2) + 50'000);
        story.Play(Side::A, 2);
    }),
        ElementsAre("1 packets came back without payload type 122 on the wire"));
}

TEST(Verdict, APacketPlayedTwiceOrAfterItsTurnIsSeen)
{
    Story story;
    story.Good();
    story.Play(Side::A, 4);
    EXPECT_EQ(story.ledger.Of(Side::A).wrong, 1U);
    story.Play(Side::A, 1);
    EXPECT_EQ(story.ledger.Of(Side::A).wrong, 2U);
    EXPECT_EQ(story.ledger.Of(Side::A).recovered, 1U);
}

TEST(Verdict, SomethingThatWasNeverSentIsSeen)
{
    Story story;
    story.Good();
    story.Play(Side::B, 700);
    EXPECT_THAT(demo::Faults(story.ledger),
        ElementsAre(HasSubstr("B played 1 packets that are not what the source sent")));
}

TEST(Verdict, ThatBGetsPacketsAgainIsSeen)
{
    Story story;
    for (int index = 0; index < 4; ++index)
        story.Send(index, index >= 2);
    story.AskAgain(2, 1, 1, 1, true);
    story.AskAgain(3, 1, 1, 1, true);
    for (int index = 0; index < 4; ++index)
        story.Play(Side::A, index);
    for (int index = 0; index < 3; ++index)
        story.Play(Side::B, index);
    story.ledger.Finish();
    EXPECT_THAT(demo::Faults(story.ledger), ElementsAre("B got 1 packets again without asking"));
}

TEST(Ledger, APacketThatNeverReachedALineIsMissingAndLostAtTheEnd)
{
    Story story;
    story.Good();
    story.ledger.OnSent(Sent(5), story.TimeOf(5));
    story.ledger.Finish();
    EXPECT_EQ(story.ledger.Of(Side::A).missing, 2U);
    EXPECT_EQ(story.ledger.Of(Side::A).lost, 1U);
    EXPECT_EQ(story.ledger.Of(Side::A).excused, 0U);
}

TEST(Ledger, ATaggedRequestIsReadLikeAnother)
{
    Datagram tagged { 0xCE, 0xFA, 0xBE, 0xBA, 4, 3, 2, 1 };
    const Datagram request = Request(2);
    tagged.insert(tagged.end(), request.begin(), request.end());
    EXPECT_THAT(FaultsWhen([&](Story& story) {
        story.ledger.OnRequest(Side::A, tagged, false);
        story.ledger.OnRequest(Side::A, tagged, false);
    }),
        IsEmpty());
}

TEST(Ledger, AnHourOfPacketsStaysWithinItsMemoryAndCountsThemAll)
{
    Story story;
    constexpr int PACKETS = 200'000; // three times round the numbers
    for (int index = 0; index < PACKETS; ++index) {
        story.Send(index, index % 100 == 50);
        if (index % 100 == 50)
            continue;
        story.Play(Side::A, index);
        story.Play(Side::B, index);
    }
    story.ledger.Finish();
    EXPECT_EQ(story.ledger.Sent(), PACKETS);
    EXPECT_EQ(story.ledger.Of(Side::B).lost, PACKETS / 100);
    EXPECT_EQ(story.ledger.Of(Side::B).played, PACKETS - PACKETS / 100);
    EXPECT_EQ(story.ledger.Of(Side::B).wrong, 0U);
}

TEST(Ledger, ShortAndStrangeDatagramsDoNoHarm)
{
    Story story;
    story.Good();
    for (size_t size = 0; size < 12; ++size) {
        const Datagram bytes(size, 0xCE);
        story.ledger.OnFromProxy(Side::A, bytes, true);
        story.ledger.OnDelivered(Side::A, bytes, 0);
        story.ledger.OnRequest(Side::A, bytes, true);
    }
    EXPECT_THAT(demo::Faults(story.ledger), IsEmpty());
}
