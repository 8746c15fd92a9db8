// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// What the functions cost that every request passes through.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <utility>

#include "base/json_reader.h"
#include "base/json_writer.h"
#include "dbus/message.h"
#include "platform/actions/cloud-actions/http_url.h"
#include "tests/support/test_message.h"

namespace {

constexpr char kUrl[] =
    "https://cloud.vantrel.example/v1/homes/4711/lamps?state=on&limit=20";

void ParseUrl(benchmark::State& state) {
  for (auto _ : state) {
    halvex::actions::HTTPURL url;
    benchmark::DoNotOptimize(url.Parse(kUrl));
  }
}
BENCHMARK(ParseUrl);

// The endpoint that allows the URL is the last of so many.
void MatchEndpoint(benchmark::State& state) {
  halvex::actions::AllowedEndpoints endpoints;
  for (int64_t n = state.range(0) - 1; n >= 0; --n) {
    auto endpoint = std::make_unique<halvex::actions::HTTPURL>();
    const bool parsed = endpoint->Parse(
        n == 0 ? std::string("https://cloud.vantrel.example/v1/homes/")
               : "https://cloud.vantrel.example/v1/other/" + std::to_string(n));
    if (!parsed) state.SkipWithError("an endpoint is no URL");
    endpoints.push_back(std::move(endpoint));
  }
  halvex::actions::HTTPURL url;
  if (!url.Parse(kUrl) || !IsEndpointAllowed(endpoints, url)) {
    state.SkipWithError("no endpoint allows the URL");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(IsEndpointAllowed(endpoints, url));
  }
}
BENCHMARK(MatchEndpoint)->Arg(1)->Arg(100)->Arg(10'000);

// An object of about so many bytes.
std::string MakeObject(int64_t size) {
  std::string text = R"({"home": 4711, "lamps": [)";
  for (int n = 0; static_cast<int64_t>(text.size()) < size - 90; ++n) {
    if (n > 0) text += ", ";
    text += R"({"id": "lamp-)" + std::to_string(n) +
            R"(", "name": "K\u00fcche \"links\"", "on": true, )"
            R"("level": 0.75, "color": null})";
  }
  return text + "]}";
}

void ReadJson(benchmark::State& state) {
  const std::string text = MakeObject(state.range(0));
  if (!base::JSONReader::Read(text)) state.SkipWithError("no JSON");
  for (auto _ : state) {
    benchmark::DoNotOptimize(base::JSONReader::Read(text));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}
BENCHMARK(ReadJson)->Arg(200)->Arg(10'000)->Arg(1'000'000);

void WriteJson(benchmark::State& state) {
  const auto value = base::JSONReader::Read(MakeObject(state.range(0)));
  for (auto _ : state) {
    std::string text;
    benchmark::DoNotOptimize(base::JSONWriter::Write(*value, &text));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(value->text().size()));
}
BENCHMARK(WriteJson)->Arg(200)->Arg(10'000)->Arg(1'000'000);

void BuildReply(benchmark::State& state) {
  test::MessageBench bus;
  const dbus::Message call = bus.NewReadableCall("sss", kUrl, "GET", "");
  const auto value = base::JSONReader::Read(MakeObject(state.range(0)));
  for (auto _ : state) {
    dbus::Message reply = call.CreateReply();
    dbus::MessageWriter writer(&reply);
    benchmark::DoNotOptimize(writer.AppendInt32(200));
    benchmark::DoNotOptimize(writer.AppendString(value->text()));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(value->text().size()));
}
BENCHMARK(BuildReply)->Arg(200)->Arg(10'000)->Arg(1'000'000);

}  // namespace

BENCHMARK_MAIN();
