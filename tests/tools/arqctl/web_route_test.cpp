#include <gtest/gtest.h>

#include "arqctl/core/url_text.h"
#include "arqctl/core/web_route.h"

namespace arqctl::web_route_test {

using Parts = std::vector<std::string>;

TEST(UrlText, TwoHexDigitsBehindAPercentSignAreAByte)
{
    EXPECT_EQ(PercentDecoded("edge1%2F2"), "edge1/2");
    EXPECT_EQ(PercentDecoded("%2f%41%7e+"), "/A~+");
    EXPECT_EQ(PercentDecoded("%C3%A4"), "\xC3\xA4");
    EXPECT_EQ(PercentDecoded(""), "");
    for (const char* bad : { "%", "%4", "a%4", "%G1", "%1G", "%00", "%-1", "% 1" })
        EXPECT_FALSE(PercentDecoded(bad)) << bad;
}

TEST(UrlText, APathIsSplitBeforeItIsDecoded)
{
    EXPECT_EQ(PathParts("/"), Parts { "" });
    EXPECT_EQ(PathParts("/a/b%2Fc"), (Parts { "a", "b/c" }));
    EXPECT_EQ(PathParts("/a//b/"), (Parts { "a", "", "b", "" }));
    EXPECT_EQ(PathParts("/1/2/3/4/5/6/7/8")->size(), 8U);
    for (const char* bad : { "", "a", "a/b", "/1/2/3/4/5/6/7/8/9", "/a/%zz" })
        EXPECT_FALSE(PathParts(bad)) << bad;
}

TEST(UrlText, ANumberOfAQueryIsDigitsOnly)
{
    EXPECT_EQ(QueryNumber("span=300&points=600", "span", 1), 300);
    EXPECT_EQ(QueryNumber("span=300&points=600", "points", 1), 600);
    EXPECT_EQ(QueryNumber("spanned=5", "span", 1), 1);
    EXPECT_EQ(QueryNumber("", "span", 1), 1);
    EXPECT_EQ(QueryNumber("&&span=999999999", "span", 1), 999'999'999);
    for (const char* bad :
        { "span=", "span=-1", "span=1x", "span=+1", "span= 1", "span=1000000000", "span=1.5", "span==1" })
        EXPECT_FALSE(QueryNumber(bad, "span", 1)) << bad;
}

std::optional<Resource> ResourceOf(std::string_view path)
{
    const auto route = FindRoute(path);
    return route ? std::optional(route->resource) : std::nullopt;
}

TEST(WebRoute, EveryPathOfTheInterfaceLeadsSomewhere)
{
    EXPECT_EQ(FindRoute("/")->name, "index.html");
    EXPECT_EQ(FindRoute("/page/app.js")->name, "app.js");
    EXPECT_EQ(FindRoute("/page/vendor/plot.js")->name, "vendor/plot.js");
    EXPECT_EQ(ResourceOf("/healthz"), Resource::Health);
    EXPECT_EQ(ResourceOf("/metrics"), Resource::Metrics);
    EXPECT_EQ(ResourceOf("/api/v1/channels"), Resource::Channels);
    EXPECT_EQ(ResourceOf("/api/v1/events"), Resource::Events);
    EXPECT_EQ(ResourceOf("/api/v1/channels/1/history"), Resource::History);
    EXPECT_EQ(ResourceOf("/api/v1/channels/1/receivers"), Resource::Receivers);
    EXPECT_EQ(ResourceOf("/api/v1/channels/1/impairment"), Resource::Impairment);
    const auto receiver = FindRoute("/api/v1/channels/edge1%2F2/receivers/10.0.0.1");
    ASSERT_TRUE(receiver);
    EXPECT_EQ(receiver->resource, Resource::Receiver);
    EXPECT_EQ(receiver->name, "edge1/2");
    EXPECT_EQ(receiver->address, "10.0.0.1");
}

TEST(WebRoute, WhateverElseLeadsNowhere)
{
    for (const char* path : { "", "x", "/x", "/healthz/", "/metrics/x", "/api", "/api/v1", "/api/v2/channels",
             "/api/v1/channels/1/x", "/api/v1/channels/1/history/x", "/api/v1/channels/1/receivers/a/b",
             "/api/v1/events/x", "/page", "/index.html", "/%", "//" })
        EXPECT_FALSE(FindRoute(path)) << path;
}

TEST(WebRoute, APathHasReadingMethodsOrTheOneThatChangesIt)
{
    EXPECT_EQ(AllowedMethods(Resource::Channels), "GET, HEAD");
    EXPECT_EQ(AllowedMethods(Resource::Receivers), "POST");
    EXPECT_EQ(AllowedMethods(Resource::Receiver), "DELETE");
    EXPECT_TRUE(IsAllowed(Resource::Events, Method::Get));
    EXPECT_TRUE(IsAllowed(Resource::Metrics, Method::Head));
    EXPECT_TRUE(IsAllowed(Resource::Impairment, Method::Post));
    EXPECT_TRUE(IsAllowed(Resource::Receiver, Method::Delete));
    EXPECT_FALSE(IsAllowed(Resource::Channels, Method::Post));
    EXPECT_FALSE(IsAllowed(Resource::Receivers, Method::Get));
    EXPECT_FALSE(IsAllowed(Resource::Receiver, Method::Post));
    EXPECT_FALSE(IsAllowed(Resource::PageFile, Method::Other));
}

} // namespace arqctl::web_route_test
