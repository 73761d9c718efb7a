// The request's URL as the gate reads it, and the forms rules are matched
// against.

#include "FakeHost.h"

#include "RequestUrl.h"

#include <gtest/gtest.h>

namespace {

class RequestUrlTest : public ::testing::Test
{
protected:
    void SetUp() override { FakeHost::instance().reset(); }
    std::map<std::string, std::string>& server() { return FakeHost::instance().serverVariables; }
};

TEST_F(RequestUrlTest, RuleUrlFoldsSlashesAndDropsTheQuery)
{
    server() = {{"HTTP_HOST", "example.com"}, {"SERVER_PORT", "80"}, {"REQUEST_URI", "//a///b?x=1//y"}};
    const RequestUrl url = RequestUrl::read();
    EXPECT_EQ("http://example.com/a/b", url.ruleUrl());
    EXPECT_TRUE(url.hasAddedPort());
    EXPECT_EQ("http://example.com:80/a/b", url.ruleUrl(true));
    EXPECT_EQ("http://example.com:80//a///b?x=1//y", url.whole());
}

TEST_F(RequestUrlTest, HostWithPortTakesNoSecondForm)
{
    server() = {{"HTTP_HOST", "example.com:8080"}, {"SERVER_PORT", "80"}, {"REQUEST_URI", "/a"},
                {"HTTPS", "on"}};
    const RequestUrl url = RequestUrl::read();
    EXPECT_FALSE(url.hasAddedPort());
    EXPECT_EQ("https://example.com:8080/a", url.ruleUrl());
    EXPECT_EQ(url.ruleUrl(), url.ruleUrl(true));
    // "off" in any case and an empty HTTPS are plain http, as the gate reads them.
    for (const char* off : {"OFF", ""}) {
        server()["HTTPS"] = off;
        EXPECT_EQ("http://example.com:8080/a", RequestUrl::read().whole());
    }
}

TEST_F(RequestUrlTest, QueryAtTheStartStaysAndBytesBeyondUtf8AreReplaced)
{
    server() = {{"HTTP_HOST", "h"}, {"REQUEST_URI", "?a=1"}};
    EXPECT_EQ("http://h?a=1", RequestUrl::read().ruleUrl());
    server()["REQUEST_URI"] = "/caf\xe9";
    EXPECT_EQ("http://h/caf\xef\xbf\xbd", RequestUrl::read().ruleUrl());
}

TEST_F(RequestUrlTest, NoRuleUrlWithoutAHostButTheUriLengthCounts)
{
    server() = {{"HTTP_HOST", ""}, {"SERVER_PORT", "80"}, {"REQUEST_URI", "/a"}};
    EXPECT_EQ("", RequestUrl::read().ruleUrl());
    EXPECT_EQ("", RequestUrl::read().ruleUrl(true));
    // The whole form keeps its parts all the same, as the purge rules see it.
    EXPECT_EQ("http://:80/a", RequestUrl::read().whole());
    server().erase("HTTP_HOST");
    server()["REQUEST_URI"] = std::string(9000, 'a');
    const RequestUrl url = RequestUrl::read();
    EXPECT_EQ("", url.whole());
    EXPECT_EQ(9000, url.uriLength());
    server()["HTTP_HOST"] = "h";
    EXPECT_EQ("http://h:80" + server()["REQUEST_URI"], RequestUrl::read().whole().toStdString());
    FakeHost::instance().hasGetenv = false;
    EXPECT_EQ("", RequestUrl::read().whole());
}

} // namespace
