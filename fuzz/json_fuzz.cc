// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is a JSON text.

#include <memory>
#include <set>
#include <string>

#include "base/json_reader.h"
#include "base/json_writer.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/json_model.h"
#include "kestrix/http/http_utils.h"

namespace {

using fuzz::JsonModel;

// What the product reads from `text`, written out. Empty if it refuses.
std::string Rewrite(const std::string& text) {
  const std::unique_ptr<base::Value> value = base::JSONReader::Read(text);
  std::string written;
  if (value) CHECK(base::JSONWriter::Write(*value, &written)) << "Not written";
  return written;
}

// All names in `model`, however deep.
void CollectNames(const JsonModel& model, std::set<std::string>* names) {
  names->insert(model.names.begin(), model.names.end());
  for (const JsonModel& item : model.items) CollectNames(item, names);
}

void CheckMembers(const std::string& text, const JsonModel& model) {
  const kestrix::http::Response response(200, text);
  int status = 0;
  const std::unique_ptr<base::DictionaryValue> json =
      kestrix::http::ParseJsonResponse(&response, &status, nullptr);
  const bool is_object = model.kind == JsonModel::Kind::kObject;
  CHECK((json != nullptr) == is_object) << "An object, or none: " << text;
  if (!json) return;
  std::set<std::string> names{"a name that nobody uses"};
  CollectNames(model, &names);
  for (const std::string& name : names) {
    const std::string* expected = model.FindString(name);
    std::string found = "untouched";
    std::string read = found;
    CHECK(json->GetString(name, &found) == (expected != nullptr))
        << "A string, or none: " << name;
    CHECK(base::JSONReader::ReadStringMember(text, name, &read) ==
          (expected != nullptr))
        << "A string, or none: " << name;
    CHECK(found == (expected ? *expected : "untouched") && read == found)
        << "Another value of " << name << ": " << found << ", " << read;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::Script(data, size).TakeRest();
  const fuzz::JsonVerdict verdict = fuzz::JudgeJson(text);
  const std::string written = Rewrite(text);
  if (!verdict.doubtful) {
    CHECK(written.empty() == !verdict.value)
        << (verdict.value ? "Refused" : "Accepted");
  }
  if (written.empty() || !verdict.value) return 0;

  fuzz::CheckCompact(written);
  CHECK(fuzz::JudgeJson(written).value == verdict.value)
      << "Another meaning: " << written;
  CHECK(Rewrite(written) == written) << "Not stable: " << written;
  CheckMembers(text, *verdict.value);
  CheckMembers(written, *verdict.value);
  return 0;
}
