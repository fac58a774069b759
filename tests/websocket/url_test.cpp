#include "websocket/url.h"

#include <gtest/gtest.h>

namespace quenmark::websocket {
namespace {

TEST(Url, Parts) {
  const struct {
    std::string url;
    bool secure;
    std::string host;
    std::int32_t port;
    std::string portText, path, query, encodedQuery;
  } rows[] = {
      {"ws://ab/", false, "ab", 80, "", "/", "", ""},
      {"ws://abc", false, "abc", 80, "", "/", "", ""},
      {"WSS://host", true, "host", 443, "", "/", "", ""},
      {"wss://h:8443/a?b=1&c=x y", true, "h", 8443, "8443", "/a", "b=1&c=x y", "b=1&c=x%20y"},
      {"ws://h:443/", false, "h", 443, "443", "/", "", ""},
      {"ws://h:80?x=a/b", false, "h", 80, "80", "/", "x=a/b", "x=a%2Fb"},
      {"ws://host/a/b:c?q?r", false, "host", 80, "", "/a/b:c", "q?r", "q%3Fr"},
      {"ws://host/?", false, "host", 80, "", "/", "", ""},
      {"ws://h\xC3\xB6st/\xC3\xBC?\xF0\x9F\x98\x80", false, "h\xC3\xB6st", 80, "", "/\xC3\xBC", "\xF0\x9F\x98\x80",
       "%ED%A0%BD%ED%B8%80"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.url);
    UrlFields fields;
    ASSERT_TRUE(ParseUrl(row.url, fields));
    EXPECT_EQ(fields.url, row.url);
    EXPECT_EQ(fields.secure, row.secure);
    EXPECT_EQ(fields.host, row.host);
    EXPECT_EQ(fields.port, row.port);
    EXPECT_EQ(fields.portText, row.portText);
    EXPECT_EQ(fields.resourcePath, row.path);
    EXPECT_EQ(fields.query, row.query);
    EXPECT_EQ(fields.encodedQuery, row.encodedQuery);
  }
}

TEST(Url, Refused) {
  for (const std::string url :
       {"", "ws://h", "ws://\xC3\xA4/", "http://host/", "wsss://host/", "://host/path", "ws:/host/path", "wshost/path",
        "ws://host:/path", "ws://host:80a/", "ws://host:99999999999/", "ws:///a/path", "wss://:443/a", "ws://host/a\nb",
        "ws://ho\rst/a", "ws://host/\x7F"}) {
    UrlFields fields;
    EXPECT_FALSE(ParseUrl(url, fields)) << url;
  }
}

TEST(Url, PercentEncode) {
  EXPECT_EQ(PercentEncode("aZ09=&+ %~", true), "aZ09=&%2B%20%25%7E");
  EXPECT_EQ(PercentEncode("a=b&c", false), "a%3Db%26c");
  EXPECT_EQ(PercentEncode("\xC3\xBC\xE2\x82\xAC", true), "%C3%BC%E2%82%AC");
}

}  // namespace
}  // namespace quenmark::websocket
