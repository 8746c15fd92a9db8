// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_reader.h"

// The parser alone, with the few definitions that it needs: the library's own
// way of header-only use brings in code that does not build without exceptions.
#include <algorithm>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/detail/impl/default_resource.ipp>
#include <boost/json/detail/impl/stack.ipp>
#include <boost/json/impl/error.ipp>
#include <cstdlib>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"

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

// Keeps of the members with one name the first place and the last value. A
// hostile document may have a hundred thousand members with names of its
// choosing: sorting is quick whatever they are, where a hash table is not.
void MergeDuplicates(Value::Members* members) {
  std::vector<size_t> order(members->size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return (*members)[a].first < (*members)[b].first;
  });
  std::vector<bool> repeated(members->size());
  size_t repetitions = 0;
  for (size_t i = 1, first = 0; i < order.size(); ++i) {
    auto& earlier = (*members)[order[first]];
    auto& later = (*members)[order[i]];
    if (later.first != earlier.first) {
      first = i;
      continue;
    }
    earlier.second = std::move(later.second);
    repeated[order[i]] = true;
    ++repetitions;
  }
  if (repetitions == 0) return;
  size_t kept = 0;
  for (size_t i = 0; i < members->size(); ++i) {
    if (repeated[i]) continue;
    if (kept != i) (*members)[kept] = std::move((*members)[i]);
    ++kept;
  }
  members->resize(kept);
}

// Builds values from the parser's events. The events come in the order of the
// text; an open array or object waits on the stack for its end.
class ValueBuilder {
 public:
  using error_code = boost::json::error_code;
  using string_view = boost::json::string_view;

  static constexpr size_t max_object_size = size_t(-1);
  static constexpr size_t max_array_size = size_t(-1);
  static constexpr size_t max_key_size = size_t(-1);
  static constexpr size_t max_string_size = size_t(-1);

  Value TakeResult() { return std::move(root_); }

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }

  bool on_object_begin(error_code&) { return Open(/*is_object=*/true); }
  bool on_object_end(size_t, error_code&) {
    Frame frame = Close();
    MergeDuplicates(&frame.members);
    return Add(Value(std::move(frame.members)));
  }
  bool on_array_begin(error_code&) { return Open(/*is_object=*/false); }
  bool on_array_end(size_t, error_code&) { return Add(Value(Close().items)); }

  bool on_key_part(string_view part, size_t, error_code&) {
    return Append(part);
  }
  bool on_key(string_view part, size_t, error_code&) {
    Append(part);
    stack_.back().key = TakeText();
    return true;
  }
  bool on_string_part(string_view part, size_t, error_code&) {
    return Append(part);
  }
  bool on_string(string_view part, size_t, error_code&) {
    Append(part);
    return Add(Value(TakeText()));
  }

  // The parser's own idea of a number's value is not used: it would round.
  bool on_number_part(string_view part, error_code&) { return Append(part); }
  bool on_int64(int64_t, string_view part, error_code&) {
    return AddNumber(part);
  }
  bool on_uint64(uint64_t, string_view part, error_code&) {
    return AddNumber(part);
  }
  bool on_double(double, string_view part, error_code&) {
    return AddNumber(part);
  }

  bool on_bool(bool boolean, error_code&) { return Add(Value(boolean)); }
  bool on_null(error_code&) { return Add(Value()); }

  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }

 private:
  struct Frame {
    bool is_object;
    std::string key;
    Value::List items;
    Value::Members members;
  };

  bool Open(bool is_object) {
    stack_.push_back({is_object, {}, {}, {}});
    return true;
  }

  Frame Close() {
    Frame frame = std::move(stack_.back());
    stack_.pop_back();
    return frame;
  }

  bool Append(string_view part) {
    text_.append(part.data(), part.size());
    return true;
  }

  std::string TakeText() { return std::exchange(text_, {}); }

  bool AddNumber(string_view part) {
    Append(part);
    return Add(Value(Value::Number{TakeText()}));
  }

  bool Add(Value value) {
    if (stack_.empty()) {
      root_ = std::move(value);
      return true;
    }
    Frame& frame = stack_.back();
    if (frame.is_object) {
      frame.members.emplace_back(std::move(frame.key), std::move(value));
    } else {
      frame.items.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Frame> stack_;
  std::string text_;
  Value root_;
};

}  // namespace

std::unique_ptr<Value> JSONReader::Read(std::string_view text) {
  boost::json::parse_options options;
  options.max_depth = kMaxDepth;
  boost::json::basic_parser<ValueBuilder> parser(options);
  boost::json::error_code error;
  const size_t parsed =
      parser.write_some(/*more=*/false, text.data(), text.size(), error);
  if (error || parsed != text.size()) return nullptr;
  return std::make_unique<Value>(parser.handler().TakeResult());
}

}  // namespace base
