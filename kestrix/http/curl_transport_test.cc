// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/http/curl_transport.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "kestrix/http/http_constants.h"
#include "tests/support/raw_server.h"
#include "tests/support/test_loop.h"

namespace kestrix::http {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::StartsWith;

constexpr size_t kMaxBodySize = 16u << 20;
constexpr size_t kMaxHeaderSize = 64u << 10;
constexpr char kTooLarge[] =
    "http/too_large: The response is larger than this device accepts";
constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

// What has come of one request.
struct Outcome {
  RequestId id = 0;
  // How often one of the callbacks has run.
  int runs = 0;
  // 0 if there was no response.
  int status = 0;
  // The body, or the error as "domain/code: message".
  std::string text;
};

class CurlTransportTest : public testing::Test {
 protected:
  // Starts a request whose outcome is kept. `then` runs in its callback.
  std::shared_ptr<Outcome> Start(
      Request request, std::function<void()> then = [] {}) {
    auto outcome = std::make_shared<Outcome>();
    outcome->id = transport_->StartAsyncTransfer(
        std::move(request),
        [outcome, then](RequestId id, std::unique_ptr<Response> response) {
          EXPECT_EQ(outcome->id, id);
          ++outcome->runs;
          outcome->status = response->GetStatusCode();
          outcome->text = response->body();
          then();
        },
        [outcome, then](RequestId id, const Error* error) {
          EXPECT_EQ(outcome->id, id);
          ++outcome->runs;
          outcome->text = error->GetDomain() + "/" + error->GetCode() + ": " +
                          error->GetMessage();
          then();
        });
    return outcome;
  }
  std::shared_ptr<Outcome> StartGet(
      const std::string& target = "/", std::function<void()> then = [] {}) {
    return Start({request_type::kGet, server_.url() + target, {}, ""}, then);
  }

  // Serves the loop until `outcome` is there, and nothing more is due.
  static void WaitFor(const Outcome& outcome) {
    EXPECT_TRUE(
        test::RunUntil("the outcome", [&] { return outcome.runs > 0; }));
    test::RunPending();
    EXPECT_EQ(1, outcome.runs);
  }
  Outcome Finish(Request request) {
    const std::shared_ptr<Outcome> outcome = Start(std::move(request));
    EXPECT_EQ(0, outcome->runs);
    WaitFor(*outcome);
    return *outcome;
  }
  Outcome Get(const std::string& target = "/", const HeaderList& headers = {}) {
    return Finish({request_type::kGet, server_.url() + target, headers, ""});
  }
  Outcome Post(const std::string& body, const HeaderList& headers = {}) {
    return Finish({request_type::kPost, server_.url() + "/", headers, body});
  }

  // What a server that answers `answer`, and then closes the connection, makes
  // of a GET.
  std::string GetFrom(const std::string& answer) {
    server_.SetAnswer(answer, /*close_after=*/true);
    const Outcome outcome = Get();
    return outcome.status == 0
               ? outcome.text
               : std::to_string(outcome.status) + " " + outcome.text;
  }

  // Lets go of the transport in a callback, whose end it outlives.
  void Release(const std::weak_ptr<Transport>& weak) {
    transport_.reset();
    EXPECT_FALSE(weak.expired());
  }

  std::string HostLine() const {
    return "Host: " + server_.authority() + "\r\n";
  }

  base::EventLoop loop_;
  test::RawServer server_{&loop_};
  std::shared_ptr<Transport> transport_ = Transport::CreateDefault();
};

// What goes out.

TEST_F(CurlTransportTest, SendsAGetWithTheGivenHeadersAlone) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("/a?b=c",
      {{"Authorization", "Bearer abc"}, {"Content-Type", "application/json"}});
  EXPECT_EQ("GET /a?b=c HTTP/1.1\r\n" + HostLine() +
                "Authorization: Bearer abc\r\n"
                "Content-Type: application/json\r\n\r\n",
            server_.received());
}

TEST_F(CurlTransportTest, SendsAGetWithoutHeaders) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get();
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() + "\r\n", server_.received());
}

TEST_F(CurlTransportTest, SendsAPostWithTheGivenHeadersAndTheBody) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Post(R"({"a":1})",
       {{"Authorization", "Bearer abc"}, {"Content-Type", "application/json"}});
  EXPECT_EQ("POST / HTTP/1.1\r\n" + HostLine() +
                "Authorization: Bearer abc\r\n"
                "Content-Type: application/json\r\n"
                "Content-Length: 7\r\n\r\n"
                R"({"a":1})",
            server_.received());
}

TEST_F(CurlTransportTest, SendsAPostWithAnEmptyBody) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Post("", {{"Content-Type", "text/plain"}});
  EXPECT_EQ("POST / HTTP/1.1\r\n" + HostLine() +
                "Content-Type: text/plain\r\nContent-Length: 0\r\n\r\n",
            server_.received());
}

TEST_F(CurlTransportTest, SendsABodyByteForByte) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  const std::string body("a\0\r\n\r\n\xff", 7);
  Post(body);
  EXPECT_THAT(server_.received(), testing::EndsWith("\r\n\r\n" + body));
}

// A body over 1 MiB is what the library would ask the server about first.
TEST_F(CurlTransportTest, SendsALargeBodyWithoutAsking) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  const std::string body(4'000'000, 'x');
  EXPECT_EQ("ok", Post(body, {{"Content-Type", "text/plain"}}).text);
  EXPECT_EQ("POST / HTTP/1.1\r\n" + HostLine() +
                "Content-Type: text/plain\r\n"
                "Content-Length: 4000000\r\n\r\n" +
                body,
            server_.received());
}

TEST_F(CurlTransportTest, SendsTheHeadersInTheirOrder) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("/", {{"Z", "1"}, {"a", "2"}, {"Z", "3"}});
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() + "Z: 1\r\na: 2\r\nZ: 3\r\n\r\n",
            server_.received());
}

// Intended: without a token nothing stands behind the word.
TEST_F(CurlTransportTest, SendsAHeaderThatEndsInABlank) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("/", {{"Authorization", "Bearer "}, {"A", "1"}});
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() +
                "Authorization: Bearer \r\nA: 1\r\n\r\n",
            server_.received());
}

TEST_F(CurlTransportTest, SendsAnEmptyHeader) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("/", {{"A", ""}, {"B", "2"}});
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() + "A:\r\nB: 2\r\n\r\n",
            server_.received());
}

TEST_F(CurlTransportTest, SendsTheTargetAsItStands) {
  server_.SetAnswer(kOk, /*close_after=*/true);
  for (const char* target :
       {"/a/../b/./c", "//a//", "/%2e%2E/%zz", "/\xc3\xa4\xff", "/?a?b/../c",
        "/a;b@c:d", "/{x}|[y]\"<>"}) {
    const size_t before = server_.received().size();
    EXPECT_EQ("ok", Get(target).text);
    EXPECT_THAT(server_.received().substr(before),
                StartsWith(std::string("GET ") + target + " HTTP/1.1\r\n"));
  }
}

TEST_F(CurlTransportTest, KeepsTheFragmentBack) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("/a?b#secret");
  EXPECT_EQ("GET /a?b HTTP/1.1\r\n" + HostLine() + "\r\n", server_.received());
}

TEST_F(CurlTransportTest, AsksForTheRootWithoutAPath) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("");
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() + "\r\n", server_.received());
}

// What comes back.

TEST_F(CurlTransportTest, HandsAResponseOver) {
  EXPECT_EQ("200 ok", GetFrom(kOk));
}

TEST_F(CurlTransportTest, HandsAResponseOverWhateverTheStatus) {
  for (const int status : {201, 299, 400, 401, 404, 500, 599}) {
    const std::string number = std::to_string(status);
    EXPECT_EQ(number + " x", GetFrom("HTTP/1.1 " + number +
                                     " Some\r\nContent-Length: 1\r\n\r\nx"));
  }
}

TEST_F(CurlTransportTest, HandsAResponseWithoutABodyOver) {
  EXPECT_EQ("204 ", GetFrom("HTTP/1.1 204 No Content\r\n\r\n"));
  EXPECT_EQ("200 ", GetFrom("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
}

TEST_F(CurlTransportTest, ReadsABodyUpToTheEndOfTheConnection) {
  EXPECT_EQ("200 body", GetFrom("HTTP/1.1 200 OK\r\n\r\nbody"));
}

TEST_F(CurlTransportTest, ReadsABodyInChunks) {
  EXPECT_EQ("200 abcde", GetFrom("HTTP/1.1 200 OK\r\n"
                                 "Transfer-Encoding: chunked\r\n\r\n"
                                 "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n"));
}

TEST_F(CurlTransportTest, ReadsABodyByteForByte) {
  const std::string body("a\0\r\n\xff", 5);
  EXPECT_EQ("200 " + body,
            GetFrom("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n" + body));
}

TEST_F(CurlTransportTest, DoesNotDecodeABody) {
  EXPECT_EQ("200 \x1f\x8b", GetFrom("HTTP/1.1 200 OK\r\n"
                                    "Content-Encoding: gzip\r\n"
                                    "Content-Length: 2\r\n\r\n\x1f\x8b"));
}

TEST_F(CurlTransportTest, PassesOverInterimResponses) {
  EXPECT_EQ("200 ok", GetFrom(std::string("HTTP/1.1 100 Continue\r\n\r\n"
                                          "HTTP/1.1 103 Early Hints\r\n\r\n") +
                              kOk));
}

TEST_F(CurlTransportTest, ReadsHttp10) {
  EXPECT_EQ("200 ok", GetFrom("HTTP/1.0 200 OK\r\n\r\nok"));
}

TEST_F(CurlTransportTest, FollowsNoRedirect) {
  test::RawServer other(&loop_);
  other.SetAnswer(kOk, /*close_after=*/false);
  for (const char* status : {"301", "302", "303", "307", "308"}) {
    EXPECT_EQ(std::string(status) + " moved",
              GetFrom(std::string("HTTP/1.1 ") + status +
                      " Moved\r\nLocation: " + other.url() +
                      "/\r\nContent-Length: 5\r\n\r\nmoved"));
  }
  EXPECT_EQ(0, other.connections());
}

TEST_F(CurlTransportTest, SendsNoCookiesBack) {
  server_.SetAnswer(
      "HTTP/1.1 200 OK\r\nSet-Cookie: a=b; Path=/\r\n"
      "Content-Length: 0\r\n\r\n",
      /*close_after=*/false);
  Get();
  Get();
  const std::string request = "GET / HTTP/1.1\r\n" + HostLine() + "\r\n";
  EXPECT_EQ(request + request, server_.received());
}

TEST_F(CurlTransportTest, SendsNoCredentialsOfItsOwn) {
  EXPECT_THAT(GetFrom("HTTP/1.1 401 Unauthorized\r\n"
                      "WWW-Authenticate: Basic realm=\"x\"\r\n"
                      "Content-Length: 0\r\n\r\n"),
              StartsWith("401"));
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() + "\r\n", server_.received());
}

// What goes wrong.

TEST_F(CurlTransportTest, FailsWhenNobodyListens) {
  // A port that is taken, by somebody who does not listen.
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(0, bind(fd, generic, length));
  ASSERT_EQ(0, getsockname(fd, generic, &length));
  const Outcome outcome =
      Finish({request_type::kGet,
              "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)),
              {},
              ""});
  EXPECT_EQ(0, outcome.status);
  EXPECT_THAT(outcome.text, StartsWith("http/connect: "));
  close(fd);
}

TEST_F(CurlTransportTest, FailsWhenTheConnectionIsClosedEarly) {
  for (const char* answer :
       {"", "H", "HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\nContent-Le",
        "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nok",
        "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nab",
        "HTTP/1.1 100 Continue\r\n\r\n",
        "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n"}) {
    EXPECT_THAT(GetFrom(answer), StartsWith("http/protocol: ")) << answer;
  }
}

TEST_F(CurlTransportTest, FailsOnWhatIsNoHttp) {
  for (const char* answer :
       {"hello\n", "<html></html>", "SSH-2.0-some\r\n", "\r\n\r\n",
        "HTTP/1.1 xyz\r\n\r\n", "HTTP/9.9 200 OK\r\n\r\n",
        "HTTP/1.1 200 OK\r\nno colon\r\n\r\n",
        "HTTP/1.1 100 Continue\r\n\r\nHTTP/200 OK\r\n\r\n{}",
        "HTTP/1.1 101 Switching Protocols\r\n\r\n{}",
        "HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}) {
    EXPECT_THAT(GetFrom(answer), StartsWith("http/protocol: ")) << answer;
  }
}

TEST_F(CurlTransportTest, FailsWhenTheAnswerTakesTooLong) {
  transport_->SetDefaultTimeout(milliseconds(20));
  const Outcome outcome = Get();
  EXPECT_EQ(0, outcome.status);
  EXPECT_THAT(outcome.text, StartsWith("http/timeout: "));
}

TEST_F(CurlTransportTest, FailsWhenTheAnswerIsNotCompleteInTime) {
  transport_->SetDefaultTimeout(milliseconds(20));
  server_.SetAnswer("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nok",
                    /*close_after=*/false);
  EXPECT_THAT(Get().text, StartsWith("http/timeout: "));
}

TEST_F(CurlTransportTest, GivesEachRequestTheTimeThatWasSetWhenItStarted) {
  const auto unlimited = StartGet();
  transport_->SetDefaultTimeout(milliseconds(20));
  const auto limited = StartGet();
  transport_->SetDefaultTimeout(seconds(30));
  const auto longer = StartGet();
  WaitFor(*limited);
  EXPECT_THAT(limited->text, StartsWith("http/timeout: "));
  EXPECT_EQ(0, unlimited->runs);
  EXPECT_EQ(0, longer->runs);
}

TEST_F(CurlTransportTest, FailsOnABodyThatIsAnnouncedAsTooLarge) {
  EXPECT_EQ(kTooLarge, GetFrom("HTTP/1.1 200 OK\r\nContent-Length: " +
                               std::to_string(kMaxBodySize + 1) + "\r\n\r\n"));
  EXPECT_EQ(kTooLarge, GetFrom("HTTP/1.1 200 OK\r\n"
                               "Content-Length: 9223372036854775807\r\n\r\n"));
}

TEST_F(CurlTransportTest, TakesABodyOfTheLargestSize) {
  const std::string body(kMaxBodySize, 'x');
  EXPECT_TRUE("200 " + body ==
              GetFrom("HTTP/1.1 200 OK\r\nContent-Length: " +
                      std::to_string(kMaxBodySize) + "\r\n\r\n" + body));
  EXPECT_TRUE("200 " + body == GetFrom("HTTP/1.1 200 OK\r\n\r\n" + body));
}

TEST_F(CurlTransportTest, FailsOnABodyThatTurnsOutTooLarge) {
  const std::string body(kMaxBodySize + 1, 'x');
  EXPECT_EQ(kTooLarge, GetFrom("HTTP/1.1 200 OK\r\n\r\n" + body));
}

// The header as the server sends it, `size` bytes long with everything, of
// fields of at most `longest` bytes.
std::string HeaderOfSize(size_t size, size_t longest) {
  std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n";
  constexpr size_t kAround = 5;  // The name, the colon, a blank, the line end.
  const size_t end = size - 2;
  while (header.size() < end) {
    size_t line = std::min(longest, end - header.size());
    // Leaves enough for one more.
    const size_t left = end - header.size() - line;
    if (left > 0 && left <= kAround) line -= kAround + 1;
    header += "X: " + std::string(line - kAround, 'x') + "\r\n";
  }
  return header + "\r\n";
}

TEST_F(CurlTransportTest, TakesAHeaderOfTheLargestSize) {
  EXPECT_EQ("200 ", GetFrom(HeaderOfSize(kMaxHeaderSize, 1000)));
  EXPECT_EQ("200 ", GetFrom(HeaderOfSize(kMaxHeaderSize, kMaxHeaderSize)));
}

TEST_F(CurlTransportTest, FailsOnAHeaderThatIsTooLarge) {
  EXPECT_EQ(kTooLarge, GetFrom(HeaderOfSize(kMaxHeaderSize + 1, 1000)));
  EXPECT_EQ(kTooLarge, GetFrom(HeaderOfSize(1'000'000, 1000)));
}

TEST_F(CurlTransportTest, FailsOnAHeaderFieldThatIsTooLarge) {
  EXPECT_EQ(kTooLarge,
            GetFrom(HeaderOfSize(kMaxHeaderSize + 1, kMaxHeaderSize)));
  EXPECT_EQ(kTooLarge, GetFrom(HeaderOfSize(90'000, 90'000)));
  EXPECT_EQ(kTooLarge, GetFrom(HeaderOfSize(200'000, 200'000)));
}

TEST_F(CurlTransportTest, WorksOnAfterAFailure) {
  EXPECT_THAT(GetFrom("hello\n"), StartsWith("http/protocol: "));
  EXPECT_EQ("200 ok", GetFrom(kOk));
}

// What is refused.

TEST_F(CurlTransportTest, RefusesAUrlLater) {
  const std::string port = server_.authority().substr(10);
  for (const std::string& url :
       {"http://user@127.0.0.1:" + port + "/", "http://127.1:" + port + "/",
        server_.url() + "/a b", server_.url() + "/a\r\nX: y",
        server_.url() + "\\", "ftp://127.0.0.1:" + port + "/",
        std::string("file:///etc/passwd")}) {
    const Outcome outcome = Finish({request_type::kGet, url, {}, ""});
    EXPECT_EQ(0, outcome.status);
    EXPECT_THAT(outcome.text,
                StartsWith("http/invalid_url: The URL cannot be requested: "));
  }
  EXPECT_EQ(0, server_.connections());
}

TEST_F(CurlTransportTest, RefusesAHeaderLater) {
  for (const std::string& value :
       {std::string("a\r\nX: y"), std::string("a\n"), std::string("a\0b", 3)}) {
    const Outcome outcome = Get("/", {{"Authorization", value}});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(
        "http/invalid_header: The header field Authorization holds a byte that "
        "HTTP cannot carry",
        outcome.text);
  }
  EXPECT_EQ("http/invalid_header: The name of a header field is not valid",
            Get("/", {{"A\r\nB", "1"}}).text);
  EXPECT_EQ(0, server_.connections());
}

TEST_F(CurlTransportTest, ReportsNoRefusalAfterItsEnd) {
  const auto outcome = Start({request_type::kGet, "ftp://h/", {}, ""});
  transport_.reset();
  test::RunPending();
  EXPECT_EQ(0, outcome->runs);
}

// The environment.

class CurlTransportEnvironmentTest : public CurlTransportTest {
 protected:
  ~CurlTransportEnvironmentTest() override {
    for (const std::string& name : names_) unsetenv(name.c_str());
  }
  void Set(const std::string& name, const std::string& value) {
    names_.insert(name);
    setenv(name.c_str(), value.c_str(), 1);
  }

 private:
  std::set<std::string> names_;
};

TEST_F(CurlTransportEnvironmentTest, KnowsNoProxies) {
  test::RawServer proxy(&loop_);
  proxy.SetAnswer(kOk, /*close_after=*/false);
  for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy",
                           "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    Set(name, proxy.url());
  }
  Set("no_proxy", "");
  transport_ = Transport::CreateDefault();
  EXPECT_EQ("200 ok", GetFrom(kOk));
  EXPECT_EQ("GET / HTTP/1.1\r\n" + HostLine() + "\r\n", server_.received());
  EXPECT_EQ(0, proxy.connections());
}

TEST_F(CurlTransportEnvironmentTest, TakesNoOrdersForItsLibraries) {
  const std::vector<const char*> names = {"SSLKEYLOGFILE",
                                          "OPENSSL_CONF",
                                          "OPENSSL_CONF_INCLUDE",
                                          "OPENSSL_ENGINES",
                                          "OPENSSL_MODULES",
                                          "HOSTALIASES",
                                          "LOCALDOMAIN",
                                          "RES_OPTIONS",
                                          "RESOLV_HOST_CONF",
                                          "RESOLV_ADD_TRIM_DOMAINS",
                                          "RESOLV_OVERRIDE_TRIM_DOMAINS",
                                          "RESOLV_MULTI",
                                          "RESOLV_REORDER"};
  for (const char* name : names) Set(name, "/nowhere");
  transport_ = Transport::CreateDefault();
  for (const char* name : names) EXPECT_EQ(nullptr, getenv(name)) << name;
}

// Many requests, and the end.

TEST_F(CurlTransportTest, NumbersItsRequests) {
  std::set<RequestId> ids;
  for (int i = 0; i < 3; ++i) ids.insert(StartGet()->id);
  ids.insert(Start({request_type::kGet, "ftp://h/", {}, ""})->id);
  EXPECT_EQ(4u, ids.size());
  EXPECT_EQ(0u, ids.count(0));
}

TEST_F(CurlTransportTest, ServesManyRequestsAtOnce) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 200; ++i) {
    outcomes.push_back(StartGet("/" + std::to_string(i)));
  }
  for (const auto& outcome : outcomes) {
    WaitFor(*outcome);
    EXPECT_EQ("ok", outcome->text);
  }
  for (int i = 0; i < 200; ++i) {
    EXPECT_THAT(server_.received(),
                HasSubstr("GET /" + std::to_string(i) + " HTTP/1.1\r\n"));
  }
}

TEST_F(CurlTransportTest, MayOpenAsManyFilesAsAreAllowed) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit low{100, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
  const auto transport = Transport::CreateDefault();
  rlimit after{};
  getrlimit(RLIMIT_NOFILE, &after);
  EXPECT_EQ(std::min<rlim_t>(before.rlim_max, 65536), after.rlim_cur);
  EXPECT_EQ(before.rlim_max, after.rlim_max);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(CurlTransportTest, HoldsNoRequestUpForAnother) {
  const auto first = StartGet("/never");
  ASSERT_TRUE(test::RunUntil("the first request", [&] {
    return server_.received().find("/never") != std::string::npos;
  }));
  EXPECT_EQ("200 ok", GetFrom(kOk));
  EXPECT_EQ(0, first->runs);
}

TEST_F(CurlTransportTest, KeepsAConnectionForTheNextRequest) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get();
  Get();
  EXPECT_EQ(1, server_.connections());
}

// On the same connection.
TEST_F(CurlTransportTest, TakesNothingOverFromAnEarlierRequest) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  Get("/a?b=c", {{"Authorization", "Bearer abc"}});
  const size_t before = server_.received().size();
  Get();
  Post("body", {{"Content-Type", "text/plain"}});
  Post("", {{"Content-Type", "text/html"}});
  Get();
  const std::string get = "GET / HTTP/1.1\r\n" + HostLine() + "\r\n";
  const std::string post =
      "POST / HTTP/1.1\r\n" + HostLine() + "Content-Type: text/";
  EXPECT_EQ(get +                                                  //
                post + "plain\r\nContent-Length: 4\r\n\r\nbody" +  //
                post + "html\r\nContent-Length: 0\r\n\r\n" + get,
            server_.received().substr(before));
  EXPECT_EQ(1, server_.connections());
}

TEST_F(CurlTransportTest, ClosesAConnectionThatIsNotToBeKept) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  const Request request{request_type::kGet,
                        server_.url(),
                        {},
                        "",
                        /*keeps_connection=*/false};
  Get();
  EXPECT_EQ("ok", Finish(request).text);
  EXPECT_EQ("ok", Finish(request).text);
  EXPECT_EQ(2, server_.connections());
}

TEST_F(CurlTransportTest, KeepsConnectionsAfterAFewRequestsAtOnce) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 31; ++i) outcomes.push_back(StartGet());
  for (const auto& outcome : outcomes) WaitFor(*outcome);
  EXPECT_EQ(31, server_.connections());
  Get();
  EXPECT_EQ(31, server_.connections());
}

TEST_F(CurlTransportTest, KeepsConnectionsBetweenVolleysOfRequests) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  for (int volley = 0; volley < 3; ++volley) {
    std::vector<std::shared_ptr<Outcome>> outcomes;
    for (int i = 0; i < 200; ++i) outcomes.push_back(StartGet());
    for (const auto& outcome : outcomes) WaitFor(*outcome);
  }
  EXPECT_EQ(200, server_.connections());
}

TEST_F(CurlTransportTest, ClosesItsConnectionsWhenItIsQuietAfterABurst) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 32; ++i) outcomes.push_back(StartGet());
  for (const auto& outcome : outcomes) WaitFor(*outcome);
  EXPECT_EQ(32u, server_.open_connections());
  EXPECT_TRUE(test::RunUntil("the end of the connections", [this] {
    return server_.open_connections() == 0;
  }));
  // The burst is over: what comes then is kept again.
  EXPECT_EQ("ok", Get().text);
  EXPECT_EQ("ok", Get().text);
  EXPECT_EQ(33, server_.connections());
}

TEST_F(CurlTransportTest, KeepsWhatIsUnderWayWhenABurstEnds) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 32; ++i) outcomes.push_back(StartGet());
  for (const auto& outcome : outcomes) WaitFor(*outcome);
  test::RawServer slow(&loop_);
  const std::shared_ptr<Outcome> pending =
      Start({request_type::kGet, slow.url() + "/", {}, ""});
  bool is_over = false;
  base::Timer later(&loop_, [&] { is_over = true; });
  later.Start(std::chrono::milliseconds(1500));
  ASSERT_TRUE(test::RunUntil("the end of the burst", [&] { return is_over; }));
  EXPECT_EQ(0, pending->runs);
  EXPECT_EQ(32u, server_.open_connections());
}

// The server may have acted on it.
TEST_F(CurlTransportTest, SendsNothingTwiceWhenAKeptConnectionBreaks) {
  for (const bool post : {false, true}) {
    server_.SetAnswer(kOk, /*close_after=*/false);
    EXPECT_EQ("ok", Get("/first").text);
    server_.SetAnswer("", /*close_after=*/true);
    const Outcome outcome = post ? Post("body") : Get("/second");
    EXPECT_EQ("http/protocol: The connection broke before there was an answer",
              outcome.text);
    const std::string line =
        post ? "POST / HTTP/1.1\r\n" : "GET /second HTTP/1.1\r\n";
    const std::string received = server_.received();
    const size_t found = received.find(line);
    ASSERT_NE(std::string::npos, found);
    EXPECT_EQ(std::string::npos, received.find(line, found + 1));
  }
}

TEST_F(CurlTransportTest, RefusesAHeaderThatIsTooLarge) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  EXPECT_EQ("ok", Get("/" + std::string(500'000, 'x')).text);
  EXPECT_EQ(
      "http/too_large: The request header is larger than this device sends",
      Get("/" + std::string(600'000, 'x')).text);
}

TEST_F(CurlTransportTest, ReplacesAConnectionThatTheServerHasClosed) {
  EXPECT_EQ("200 ok", GetFrom(kOk));
  EXPECT_EQ("200 ok", GetFrom(kOk));
  EXPECT_EQ(2, server_.connections());
}

TEST_F(CurlTransportTest, GivesItsRequestsUpAtItsEnd) {
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> weak_token = token;
  const auto in_flight = StartGet("/", [token = std::move(token)] {});
  ASSERT_TRUE(test::RunUntil("the request",
                             [&] { return !server_.received().empty(); }));
  const auto not_begun = StartGet();
  transport_.reset();
  EXPECT_TRUE(weak_token.expired());
  test::RunPending();
  EXPECT_EQ(0, in_flight->runs);
  EXPECT_EQ(0, not_begun->runs);
}

TEST_F(CurlTransportTest, LetsGoOfItsCallbacksWhenTheyHaveRun) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> weak_token = token;
  WaitFor(*StartGet("/", [token = std::move(token)] {}));
  EXPECT_TRUE(weak_token.expired());
}

TEST_F(CurlTransportTest, MayBeReleasedInACallback) {
  const std::weak_ptr<Transport> weak = transport_;
  const auto pending = StartGet("/never");
  ASSERT_TRUE(test::RunUntil("the request",
                             [&] { return !server_.received().empty(); }));
  server_.SetAnswer(kOk, /*close_after=*/false);
  const auto outcome = StartGet("/", [&] { Release(weak); });
  WaitFor(*outcome);
  EXPECT_EQ("ok", outcome->text);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(0, pending->runs);
}

TEST_F(CurlTransportTest, MayBeReleasedInTheCallbackOfAFailure) {
  const std::weak_ptr<Transport> weak = transport_;
  server_.SetAnswer("hello\n", /*close_after=*/true);
  const auto outcome = StartGet("/", [&] { Release(weak); });
  WaitFor(*outcome);
  EXPECT_THAT(outcome->text, StartsWith("http/protocol: "));
  EXPECT_TRUE(weak.expired());
}

TEST_F(CurlTransportTest, MayBeReleasedInTheCallbackOfARefusal) {
  const std::weak_ptr<Transport> weak = transport_;
  const auto outcome =
      Start({request_type::kGet, "ftp://h/", {}, ""}, [&] { Release(weak); });
  WaitFor(*outcome);
  EXPECT_TRUE(weak.expired());
}

TEST_F(CurlTransportTest, MayStartARequestInACallback) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  std::shared_ptr<Outcome> second, third;
  const auto first = StartGet("/1", [&] {
    second = StartGet("/2", [&] {
      third = Start({request_type::kGet, "ftp://h/", {}, ""});
      EXPECT_EQ(0, third->runs);
    });
    EXPECT_EQ(0, second->runs);
  });
  ASSERT_TRUE(test::RunUntil("the last outcome",
                             [&] { return third && third->runs > 0; }));
  EXPECT_EQ("ok", first->text);
  EXPECT_EQ("ok", second->text);
  EXPECT_THAT(third->text, StartsWith("http/invalid_url: "));
}

// Both ends of each connection are in this process.
TEST(CurlTransportDeathTest, ServesMoreRequestsThanThereMayBeFiles) {
  const auto run = [] {
    const rlimit limit{110, 110};
    setrlimit(RLIMIT_NOFILE, &limit);
    base::EventLoop loop;
    test::RawServer server(&loop);
    server.SetAnswer(kOk, /*close_after=*/false);
    const auto transport = Transport::CreateDefault();
    int successes = 0, failures = 0;
    constexpr int kRequests = 100;
    for (int i = 0; i < kRequests; ++i) {
      transport->StartAsyncTransfer(
          {request_type::kGet, server.url(), {}, ""},
          [&](RequestId, std::unique_ptr<Response>) { ++successes; },
          [&](RequestId, const Error*) { ++failures; });
    }
    const bool done = test::RunUntil(
        "the outcomes", [&] { return successes + failures == kRequests; });
    // The transport leaves files for others.
    if (server.connections() > (110 - 64) / 4) _exit(2);
    _exit(done && failures == 0 ? 0 : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(CurlTransportTest, MayStandBesideAnother) {
  server_.SetAnswer(kOk, /*close_after=*/false);
  const std::shared_ptr<Transport> first =
      std::exchange(transport_, Transport::CreateDefault());
  EXPECT_EQ("ok", Get().text);
  transport_ = first;
  EXPECT_EQ("ok", Get().text);
}

}  // namespace
}  // namespace kestrix::http
