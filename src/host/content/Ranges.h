// Which bytes of a file are here: a set of ranges that neither touch nor overlap.
//
// A value: it knows no file and no thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::host {

/// The bytes from `start` up to, but not including, `end`. Empty where `end` is not beyond `start`.
struct ByteRange {
  std::int64_t start = 0;
  std::int64_t end = 0;
  bool isEmpty() const { return end <= start; }
  std::int64_t length() const { return isEmpty() ? 0 : end - start; }
  /// What of it lies within a file that ends at `fileEnd`.
  ByteRange clipped(std::int64_t fileEnd) const {
    return {std::max<std::int64_t>(0, start), std::min(end, fileEnd)};
  }
  bool operator==(const ByteRange&) const = default;
};

class Ranges {
 public:
  /// Empty ranges change nothing.
  void add(ByteRange range);
  void remove(ByteRange range);

  /// Whether every byte of `range` is here; true for an empty one.
  bool contains(ByteRange range) const { return firstMissing(range).isEmpty(); }
  /// The first stretch of `within` that is not here, as long as it is; empty if there is none.
  ByteRange firstMissing(ByteRange within) const;
  /// All stretches of `within` that are not here, in order.
  std::vector<ByteRange> missing(ByteRange within) const;
  /// The range that `offset` lies in; empty if it is not here.
  ByteRange around(std::int64_t offset) const;

  bool isEmpty() const { return ends_.empty(); }
  std::int64_t byteCount() const;
  /// In order.
  std::vector<ByteRange> all() const;

  /// "0-4096,8192-9000": ends as in ByteRange; the empty set is the empty text.
  std::string text() const;
  /// None if `text` is not what `text()` gives for some set.
  static std::optional<Ranges> parse(std::string_view text);

  bool operator==(const Ranges&) const = default;

 private:
  std::map<std::int64_t, std::int64_t> ends_;  // by their starts
};

}  // namespace kestrune::host
