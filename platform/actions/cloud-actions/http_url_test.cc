// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/http_url.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace halvex::actions {
namespace {

using test::ErrorLine;
using testing::ElementsAre;
using testing::IsEmpty;

class HTTPURLTest : public testing::Test {
 protected:
  void ExpectAccepted(const std::string& text, const std::string& host,
                      const std::string& path) {
    HTTPURL url;
    EXPECT_TRUE(url.Parse(text)) << text;
    EXPECT_EQ(host, url.host()) << text;
    EXPECT_EQ(path, url.path()) << text;
    EXPECT_THAT(log_.lines(), IsEmpty()) << text;
  }

  void ExpectRefusedSilently(const std::string& text) {
    EXPECT_FALSE(HTTPURL().Parse(text)) << text;
    EXPECT_THAT(log_.lines(), IsEmpty()) << text;
  }

  // Refused with the line that names `path`.
  void ExpectRefusedForParentDirectory(const std::string& text,
                                       const std::string& path) {
    log_.Clear();
    EXPECT_FALSE(HTTPURL().Parse(text)) << text;
    EXPECT_THAT(log_.lines(),
                ElementsAre(ErrorLine(
                    "Path contains reference to parent directory: " + path)))
        << text;
  }

  test::LogCapture log_;
};

TEST_F(HTTPURLTest, IsEmptyAtFirst) {
  const HTTPURL url;
  EXPECT_EQ("", url.host());
  EXPECT_EQ("", url.path());
}

// Scheme.

TEST_F(HTTPURLTest, AcceptsBothSchemes) {
  ExpectAccepted("http://h/p", "h", "/p");
  ExpectAccepted("https://h/p", "h", "/p");
}

TEST_F(HTTPURLTest, RefusesAnUpperCaseScheme) {
  ExpectRefusedSilently("Https://h/");
  ExpectRefusedSilently("HTTP://h/");
  ExpectRefusedSilently("httpS://h/");
}

TEST_F(HTTPURLTest, RefusesOtherSchemes) {
  for (const char* text :
       {"ftp://h/", "ws://h/", "file:///p", "h/p", "//h/p", "/p", "https",
        "https:", "https:/", "https:/h/p", "https:h", "http:", "http:/h",
        "httpss://h/", "xhttps://h/", " https://h/", "\thttps://h/", "",
        "ttps://h/"}) {
    ExpectRefusedSilently(text);
  }
}

TEST_F(HTTPURLTest, RefusesASchemeAlone) {
  ExpectRefusedSilently("https://");
  ExpectRefusedSilently("http://");
}

// Host.

TEST_F(HTTPURLTest, GivesAUrlWithoutPathTheRootPath) {
  ExpectAccepted("https://h", "h", "/");
}

TEST_F(HTTPURLTest, KeepsTheCaseOfTheHost) {
  ExpectAccepted("http://H/", "H", "/");
  ExpectAccepted("https://Host.Example/", "Host.Example", "/");
}

TEST_F(HTTPURLTest, EndsTheHostAtEachDelimiter) {
  ExpectAccepted("https://h/x", "h", "/x");
  ExpectAccepted("https://h?x", "h", "/?x");
  ExpectAccepted("https://h#x", "h", "/#x");
  ExpectAccepted("https://h x", "h", "/ x");
}

TEST_F(HTTPURLTest, EndsTheHostAtTheFirstDelimiterOfSeveral) {
  ExpectAccepted("https://h?a/b#c d", "h", "/?a/b#c d");
  ExpectAccepted("https://h#a?b", "h", "/#a?b");
}

TEST_F(HTTPURLTest, RefusesAnEmptyHost) {
  for (const char* text :
       {"https:///p", "https://?q", "https://#f", "https:// p", "https://:80/",
        "https://:", "https:// ", "https://:/p"}) {
    ExpectRefusedSilently(text);
  }
}

TEST_F(HTTPURLTest, TrimsBlanksAroundTheHost) {
  // A space would end it; these do not.
  ExpectAccepted("https://\t\r\n\v\fh\f\v\n\r\t/p", "h", "/p");
  ExpectAccepted("https://h\t:80/p", "h", "/p");
}

TEST_F(HTTPURLTest, RefusesAHostOfBlanks) {
  ExpectRefusedSilently("https://\t\n/p");
  ExpectRefusedSilently("https://\t:80/p");
}

TEST_F(HTTPURLTest, KeepsBlanksWithinTheHost) {
  ExpectAccepted("https://h\tx/p", "h\tx", "/p");
}

// What a request for such a URL must not do is refused where it is sent.
TEST_F(HTTPURLTest, TakesUserInformationForTheHost) {
  ExpectAccepted("https://user@h/p", "user@h", "/p");
}

TEST_F(HTTPURLTest, TakesAnyOtherByteIntoTheHost) {
  ExpectAccepted("https://h\\x/p", "h\\x", "/p");
  ExpectAccepted("https://%68/p", "%68", "/p");
  ExpectAccepted("https://\xc3\xa4/p", "\xc3\xa4", "/p");
  ExpectAccepted("https://../p", "..", "/p");
}

// Port.

TEST_F(HTTPURLTest, DropsThePort) {
  ExpectAccepted("https://h:8443/a/b?c=d#e", "h", "/a/b?c=d#e");
  ExpectAccepted("https://h:8443", "h", "/");
  ExpectAccepted("https://h:8443?q", "h", "/?q");
}

TEST_F(HTTPURLTest, AcceptsAnyInteger32AsPort) {
  for (const char* port : {"0", "-1", "+80", "080", "65536", "2147483647",
                           "-2147483648", "\t80\r"}) {
    ExpectAccepted("https://h:" + std::string(port) + "/", "h", "/");
  }
}

TEST_F(HTTPURLTest, RefusesAPortThatIsNoInteger32) {
  for (const char* port :
       {"http", "", "80x", "x80", "0x50", "80.0", "1e3", "2147483648",
        "-2147483649", "--1", "+-1", "\t", "8\t0", "\xd9\xa1"}) {
    ExpectRefusedSilently("https://h:" + std::string(port) + "/");
  }
}

TEST_F(HTTPURLTest, RefusesAPortCutOffByASpace) {
  ExpectRefusedSilently("https://h: 80/");
  ExpectAccepted("https://h:80 /", "h", "/ /");
}

TEST_F(HTTPURLTest, RefusesTwoColons) {
  ExpectRefusedSilently("https://h:1:2/");
  ExpectRefusedSilently("https://h::/");
  ExpectRefusedSilently("https://h:1:/");
  ExpectRefusedSilently("https://user:pass@h:1/");
  ExpectRefusedSilently("https://[::1]/");
}

TEST_F(HTTPURLTest, LeavesColonsInThePathAlone) {
  ExpectAccepted("https://h/a:b:c", "h", "/a:b:c");
}

// Path.

TEST_F(HTTPURLTest, KeepsThePathAsWritten) {
  ExpectAccepted("https://h/A//b/./c;d?e=/f#g", "h", "/A//b/./c;d?e=/f#g");
  ExpectAccepted("https://h/%41%2F", "h", "/%41%2F");
  ExpectAccepted("https://h//p", "h", "//p");
}

TEST_F(HTTPURLTest, PutsASlashBeforeWhatIsNoPath) {
  ExpectAccepted("https://h?x", "h", "/?x");
  ExpectAccepted("https://h#x", "h", "/#x");
  ExpectAccepted("https://h?", "h", "/?");
  ExpectAccepted("https://h name/x", "h", "/ name/x");
}

TEST_F(HTTPURLTest, KeepsBlanksAtTheEndOfThePath) {
  ExpectAccepted("https://h/p \n", "h", "/p \n");
}

// Parent directory.

TEST_F(HTTPURLTest, RefusesParentDirectoryInPath) {
  ExpectRefusedForParentDirectory("https://h/a/../b", "/a/../b");
  ExpectRefusedForParentDirectory("https://h/..", "/..");
  ExpectRefusedForParentDirectory("http://h:80/../", "/../");
}

TEST_F(HTTPURLTest, RefusesParentDirectoryInQuery) {
  ExpectRefusedForParentDirectory("https://h/x?a=..", "/x?a=..");
  ExpectRefusedForParentDirectory("https://h/x?p=../y", "/x?p=../y");
}

TEST_F(HTTPURLTest, RefusesParentDirectoryInFragment) {
  ExpectRefusedForParentDirectory("https://h/x#..", "/x#..");
}

TEST_F(HTTPURLTest, LogsAPathWithoutItsSlashAsItWasWritten) {
  ExpectRefusedForParentDirectory("https://h?..", "?..");
  ExpectRefusedForParentDirectory("https://h#..", "#..");
  ExpectRefusedForParentDirectory("https://h ..", " ..");
}

TEST_F(HTTPURLTest, RefusesTwoDotsWithinAName) {
  ExpectRefusedForParentDirectory("https://h/a..b", "/a..b");
  ExpectRefusedForParentDirectory("https://h/x...", "/x...");
}

TEST_F(HTTPURLTest, RefusesEscapedDots) {
  for (const char* dots : {"%2e%2e", "%2E%2E", "%2E%2e", "%2e%2E", ".%2e",
                           "%2e.", ".%2E", "%2E."}) {
    const std::string path = "/" + std::string(dots) + "/x";
    ExpectRefusedForParentDirectory("https://h" + path, path);
  }
}

TEST_F(HTTPURLTest, LogsThePathInItsOwnCase) {
  ExpectRefusedForParentDirectory("https://h/API/%2E%2e/X", "/API/%2E%2e/X");
}

TEST_F(HTTPURLTest, AcceptsSingleDots) {
  ExpectAccepted("https://h/.%2f", "h", "/.%2f");
  ExpectAccepted("https://h/./x.y/%2e/z", "h", "/./x.y/%2e/z");
  ExpectAccepted("https://h/.", "h", "/.");
}

// The dot that comes out of one replacement is not read again as part of
// another escape.
TEST_F(HTTPURLTest, AcceptsDoublyEscapedDots) {
  ExpectAccepted("https://h/%252e%252e/", "h", "/%252e%252e/");
  ExpectAccepted("https://h/%%2e2e", "h", "/%%2e2e");
}

TEST_F(HTTPURLTest, LooksForDotsInThePathOnly) {
  ExpectAccepted("https://a..b/p", "a..b", "/p");
}

TEST_F(HTTPURLTest, EscapesControlBytesInTheLogLine) {
  ExpectRefusedForParentDirectory("https://h/..\n[ERROR] forged",
                                  "/..\\x0a[ERROR] forged");
}

TEST_F(HTTPURLTest, KeepsBytesAfterNul) {
  using namespace std::string_literals;
  ExpectAccepted("https://h/a\0b"s, "h", "/a\0b"s);
  log_.Clear();
  EXPECT_FALSE(HTTPURL().Parse("https://h/a\0/.."s));
}

TEST_F(HTTPURLTest, CanParseAgain) {
  HTTPURL url;
  EXPECT_TRUE(url.Parse("https://first:1/path"));
  EXPECT_TRUE(url.Parse("http://second"));
  EXPECT_EQ("second", url.host());
  EXPECT_EQ("/", url.path());
}

TEST_F(HTTPURLTest, TakesAVeryLongUrl) {
  const std::string path(1 << 20, 'x');
  ExpectAccepted("https://h/" + path, "h", "/" + path);
}

// Matching.

bool IsAllowed(const std::vector<std::string>& endpoints,
               const std::string& request) {
  AllowedEndpoints list;
  for (const std::string& endpoint : endpoints) {
    list.push_back(std::make_unique<HTTPURL>());
    EXPECT_TRUE(list.back()->Parse(endpoint)) << endpoint;
  }
  HTTPURL url;
  EXPECT_TRUE(url.Parse(request)) << request;
  return IsEndpointAllowed(list, url);
}

TEST(IsEndpointAllowedTest, AllowsTheEndpointItself) {
  EXPECT_TRUE(IsAllowed({"https://h/api/"}, "https://h/api/"));
}

TEST(IsEndpointAllowedTest, AllowsNothingWithAnEmptyList) {
  EXPECT_FALSE(IsAllowed({}, "https://h/"));
}

TEST(IsEndpointAllowedTest, IgnoresSchemeAndPort) {
  EXPECT_TRUE(IsAllowed({"https://h/API/"}, "http://h:99/api/list"));
  EXPECT_TRUE(IsAllowed({"http://h:1/p"}, "https://h/p"));
}

TEST(IsEndpointAllowedTest, ComparesHostsWithCase) {
  EXPECT_FALSE(IsAllowed({"https://H/"}, "https://h/"));
  EXPECT_FALSE(IsAllowed({"https://h/"}, "http://H/"));
}

TEST(IsEndpointAllowedTest, ComparesHostsWhole) {
  EXPECT_FALSE(IsAllowed({"https://host/"}, "https://hos/"));
  EXPECT_FALSE(IsAllowed({"https://host/"}, "https://hosts/"));
  EXPECT_FALSE(IsAllowed({"https://host/"}, "https://sub.host/"));
  EXPECT_FALSE(IsAllowed({"https://host/"}, "https://host./"));
}

TEST(IsEndpointAllowedTest, ComparesPathsWithoutCase) {
  EXPECT_TRUE(IsAllowed({"https://h/aPi/"}, "https://h/ApI/Things"));
}

TEST(IsEndpointAllowedTest, ComparesPathsAsPlainPrefixes) {
  EXPECT_TRUE(IsAllowed({"https://h/dev"}, "https://h/devices"));
  EXPECT_TRUE(IsAllowed({"https://h/dev"}, "https://h/dev?x=1"));
  EXPECT_TRUE(IsAllowed({"https://h/dev"}, "https://h/dev/x"));
  EXPECT_FALSE(IsAllowed({"https://h/dev"}, "https://h/de"));
  EXPECT_FALSE(IsAllowed({"https://h/dev/"}, "https://h/dev"));
  EXPECT_FALSE(IsAllowed({"https://h/dev"}, "https://h/x/dev"));
}

TEST(IsEndpointAllowedTest, ComparesEscapesAsWritten) {
  EXPECT_FALSE(IsAllowed({"https://h/a b"}, "https://h/a%20b"));
  EXPECT_FALSE(IsAllowed({"https://h/api"}, "https://h/%61pi"));
}

TEST(IsEndpointAllowedTest, AllowsEveryPathBelowTheRoot) {
  EXPECT_TRUE(IsAllowed({"https://h"}, "https://h/any?thing#here"));
  EXPECT_TRUE(IsAllowed({"https://h/"}, "https://h"));
  EXPECT_TRUE(IsAllowed({"https://h/"}, "https://h?x"));
}

TEST(IsEndpointAllowedTest, ComparesTheQueryOfAnEndpointToo) {
  EXPECT_TRUE(IsAllowed({"https://h?q=1"}, "https://h/?q=12"));
  EXPECT_FALSE(IsAllowed({"https://h?q=1"}, "https://h/"));
}

TEST(IsEndpointAllowedTest, LooksThroughTheWholeList) {
  EXPECT_TRUE(
      IsAllowed({"https://a/", "https://h/x", "https://h/p"}, "https://h/p/1"));
  EXPECT_FALSE(IsAllowed({"https://a/", "https://h/x"}, "https://h/p"));
  // Host and path must come from one entry.
  EXPECT_FALSE(IsAllowed({"https://a/p", "https://h/x"}, "https://h/p"));
}

}  // namespace
}  // namespace halvex::actions
