#include <gtest/gtest.h>

#include "arqctl/core/host_list.h"
#include "arqctl/core/web_checks.h"

namespace arqctl::web_checks_test {

HostList UsualHosts()
{
    return HostList("127.0.0.1", 8080);
}

WebRequest From(const std::string& host)
{
    WebRequest request;
    request.method = Method::Post;
    request.hosts = { host };
    return request;
}

int StatusOf(const std::optional<Refusal>& refusal)
{
    return refusal ? refusal->status : 0;
}

TEST(HostList, KnowsTheListenAddressAndTheNamesOfThisMachineWithThePort)
{
    const HostList hosts("10.0.0.5", 8080);
    for (const char* host :
        { "10.0.0.5:8080", "127.0.0.1:8080", "localhost:8080", "LocalHost:8080", "[::1]:8080" })
        EXPECT_TRUE(hosts.Allows(host)) << host;
    for (const char* host : { "", "10.0.0.5", "localhost", "localhost:8081", "10.0.0.5:80800",
             "evil.example:8080", "localhost:8080.evil.example", "10.0.0.50:8080", "localhost.:8080" })
        EXPECT_FALSE(hosts.Allows(host)) << host;
}

TEST(HostList, OnThePortThatBrowsersLeaveOutTheBareNameCountsToo)
{
    const HostList hosts("10.0.0.5", 80);
    EXPECT_TRUE(hosts.Allows("10.0.0.5"));
    EXPECT_TRUE(hosts.Allows("[::1]"));
    EXPECT_TRUE(hosts.Allows("localhost:80"));
}

TEST(HostList, AnAllowedNameGoesWithOurPortOrWithNoneAndOneWithAPortJustSo)
{
    HostList hosts = UsualHosts();
    hosts.Allow("Monitor.example");
    hosts.Allow("wall.example:9000");
    EXPECT_TRUE(hosts.Allows("monitor.example"));
    EXPECT_TRUE(hosts.Allows("monitor.EXAMPLE:8080"));
    EXPECT_FALSE(hosts.Allows("monitor.example:81"));
    EXPECT_TRUE(hosts.Allows("wall.example:9000"));
    EXPECT_FALSE(hosts.Allows("wall.example"));
    EXPECT_FALSE(hosts.Allows("wall.example:8080"));
}

TEST(HostList, AnOriginIsAnAllowedHostBehindAScheme)
{
    const HostList hosts = UsualHosts();
    EXPECT_TRUE(hosts.AllowsOrigin("http://localhost:8080"));
    EXPECT_TRUE(hosts.AllowsOrigin("https://127.0.0.1:8080"));
    for (const char* origin : { "", "null", "localhost:8080", "http://", "http://localhost:8080/",
             "http://localhost:8081", "ftp://localhost:8080" })
        EXPECT_FALSE(hosts.AllowsOrigin(origin)) << origin;
}

TEST(WebChecks, ARequestNamesOneKnownHost)
{
    const HostList hosts = UsualHosts();
    EXPECT_EQ(StatusOf(CheckHost(hosts, From("localhost:8080"))), 0);
    EXPECT_EQ(StatusOf(CheckHost(hosts, From("evil.example:8080"))), 421);
    WebRequest request = From("localhost:8080");
    request.hosts.emplace_back("localhost:8080"); // a target in absolute form that says the same
    EXPECT_EQ(StatusOf(CheckHost(hosts, request)), 0);
    request.hosts.emplace_back("evil.example");
    EXPECT_EQ(StatusOf(CheckHost(hosts, request)), 400);
    request.hosts.clear();
    EXPECT_EQ(StatusOf(CheckHost(hosts, request)), 400);
}

TEST(WebChecks, TheRefusalOfAHostNamesTheOptionAndShowsNothingUnprintable)
{
    const auto refusal = CheckHost(UsualHosts(), From("a\x1B[2J\n<b>" + std::string(200, 'x')));
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->error, "this server is not known as 'a?[2J?<b>" + std::string(71, 'x') + "...'");
    EXPECT_EQ(refusal->advice,
        "use the address that it listens on, or start it with --allow-host NAME for another name");
}

TEST(WebChecks, AChangeComesFromOurOwnPageOrFromNoPage)
{
    const HostList hosts = UsualHosts();
    WebRequest request = From("localhost:8080");
    EXPECT_EQ(StatusOf(CheckOrigin(hosts, request)), 0);
    request.origin = "http://localhost:8080";
    request.fetchSite = "same-origin";
    EXPECT_EQ(StatusOf(CheckOrigin(hosts, request)), 0);
    for (const char* site : { "cross-site", "same-site", "", "Same-Origin" }) {
        request.fetchSite = site;
        EXPECT_EQ(StatusOf(CheckOrigin(hosts, request)), 403) << site;
    }
    request.fetchSite = "none";
    EXPECT_EQ(StatusOf(CheckOrigin(hosts, request)), 0);
    for (const char* origin : { "null", "", "http://evil.example", "http://localhost:9090" }) {
        request.origin = origin;
        EXPECT_EQ(StatusOf(CheckOrigin(hosts, request)), 403) << origin;
    }
}

TEST(WebChecks, AChangeNeedsTheTokenAndControlThatIsOn)
{
    WebRequest request = From("localhost:8080");
    EXPECT_EQ(
        CheckToken("", request)->advice, "start it with --allow-control to change something through it");
    request.token = "";
    EXPECT_EQ(StatusOf(CheckToken("", request)), 403); // off: an empty token is none
    request.token.reset();
    const std::string token = "0123456789abcdef";
    EXPECT_EQ(StatusOf(CheckToken(token, request)), 403);
    for (const char* wrong : { "", "0", "0123456789abcdeF", "0123456789abcde", "0123456789abcdef0",
             "0123456789abcdef0123456789abcdef" }) {
        request.token = wrong;
        EXPECT_EQ(StatusOf(CheckToken(token, request)), 403) << wrong;
    }
    request.token = token;
    EXPECT_EQ(StatusOf(CheckToken(token, request)), 0);
}

TEST(WebChecks, ATokenHasSixteenCharactersAndNoBlanks)
{
    EXPECT_TRUE(IsGoodToken("0123456789abcdef"));
    EXPECT_TRUE(IsGoodToken(std::string(256, '~')));
    for (const std::string& bad :
        { std::string("0123456789abcde"), std::string(257, 'x'), std::string("0123456789abcde "),
            std::string("0123456789abcde\n"), std::string("0123456789abcd\xC3\xA4") })
        EXPECT_FALSE(IsGoodToken(bad)) << bad;
}

TEST(WebChecks, ABodyIsSaidToBeJson)
{
    WebRequest request;
    for (const char* type : { "application/json", "Application/JSON", "application/json; charset=utf-8" }) {
        request.contentType = type;
        EXPECT_EQ(StatusOf(CheckContentType(request)), 0) << type;
    }
    for (const char* type :
        { "", "text/plain", "application/jsonp", "application/jso", "application/x-www-form-urlencoded" }) {
        request.contentType = type;
        EXPECT_EQ(StatusOf(CheckContentType(request)), 415) << type;
    }
}

} // namespace arqctl::web_checks_test
