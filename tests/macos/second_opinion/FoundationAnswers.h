// Foundation's answers to the questions that the platform layer answers itself, as plain values: the
// tests that compare the two need no Objective-C, and what throws stays out of Objective-C++.
//
// Texts are UTF-8. REQUIRES: they are valid, except where a function says that it takes bytes.
//
// Threads: one thread at a time. Callers run long series inside a ReleasePool.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrune::second_opinion {

/// Frees, at the end of its scope, the objects that the answers inside it left behind.
class ReleasePool {
 public:
  ReleasePool();
  ReleasePool(const ReleasePool&) = delete;
  ReleasePool& operator=(const ReleasePool&) = delete;
  ~ReleasePool();

 private:
  void* pool_;
};

/// NSString's path utilities, in Foundation's mode for Unix, the only one of the platform.
std::string foundationLastPathComponent(const std::string& path);
std::string foundationDeletingLastPathComponent(const std::string& path);
std::string foundationPathExtension(const std::string& path);

struct FoundationURL {
  std::string absoluteString;
  std::string scheme;               // as written; empty if there is none
  std::optional<std::string> host;  // percent-decoded, an IPv6 address without its brackets
  std::optional<std::int64_t> port;
  std::string query;  // as written; empty if there is none
};

/// What NSURL makes of `text`; none if it refuses.
std::optional<FoundationURL> foundationURL(const std::string& text);

/// `text` percent-encoded but for URLPathAllowedCharacterSet.
std::optional<std::string> foundationPathEncoded(const std::string& text);
/// `text` percent-encoded but for URLQueryAllowedCharacterSet.
std::optional<std::string> foundationQueryEncoded(const std::string& text);
/// `text` with its percent-escapes decoded; none if that is no text.
std::optional<std::string> foundationDecoded(const std::string& text);

/// The value that NSJSONSerialization reads, fragments allowed, as a CanonicalJson.h text; none if it
/// refuses. Takes bytes.
std::optional<std::string> foundationJson(const std::string& bytes);

/// Milliseconds since 1970 of `text` as NSDateFormatter reads it by `format`, strictly and in UTC; none if
/// it refuses. Like NSCalendar it has the Julian calendar until 1582-10-04.
std::optional<std::int64_t> foundationDate(const std::string& text, const std::string& format);

/// The text that NSDateFormatter writes by `format` for any moment of a millisecond.
std::string foundationDateText(std::int64_t millisecondsSince1970, const std::string& format);

/// Seconds since 1970 of the day's beginning in UTC by NSCalendar; none if it makes another day of it.
std::optional<std::int64_t> foundationDay(int year, int month, int day);

}  // namespace kestrune::second_opinion
