// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is the content of a message, one value after the other. A value is
// a letter and what belongs to it:
//   s TEXT line, o (object path) TEXT line, b or i or u or x or d DIGITS line
//   a  an array of strings: lines up to an empty one
//   {  a dictionary: pairs of a line, the name, and a value, up to }
//   v  a variant that holds the next value
//   I  an array of integers: lines up to an empty one
//   (  a structure of values, up to )

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "dbus/message.h"
#include "fuzz/fuzz_target.h"
#include "kestrix/dbus_utils/data_serialization.h"
#include "kestrix/variant_dictionary.h"
#include "tests/support/test_message.h"

namespace {

using fuzz::Script;
using kestrix::Any;
using kestrix::VariantDictionary;

// One value of the input.
struct Item {
  std::string Signature() const;
  // False if the bus library does not take it.
  bool AppendTo(sd_bus_message* message) const;
  // What the product is to make of the value.
  Any ToAny() const;
  VariantDictionary ToDictionary() const;
  int Depth() const;

  char type = 0;
  std::string text;
  std::vector<std::string> lines;
  std::vector<Item> items;
};

constexpr char kDictionary[] = "a{sv}";

std::string Item::Signature() const {
  switch (type) {
    case 'a':
      return "as";
    case 'I':
      return "ai";
    case '{':
      return kDictionary;
    case '(': {
      std::string signature = "(";
      for (const Item& item : items) signature += item.Signature();
      return signature + ")";
    }
    default:
      return std::string(1, type);
  }
}

bool Open(sd_bus_message* message, char type, const std::string& contents) {
  return sd_bus_message_open_container(message, type, contents.c_str()) >= 0;
}

bool Close(sd_bus_message* message) {
  return sd_bus_message_close_container(message) >= 0;
}

bool AppendVariant(sd_bus_message* message, const Item& content) {
  return Open(message, 'v', content.Signature()) && content.AppendTo(message) &&
         Close(message);
}

bool Append(sd_bus_message* message, char type, const void* value) {
  return sd_bus_message_append_basic(message, type, value) >= 0;
}

bool Item::AppendTo(sd_bus_message* message) const {
  const long long number = strtoll(text.c_str(), nullptr, 10);
  const int boolean = (number & 1) != 0;
  const auto narrow = static_cast<int32_t>(number);
  const auto real = static_cast<double>(number);
  switch (type) {
    case 's':
    case 'o':
      return Append(message, type, text.c_str());
    case 'b':
      return Append(message, type, &boolean);
    case 'i':
    case 'u':
      return Append(message, type, &narrow);
    case 'x':
      return Append(message, type, &number);
    case 'd':
      return Append(message, type, &real);
    case 'v':
      return AppendVariant(message, items[0]);
    case '(':
      if (!Open(message, 'r', Signature().substr(1, Signature().size() - 2))) {
        return false;
      }
      for (const Item& item : items) {
        if (!item.AppendTo(message)) return false;
      }
      return Close(message);
    case 'a':
      if (!Open(message, 'a', "s")) return false;
      for (const std::string& line : lines) {
        if (!Append(message, 's', line.c_str())) return false;
      }
      return Close(message);
    case 'I':
      if (!Open(message, 'a', "i")) return false;
      for (const std::string& line : lines) {
        const int value = atoi(line.c_str());
        if (!Append(message, 'i', &value)) return false;
      }
      return Close(message);
    default:
      if (!Open(message, 'a', "{sv}")) return false;
      for (size_t i = 0; i < items.size(); ++i) {
        if (!Open(message, 'e', "sv") ||
            !Append(message, 's', lines[i].c_str()) ||
            !AppendVariant(message, items[i]) || !Close(message)) {
          return false;
        }
      }
      return Close(message);
  }
}

Any Item::ToAny() const {
  const long long number = strtoll(text.c_str(), nullptr, 10);
  switch (type) {
    case 's':
      return Any(std::string(text.c_str()));
    case 'b':
      return Any((number & 1) != 0);
    case 'i':
      return Any(static_cast<int32_t>(number));
    case 'a': {
      std::vector<std::string> strings;
      for (const std::string& line : lines) strings.emplace_back(line.c_str());
      return Any(std::move(strings));
    }
    case '{':
      return Any(ToDictionary());
    default:
      return Any();
  }
}

VariantDictionary Item::ToDictionary() const {
  VariantDictionary dictionary;
  for (size_t i = 0; i < items.size(); ++i) {
    dictionary[lines[i].c_str()] = items[i].ToAny();
  }
  return dictionary;
}

int Item::Depth() const {
  int depth = 0;
  for (const Item& item : items) depth = std::max(depth, item.Depth());
  return depth + 1;
}

constexpr int kMaxDepth = 70;
// The bus library writes deeper values than it reads. No bus passes any of them
// on.
constexpr int kMaxReadableDepth = 32;

Item TakeItem(Script* script, int depth = 0) {
  Item item;
  item.type = script->TakeChar();
  switch (item.type) {
    case 's':
    case 'o':
    case 'b':
    case 'i':
    case 'u':
    case 'x':
    case 'd':
      item.text = script->TakeLine();
      return item;
    case 'a':
    case 'I':
      while (!script->AtEnd()) {
        item.lines.push_back(script->TakeLine());
        if (!item.lines.back().empty()) continue;
        item.lines.pop_back();
        break;
      }
      return item;
    case 'v':
      if (depth > kMaxDepth) return Item{'s', "", {}, {}};
      item.items.push_back(TakeItem(script, depth + 1));
      return item;
    case '(':
    case '{':
      while (depth <= kMaxDepth && !script->AtEnd()) {
        std::string name;
        if (item.type == '{') name = script->TakeLine();
        if (name == "}") break;
        Item next = TakeItem(script, depth + 1);
        if (next.type == ')') break;
        item.lines.push_back(name);
        item.items.push_back(std::move(next));
      }
      // An empty structure is none.
      if (item.type == '(' && item.items.empty()) item.type = '{';
      return item;
    case ')':
      if (depth > 0) return item;
      [[fallthrough]];
    default:
      return Item{'s', "", {}, {}};
  }
}

template <typename T>
bool HaveSame(const Any& a, const Any& b) {
  const T* x = a.GetIf<T>();
  const T* y = b.GetIf<T>();
  return x && y && *x == *y;
}

bool IsSame(const VariantDictionary& a, const VariantDictionary& b);

bool IsSame(const Any& a, const Any& b) {
  const auto* x = a.GetIf<VariantDictionary>();
  const auto* y = b.GetIf<VariantDictionary>();
  return (a.is_empty() && b.is_empty()) || HaveSame<bool>(a, b) ||
         HaveSame<int32_t>(a, b) || HaveSame<std::string>(a, b) ||
         HaveSame<std::vector<std::string>>(a, b) || (x && y && IsSame(*x, *y));
}

bool IsSame(const VariantDictionary& a, const VariantDictionary& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) {
                      return x.first == y.first && IsSame(x.second, y.second);
                    });
}

VariantDictionary WithoutEmpty(const VariantDictionary& dictionary) {
  VariantDictionary kept;
  for (const auto& [name, value] : dictionary) {
    if (value.is_empty()) continue;
    const auto* inner = value.GetIf<VariantDictionary>();
    kept[name] = inner ? Any(WithoutEmpty(*inner)) : value;
  }
  return kept;
}

// Reads what follows, whatever it is.
void Walk(dbus::MessageReader* reader) {
  std::string contents;
  while (const char type = reader->PeekType(&contents)) {
    CHECK(reader->HasMoreData());
    std::string text;
    bool boolean = false;
    int32_t number = 0;
    uint32_t size = 0;
    if (reader->PopString(&text) || reader->PopObjectPath(&text) ||
        reader->PopBool(&boolean) || reader->PopInt32(&number) ||
        reader->PopUint32(&size)) {
      CHECK(contents.empty() &&
            std::string_view("sobiu").find(type) != std::string_view::npos)
          << "Read as something else: " << type;
      continue;
    }
    const bool opened =
        (type == 'a' && reader->OpenArray(contents.c_str())) ||
        (type == 'v' && reader->OpenVariant(contents.c_str())) ||
        (type == 'e' && reader->OpenDictEntry(contents.c_str()));
    if (opened) {
      Walk(reader);
      CHECK(reader->Close()) << "Not closed";
    } else {
      CHECK(reader->Skip()) << "Neither read nor skipped: " << type;
    }
  }
  CHECK(!reader->HasMoreData()) << "Not at the end";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static test::MessageBench bench;
  Script script(data, size);
  std::vector<Item> items;
  while (!script.AtEnd()) items.push_back(TakeItem(&script));
  dbus::Message message = bench.NewCall();
  for (const Item& item : items) {
    if (!item.AppendTo(message.get())) return 0;
  }
  // Signatures have a limit.
  if (sd_bus_message_seal(message.get(), /*cookie=*/1, /*timeout_usec=*/0) <
          0 ||
      sd_bus_message_rewind(message.get(), /*complete=*/1) < 0) {
    return 0;
  }

  dbus::MessageReader reader(&message);
  for (const Item& item : items) {
    if (item.Depth() > kMaxReadableDepth) {
      VariantDictionary ignored;
      kestrix::dbus_utils::PopValueFromReader(&reader, &ignored);
      return 0;
    }
    VariantDictionary dictionary;
    dictionary["untouched"] = Any(true);
    const VariantDictionary before = dictionary;
    const bool is_dictionary =
        kestrix::dbus_utils::PopValueFromReader(&reader, &dictionary);
    CHECK(is_dictionary == (item.type == '{'))
        << "Read as a dictionary, or not";
    if (!is_dictionary) {
      CHECK(IsSame(dictionary, before)) << "Touched";
      CHECK(reader.Skip()) << "Not skipped";
      continue;
    }
    CHECK(IsSame(dictionary, item.ToDictionary())) << "Another dictionary";

    dbus::Message copy = bench.NewCall();
    dbus::MessageWriter writer(&copy);
    CHECK(kestrix::dbus_utils::AppendValueToWriter(&writer, dictionary))
        << "Not written";
    bench.Seal(&copy);
    CHECK(copy.GetSignature() == kDictionary);
    dbus::MessageReader copy_reader(&copy);
    VariantDictionary again;
    CHECK(kestrix::dbus_utils::PopValueFromReader(&copy_reader, &again) &&
          !copy_reader.HasMoreData())
        << "Not read again";
    CHECK(IsSame(again, WithoutEmpty(dictionary))) << "Another copy";
  }
  CHECK(!reader.HasMoreData()) << "Not at the end";

  sd_bus_message_rewind(message.get(), /*complete=*/1);
  Walk(&reader);
  return 0;
}
