// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_reader.h"

// The parser alone, with the few definitions that it needs: the library's own
// way of header-only use brings in code that does not build without exceptions.
#include <algorithm>
#include <array>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/detail/impl/default_resource.ipp>
#include <boost/json/detail/impl/stack.ipp>
#include <boost/json/impl/error.ipp>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "base/utf8.h"

// The parser is told of errors through error codes, so these are reached only
// if its own invariants break.
namespace boost {
void throw_exception(const std::exception& exception) {
  LOG(FATAL) << "JSON parser: " << exception.what();
  std::abort();
}
void throw_exception(const std::exception& exception, const source_location&) {
  throw_exception(exception);
}
}  // namespace boost

namespace base {
namespace {

void AppendUnicodeEscape(uint32_t unit, std::string* output) {
  constexpr char kHex[] = "0123456789abcdef";
  *output += {'\\',
              'u',
              kHex[unit >> 12 & 0xf],
              kHex[unit >> 8 & 0xf],
              kHex[unit >> 4 & 0xf],
              kHex[unit & 0xf]};
}

void AppendControlCharacter(char c, std::string* output) {
  switch (c) {
    case '\b':
      output->append("\\b");
      return;
    case '\t':
      output->append("\\t");
      return;
    case '\n':
      output->append("\\n");
      return;
    case '\f':
      output->append("\\f");
      return;
    case '\r':
      output->append("\\r");
      return;
    default:
      AppendUnicodeEscape(static_cast<unsigned char>(c), output);
  }
}

void AppendCodePointEscape(uint32_t code_point, std::string* output) {
  if (code_point < 0x10000) {
    AppendUnicodeEscape(code_point, output);
    return;
  }
  const uint32_t offset = code_point - 0x10000;
  AppendUnicodeEscape(0xd800 + (offset >> 10), output);
  AppendUnicodeEscape(0xdc00 + (offset & 0x3ff), output);
}

// Bytes that may begin what needs an escape: no noncharacter begins with a
// lower byte than 0xef. A table keeps the loop over all other bytes short.
constexpr auto kMayNeedEscape = [] {
  std::array<bool, 256> table{};
  for (size_t byte = 0; byte < table.size(); ++byte) {
    table[byte] = byte < 0x20 || byte == '"' || byte == '\\' || byte >= 0xef;
  }
  return table;
}();

void AppendQuoted(std::string_view string, std::string* output) {
  *output += '"';
  // Whatever needs no escape is copied in one piece.
  size_t copied = 0;
  const auto copy_until = [&](size_t end) {
    output->append(string.substr(copied, end - copied));
  };
  for (size_t i = 0; i < string.size(); ++i) {
    const auto byte = static_cast<unsigned char>(string[i]);
    if (!kMayNeedEscape[byte]) continue;
    uint32_t code_point = 0;
    if (byte == '"' || byte == '\\') {
      copy_until(i);
      *output += '\\';
      *output += string[i];
      copied = i + 1;
    } else if (byte < 0x20) {
      copy_until(i);
      AppendControlCharacter(string[i], output);
      copied = i + 1;
    } else {
      const size_t length = DecodeUtf8(string.substr(i), &code_point);
      if (length == 0 || !IsNoncharacter(code_point)) continue;
      copy_until(i);
      AppendCodePointEscape(code_point, output);
      i += length - 1;
      copied = i + 1;
    }
  }
  copy_until(string.size());
  *output += '"';
}

// Writes the compact text from the parser's events as they come. Of a string it
// knows the bytes, not how they were written, so members have the same name if
// and only if their names have the same compact text.
class CompactTextBuilder {
 public:
  using error_code = boost::json::error_code;
  using string_view = boost::json::string_view;

  static constexpr size_t max_object_size = SIZE_MAX;
  static constexpr size_t max_array_size = SIZE_MAX;
  static constexpr size_t max_key_size = SIZE_MAX;
  static constexpr size_t max_string_size = SIZE_MAX;

  void Reserve(size_t size) { output_.reserve(size); }

  // Looks out for a member of the outermost object that is a string. `key` must
  // outlive the parsing.
  void WatchMember(std::string_view key) { watched_key_ = key; }
  std::optional<std::string> TakeWatchedMember() {
    return std::move(watched_member_);
  }

  std::string TakeText() {
    RemoveGaps();
    return std::move(output_);
  }

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }

  bool on_object_begin(error_code&) {
    BeginItem();
    output_ += '{';
    open_objects_.push_back(members_.size());
    ++depth_;
    return true;
  }
  bool on_object_end(size_t, error_code&) {
    // Of a watched member the last one is taken in any case.
    if (!watched_key_) FindDuplicates(open_objects_.back());
    members_.resize(open_objects_.back());
    open_objects_.pop_back();
    --depth_;
    output_ += '}';
    return true;
  }
  bool on_array_begin(error_code&) {
    BeginItem();
    output_ += '[';
    ++depth_;
    return true;
  }
  bool on_array_end(size_t, error_code&) {
    --depth_;
    output_ += ']';
    return true;
  }

  bool on_key_part(string_view part, size_t, error_code&) {
    return Collect(part);
  }
  bool on_key(string_view part, size_t, error_code&) {
    const std::string_view name = Complete(part);
    BeginItem();
    const auto begin = static_cast<uint32_t>(output_.size());
    AppendQuoted(name, &output_);
    members_.push_back({begin, static_cast<uint32_t>(output_.size())});
    output_ += ':';
    in_watched_member_ = watched_key_ && depth_ == 1 && name == *watched_key_;
    if (in_watched_member_) watched_member_.reset();
    return true;
  }
  bool on_string_part(string_view part, size_t, error_code&) {
    return Collect(part);
  }
  bool on_string(string_view part, size_t, error_code&) {
    const std::string_view string = Complete(part);
    BeginItem();
    AppendQuoted(string, &output_);
    if (in_watched_member_ && depth_ == 1) watched_member_ = string;
    return true;
  }

  // The parser's own idea of a number's value is not used: it would round.
  bool on_number_part(string_view part, error_code&) { return Collect(part); }
  bool on_int64(int64_t, string_view part, error_code&) {
    return AddNumber(part);
  }
  bool on_uint64(uint64_t, string_view part, error_code&) {
    return AddNumber(part);
  }
  bool on_double(double, string_view part, error_code&) {
    return AddNumber(part);
  }

  bool on_bool(bool boolean, error_code&) {
    return AddWord(boolean ? "true" : "false");
  }
  bool on_null(error_code&) { return AddWord("null"); }

  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }

 private:
  // Where a member of an object that is still open stands in the output.
  struct Member {
    uint32_t begin;
    uint32_t name_end;
  };
  struct Gap {
    uint32_t begin;
    uint32_t end;
  };
  struct Rank {
    size_t hash;
    uint32_t index;
  };

  // The parser hands a string or number on in parts where it has to unescape
  // it, or where it is very long. A part may end within a character.
  bool Collect(string_view part) {
    if (!collecting_) collected_.clear();
    collecting_ = true;
    collected_.append(part.data(), part.size());
    return true;
  }

  // The whole, of which `part` is the end. Valid until the next part comes.
  std::string_view Complete(string_view part) {
    if (!collecting_) return {part.data(), part.size()};
    Collect(part);
    collecting_ = false;
    return collected_;
  }

  // What stands before says whether a comma is due: a string ends in a quote,
  // so none of these is the last character of an item.
  void BeginItem() {
    if (output_.empty()) return;
    const char last = output_.back();
    if (last != '{' && last != '[' && last != ':') output_ += ',';
  }

  bool AddWord(std::string_view word) {
    BeginItem();
    output_ += word;
    return true;
  }
  bool AddNumber(string_view part) { return AddWord(Complete(part)); }

  std::string_view Name(size_t index) const {
    const Member& member = members_[index];
    const std::string_view output = output_;
    return output.substr(member.begin, member.name_end - member.begin);
  }

  // Marks what must go: every member that is followed by one of the same name.
  void FindDuplicates(size_t first) {
    // Few names, as nearly all objects have, are compared with each other.
    constexpr size_t kFew = 8;
    if (members_.size() - first > kFew) return SortDuplicates(first);
    for (size_t i = first; i < members_.size(); ++i) {
      const std::string_view name = Name(i);
      for (size_t later = i + 1; later < members_.size(); ++later) {
        if (Name(later) != name) continue;
        AddGap(i);
        break;
      }
    }
  }

  // The same for any number. A hostile text may hold a million members with
  // names of its choosing: sorting is quick whatever they are, where a hash
  // table is not. The hash only spares most comparisons of names.
  void SortDuplicates(size_t first) {
    order_.clear();
    for (size_t i = first; i < members_.size(); ++i) {
      const auto index = static_cast<uint32_t>(i);
      order_.push_back({std::hash<std::string_view>()(Name(i)), index});
    }
    std::sort(order_.begin(), order_.end(), [&](const Rank& a, const Rank& b) {
      if (a.hash != b.hash) return a.hash < b.hash;
      const int difference = Name(a.index).compare(Name(b.index));
      return difference != 0 ? difference < 0 : a.index < b.index;
    });
    for (size_t i = 1; i < order_.size(); ++i) {
      const uint32_t earlier = order_[i - 1].index;
      if (order_[i - 1].hash != order_[i].hash ||
          Name(earlier) != Name(order_[i].index)) {
        continue;
      }
      AddGap(earlier);
    }
  }

  // That member goes, of which there is a later one: so there is a next member,
  // and a comma before it.
  void AddGap(size_t index) {
    const Gap gap{members_[index].begin, members_[index + 1].begin};
    if (!gaps_.empty() && gaps_.back().end == gap.begin) {
      gaps_.back().end = gap.end;
    } else {
      gaps_.push_back(gap);
    }
  }

  // Closes all gaps in one go, however deep they are nested.
  void RemoveGaps() {
    std::sort(gaps_.begin(), gaps_.end(),
              [](const Gap& a, const Gap& b) { return a.begin < b.begin; });
    size_t kept = 0;
    size_t read = 0;
    const auto keep_until = [&](size_t end) {
      if (end <= read) return;
      if (kept != read)
        std::copy(output_.begin() + static_cast<ptrdiff_t>(read),
                  output_.begin() + static_cast<ptrdiff_t>(end),
                  output_.begin() + static_cast<ptrdiff_t>(kept));
      kept += end - read;
    };
    for (const Gap& gap : gaps_) {
      keep_until(gap.begin);
      read = std::max(read, static_cast<size_t>(gap.end));
    }
    if (gaps_.empty()) return;
    keep_until(output_.size());
    output_.resize(kept);
  }

  std::string output_;
  size_t depth_ = 0;
  std::string collected_;
  bool collecting_ = false;
  // The members of the open objects, the innermost last; where those of each
  // object begin.
  std::vector<Member> members_;
  std::vector<size_t> open_objects_;
  std::vector<Rank> order_;
  std::vector<Gap> gaps_;
  std::optional<std::string_view> watched_key_;
  std::optional<std::string> watched_member_;
  bool in_watched_member_ = false;
};

// False if `text` is not one JSON value within the limits.
bool Parse(boost::json::basic_parser<CompactTextBuilder>* parser,
           std::string_view text) {
  // Offsets have 32 bits, and escapes can make the compact text three times as
  // long.
  if (text.size() > UINT32_MAX / 4) return false;
  boost::json::error_code error;
  const size_t parsed =
      parser->write_some(/*more=*/false, text.data(), text.size(), error);
  return !error && parsed == text.size();
}

boost::json::parse_options GetOptions() {
  boost::json::parse_options options;
  options.max_depth = JSONReader::kMaxDepth;
  return options;
}

}  // namespace

std::unique_ptr<Value> JSONReader::Read(std::string_view text) {
  boost::json::basic_parser<CompactTextBuilder> parser(GetOptions());
  parser.handler().Reserve(text.size());
  if (!Parse(&parser, text)) return nullptr;
  return std::make_unique<Value>(parser.handler().TakeText());
}

bool JSONReader::ReadStringMember(std::string_view object, std::string_view key,
                                  std::string* output) {
  boost::json::basic_parser<CompactTextBuilder> parser(GetOptions());
  parser.handler().WatchMember(key);
  if (!Parse(&parser, object)) return false;
  std::optional<std::string> member = parser.handler().TakeWatchedMember();
  if (!member) return false;
  *output = *std::move(member);
  return true;
}

}  // namespace base
