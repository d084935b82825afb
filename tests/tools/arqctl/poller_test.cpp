#include "arqctl/proxy/poller.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <limits>

#include "base/unique_fd.h"

namespace arqctl::poller_tests {

namespace {

constexpr int64_t SECOND = 1'000'000;
constexpr int64_t PATIENCE = 5 * SECOND;

// A control socket whose proxy does what the test says, in the test's own thread.
class FakeControl {
public:
    explicit FakeControl(const std::string& name)
        : m_path(testing::TempDir() + "poller" + std::to_string(getpid()) + name),
          m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        (void)unlink(m_path.c_str());
        EXPECT_EQ(bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(m_listener.Get(), 5), 0);
    }
    ~FakeControl() { (void)unlink(m_path.c_str()); }
    FakeControl(const FakeControl&) = delete;
    FakeControl& operator=(const FakeControl&) = delete;

    const std::string& Path() const { return m_path; }

    // The request of the next client; "" when there is none, and then the one before is served on.
    std::string Accept()
    {
        UniqueFd next(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!next.IsValid())
            return "";
        m_client = std::move(next);
        char bytes[64];
        const ssize_t count = read(m_client.Get(), bytes, sizeof(bytes));
        return { bytes, static_cast<size_t>(count > 0 ? count : 0) };
    }

    void Answer(std::string_view reply)
    {
        EXPECT_EQ(send(m_client.Get(), reply.data(), reply.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(reply.size()));
        m_client.Reset();
    }

private:
    const std::string m_path;
    UniqueFd m_listener;
    UniqueFd m_client;
};

TEST(Poller, AsksAtOnceAndGivesTheReplyWithItsTimeAndTheProcess)
{
    FakeControl proxy("a");
    Poller poller({ proxy.Path() }, SECOND, PATIENCE);
    EXPECT_TRUE(poller.Proceed(100).empty());
    EXPECT_EQ(proxy.Accept(), "AllStats");
    proxy.Answer("all is well");
    const std::vector<PolledAnswer> answers = poller.Proceed(200);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].index, 0U);
    EXPECT_EQ(answers[0].answer.reply, "all is well");
    EXPECT_EQ(answers[0].answer.failure, Failure::None);
    EXPECT_EQ(answers[0].answer.peerPid, getpid());
    EXPECT_EQ(answers[0].atUs, 200);
}

TEST(Poller, AsksAgainAPeriodAfterTheLastBeginningAndNotBefore)
{
    FakeControl proxy("b");
    Poller poller({ proxy.Path() }, SECOND, PATIENCE);
    (void)poller.Proceed(0);
    (void)proxy.Accept();
    proxy.Answer("first");
    ASSERT_EQ(poller.Proceed(300'000).size(), 1U);
    std::vector<pollfd> none;
    EXPECT_EQ(poller.Wait(none), SECOND);
    EXPECT_TRUE(none.empty());
    (void)poller.Proceed(SECOND - 1);
    EXPECT_EQ(proxy.Accept(), "");
    (void)poller.Proceed(SECOND);
    EXPECT_EQ(proxy.Accept(), "AllStats");
}

TEST(Poller, AProxyThatDoesNotAnswerHoldsNoOtherUpAndIsNotAskedTwiceAtOnce)
{
    FakeControl silent("c");
    FakeControl good("d");
    Poller poller({ silent.Path(), good.Path() }, SECOND, PATIENCE);
    for (int64_t nowUs = 0; nowUs < PATIENCE; nowUs += SECOND) {
        (void)poller.Proceed(nowUs);
        ASSERT_EQ(good.Accept(), "AllStats");
        good.Answer("here");
        const std::vector<PolledAnswer> answers = poller.Proceed(nowUs + 1);
        ASSERT_EQ(answers.size(), 1U);
        ASSERT_EQ(answers[0].index, 1U);
    }
    EXPECT_EQ(silent.Accept(), "AllStats");
    EXPECT_EQ(silent.Accept(), "") << "one question only";
    const std::vector<PolledAnswer> late = poller.Proceed(PATIENCE);
    ASSERT_EQ(late.size(), 1U);
    EXPECT_EQ(late[0].index, 0U);
    EXPECT_EQ(late[0].answer.failure, Failure::NoAnswer);
    (void)poller.Proceed(PATIENCE + 1);
    EXPECT_EQ(silent.Accept(), "AllStats") << "its period was over long ago";
}

TEST(Poller, WaitsForTheDescriptorsOfItsQuestionsAndTheirEnd)
{
    FakeControl proxy("e");
    Poller poller({ proxy.Path() }, SECOND, PATIENCE);
    (void)poller.Proceed(7);
    std::vector<pollfd> descriptors;
    EXPECT_EQ(poller.Wait(descriptors), 7 + PATIENCE);
    ASSERT_EQ(descriptors.size(), 1U);
    EXPECT_EQ(descriptors[0].events, POLLIN);
    (void)proxy.Accept();
    EXPECT_EQ(poll(descriptors.data(), 1, 0), 0);
    proxy.Answer("now");
    EXPECT_EQ(poll(descriptors.data(), 1, 0), 1);
}

TEST(Poller, AProxyThatIsNotThereIsSaidOnceAPeriod)
{
    Poller poller({ testing::TempDir() + "no/such" }, SECOND, PATIENCE);
    ASSERT_EQ(poller.Proceed(0).size(), 1U);
    EXPECT_TRUE(poller.Proceed(SECOND - 1).empty());
    const std::vector<PolledAnswer> answers = poller.Proceed(SECOND);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].answer.failure, Failure::NoSocket);
}

TEST(Poller, AnotherListLeavesTheQuestionsOfThoseThatStay)
{
    FakeControl first("f");
    FakeControl second("g");
    Poller poller({ first.Path(), second.Path() }, SECOND, PATIENCE);
    (void)poller.Proceed(0);
    ASSERT_EQ(second.Accept(), "AllStats");
    poller.Watch({ second.Path() });
    second.Answer("still here");
    const std::vector<PolledAnswer> answers = poller.Proceed(1);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].index, 0U);
    EXPECT_EQ(answers[0].answer.reply, "still here");
    EXPECT_EQ(second.Accept(), "") << "its period has not passed";
}

TEST(Poller, APathThatIsNamedTwiceIsAskedTwice)
{
    FakeControl proxy("h");
    Poller poller({ proxy.Path(), proxy.Path() }, SECOND, PATIENCE);
    poller.Watch({ proxy.Path(), proxy.Path() });
    (void)poller.Proceed(0);
    EXPECT_EQ(proxy.Accept(), "AllStats");
    EXPECT_EQ(proxy.Accept(), "AllStats");
}

TEST(Poller, WithoutPathsThereIsNothingToWaitFor)
{
    Poller poller({}, SECOND, PATIENCE);
    std::vector<pollfd> descriptors;
    EXPECT_EQ(poller.Wait(descriptors), std::numeric_limits<int64_t>::max());
    EXPECT_TRUE(poller.Proceed(0).empty());
}

} // namespace

} // namespace arqctl::poller_tests
