// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/http/http_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "base/json_reader.h"
#include "base/json_writer.h"
#include "kestrix/http/http_constants.h"
#include "tests/support/fake_transport.h"
#include "tests/support/test_loop.h"

namespace kestrix::http {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr char kUrl[] = "https://h/path";

TEST(HttpConstantsTest, AreThoseOfHttp) {
  EXPECT_EQ(400, status_code::kBadRequest);
  EXPECT_EQ(401, status_code::kDenied);
  EXPECT_STREQ("GET", request_type::kGet);
  EXPECT_STREQ("POST", request_type::kPost);
  EXPECT_STREQ("Authorization", request_header::kAuthorization);
  EXPECT_STREQ("Content-Type", request_header::kContentType);
  EXPECT_STREQ("application/json", mime::application::kJson);
  EXPECT_STREQ("application/x-www-form-urlencoded",
               mime::application::kWwwFormUrlEncoded);
}

class HttpUtilsTest : public testing::Test {
 protected:
  // The request that was asked for last.
  const Request& GetRequest() const { return transport_->requests().back(); }

  RequestId SendJson(std::unique_ptr<base::Value> json,
                     const HeaderList& headers = {}) {
    return PostJson(kUrl, std::move(json), headers, transport_, on_success_,
                    on_error_);
  }
  RequestId SendForm(const FormFieldList& fields,
                     const HeaderList& headers = {}) {
    return PostFormData(kUrl, fields, headers, transport_, on_success_,
                        on_error_);
  }
  // The body that stands for a form with one field.
  std::string Encode(const std::string& name, const std::string& value) {
    SendForm({{name, value}});
    return GetRequest().body;
  }

  base::EventLoop loop_;
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  std::vector<std::string> outcomes_;
  const SuccessCallback on_success_ =
      [this](RequestId id, std::unique_ptr<Response> response) {
        outcomes_.push_back(std::to_string(id) + ": " +
                            std::to_string(response->GetStatusCode()) + " " +
                            response->body());
      };
  const ErrorCallback on_error_ = [this](RequestId id, const Error* error) {
    outcomes_.push_back(std::to_string(id) + ": " + error->GetDomain() + "/" +
                        error->GetCode() + ": " + error->GetMessage());
  };
};

using GetTest = HttpUtilsTest;
using PostJsonTest = HttpUtilsTest;
using PostFormDataTest = HttpUtilsTest;

TEST_F(GetTest, SendsExactlyTheGivenHeaders) {
  const HeaderList headers = {{"B", "2"}, {"A", "1"}, {"Content-Type", "x"}};
  EXPECT_EQ(1, Get(kUrl, headers, transport_, on_success_, on_error_));
  EXPECT_EQ("GET", GetRequest().method);
  EXPECT_EQ(kUrl, GetRequest().url);
  EXPECT_EQ(headers, GetRequest().headers);
  EXPECT_EQ("", GetRequest().body);
  EXPECT_EQ(2, Get(kUrl, {}, transport_, on_success_, on_error_));
  EXPECT_THAT(GetRequest().headers, IsEmpty());
}

TEST_F(GetTest, PassesTheOutcomeOn) {
  Get(kUrl, {}, transport_, on_success_, on_error_);
  Get(kUrl, {}, transport_, on_success_, on_error_);
  EXPECT_THAT(outcomes_, IsEmpty());
  transport_->Fail(1, "connect", "no route");
  transport_->Answer(0, 404, "body");
  EXPECT_THAT(outcomes_,
              ElementsAre("2: http/connect: no route", "1: 404 body"));
}

TEST_F(PostJsonTest, SendsTheValueWrittenOut) {
  EXPECT_EQ(1, SendJson(base::JSONReader::Read(
                   R"( { "b" : [ 1.10 , null ] , "a" : "x" } )")));
  EXPECT_EQ("POST", GetRequest().method);
  EXPECT_EQ(kUrl, GetRequest().url);
  EXPECT_EQ(R"({"b":[1.10,null],"a":"x"})", GetRequest().body);
}

TEST_F(PostJsonTest, SaysThatItIsJsonAfterTheGivenHeaders) {
  SendJson(std::make_unique<base::Value>("true"), {{"B", "2"}, {"A", "1"}});
  EXPECT_THAT(GetRequest().headers,
              ElementsAre(Pair("B", "2"), Pair("A", "1"),
                          Pair("Content-Type", "application/json")));
}

TEST_F(PostJsonTest, KeepsTheConnection) {
  SendJson(std::make_unique<base::Value>("true"));
  EXPECT_TRUE(GetRequest().keeps_connection);
}

TEST_F(PostJsonTest, LeavesTheContentTypeToTheCaller) {
  const HeaderList headers = {{"content-TYPE", "text/x"}, {"A", "1"}};
  SendJson(std::make_unique<base::Value>("true"), headers);
  EXPECT_EQ(headers, GetRequest().headers);
}

TEST_F(PostJsonTest, PassesTheOutcomeOn) {
  SendJson(std::make_unique<base::Value>("true"));
  SendJson(std::make_unique<base::Value>("true"));
  transport_->Answer(0, 200, "body");
  transport_->Fail(1, "connect", "no route");
  EXPECT_THAT(outcomes_,
              ElementsAre("1: 200 body", "2: http/connect: no route"));
}

TEST_F(PostJsonTest, RefusesAValueThatIsTooLargeLater) {
  EXPECT_EQ(0,
            SendJson(std::make_unique<base::Value>(
                "\"" + std::string(base::JSONWriter::kMaxSize, 'x') + "\"")));
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(outcomes_, IsEmpty());
  test::RunPending();
  EXPECT_THAT(outcomes_, ElementsAre("0: http/too_large: The request body is "
                                     "larger than this device sends"));
}

TEST_F(PostFormDataTest, DoesNotKeepTheConnection) {
  SendForm({{"a", "b"}});
  EXPECT_FALSE(GetRequest().keeps_connection);
}

TEST_F(PostFormDataTest, SendsTheFieldsInTheirOrder) {
  EXPECT_EQ(1, SendForm({{"z", "1"}, {"a", "2"}, {"z", "3"}}));
  EXPECT_EQ("POST", GetRequest().method);
  EXPECT_EQ(kUrl, GetRequest().url);
  EXPECT_EQ("z=1&a=2&z=3", GetRequest().body);
  EXPECT_THAT(
      GetRequest().headers,
      ElementsAre(Pair("Content-Type", "application/x-www-form-urlencoded")));
}

TEST_F(PostFormDataTest, LeavesTheContentTypeToTheCaller) {
  SendForm({}, {{"A", "1"}, {"CONTENT-TYPE", "text/x"}});
  EXPECT_THAT(GetRequest().headers,
              ElementsAre(Pair("A", "1"), Pair("CONTENT-TYPE", "text/x")));
}

TEST_F(PostFormDataTest, SendsAnEmptyBodyWithoutFields) {
  SendForm({});
  EXPECT_EQ("", GetRequest().body);
}

TEST_F(PostFormDataTest, SendsFieldsWithoutAName) {
  SendForm({{"", ""}, {"", "v"}, {"n", ""}});
  EXPECT_EQ("=&=v&n=", GetRequest().body);
}

TEST_F(PostFormDataTest, LeavesUnreservedBytesAlone) {
  const std::string unreserved =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  EXPECT_EQ("n=" + unreserved, Encode("n", unreserved));
}

TEST_F(PostFormDataTest, EncodesAllOtherBytes) {
  EXPECT_EQ("n=%20%2B%26%3D%25", Encode("n", " +&=%"));
  EXPECT_EQ("n=%3A%2F%3F%23%5B%5D%40", Encode("n", ":/?#[]@"));
  EXPECT_EQ("n=%21%24%27%28%29%2A%2C%3B", Encode("n", "!$'()*,;"));
  EXPECT_EQ("n=%0D%0A%09%7F", Encode("n", "\r\n\t\x7f"));
  EXPECT_EQ("n=%C3%A4%FF", Encode("n", "\xc3\xa4\xff"));
  EXPECT_EQ("n=a%00b", Encode("n", std::string("a\0b", 3)));
  EXPECT_EQ("n=%00", Encode("n", std::string("\0", 1)));
  EXPECT_EQ("a%20b%3D=v", Encode("a b=", "v"));
}

TEST_F(PostFormDataTest, RefusesAFieldThatIsTooLargeLater) {
  // Three bytes each when it is encoded.
  const std::string large(9'000'000, ' ');
  EXPECT_EQ(0, SendForm({{"a", "1"}, {"b", large}, {"c", "3"}}));
  EXPECT_EQ(0, SendForm({{large, "1"}}));
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(outcomes_, IsEmpty());
  test::RunPending();
  const std::string refusal =
      "0: http/too_large: The request body is larger than this device sends";
  EXPECT_THAT(outcomes_, ElementsAre(refusal, refusal));
}

TEST_F(PostFormDataTest, PassesTheOutcomeOn) {
  SendForm({});
  transport_->Answer(0, 200, "body");
  EXPECT_THAT(outcomes_, ElementsAre("1: 200 body"));
}

class ParseJsonResponseTest : public testing::Test {
 protected:
  std::unique_ptr<base::DictionaryValue> Parse(int status,
                                               const std::string& body) {
    const Response response(status, body);
    error_.reset();
    status_code_ = -1;
    return ParseJsonResponse(&response, &status_code_, &error_);
  }

  int status_code_ = -1;
  std::unique_ptr<Error> error_;
};

TEST_F(ParseJsonResponseTest, ReadsAnObject) {
  const auto object = Parse(200, R"({"key": "value"})");
  ASSERT_NE(nullptr, object);
  EXPECT_EQ(200, status_code_);
  EXPECT_EQ(nullptr, error_);
  std::string value;
  EXPECT_TRUE(object->GetString("key", &value));
  EXPECT_EQ("value", value);
}

TEST_F(ParseJsonResponseTest, ReadsAnObjectWhateverTheStatus) {
  for (const int status : {100, 204, 302, 400, 401, 500, 999}) {
    EXPECT_NE(nullptr, Parse(status, "{}"));
    EXPECT_EQ(status, status_code_);
  }
}

TEST_F(ParseJsonResponseTest, RefusesWhatIsNoObject) {
  for (const char* body : {"", " ", "[]", "[{}]", "\"{}\"", "1", "null", "true",
                           "{", "{}x", "{'a':1}", "<html>", "\xef\xbb\xbf{}"}) {
    EXPECT_EQ(nullptr, Parse(201, body)) << body;
    EXPECT_EQ(201, status_code_);
    ASSERT_NE(nullptr, error_);
    EXPECT_EQ("http", error_->GetDomain());
    EXPECT_EQ("protocol", error_->GetCode());
    EXPECT_EQ("The response body is not a JSON object", error_->GetMessage());
    EXPECT_STREQ("ParseJsonResponse", error_->GetLocation().function);
  }
}

TEST_F(ParseJsonResponseTest, KeepsTheReasonToItselfIfNobodyAsked) {
  const Response response(500, "[]");
  EXPECT_EQ(nullptr, ParseJsonResponse(&response, &status_code_, nullptr));
  EXPECT_EQ(500, status_code_);
}

}  // namespace
}  // namespace kestrix::http
