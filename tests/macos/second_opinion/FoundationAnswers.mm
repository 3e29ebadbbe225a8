#include "FoundationAnswers.h"

#import <Foundation/Foundation.h>

#include <cmath>
#include <limits>
#include <map>
#include <vector>

#include "CanonicalJson.h"

// Declared by no header of Foundation's; its documentation of NSString names it.
extern "C" const char* GSPathHandling(const char* mode);

namespace kestrune::second_opinion {

namespace {

NSString* toFoundation(const std::string& text) {
  // Decoding drops a byte-order mark; in a text that is no file it is a character like others.
  constexpr unichar kMark = 0xFEFF;
  const std::string::size_type mark = text.starts_with("\uFEFF") ? 3 : 0;
  NSString* const decoded = [[[NSString alloc] initWithBytes:text.data() + mark
                                                      length:text.size() - mark
                                                    encoding:NSUTF8StringEncoding] autorelease];
  if (mark == 0) return decoded;
  return [[NSString stringWithCharacters:&kMark length:1] stringByAppendingString:decoded];
}

/// None for a text that has no UTF-8: one with half a surrogate pair.
std::optional<std::string> bytesOf(NSString* text) {
  NSData* const bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
  if (bytes == nil) return std::nullopt;
  return std::string(static_cast<const char*>([bytes bytes]), [bytes length]);
}

std::string textOf(NSString* text) {
  return text == nil ? std::string() : bytesOf(text).value_or("(no text)");
}

std::optional<std::string> optionalTextOf(NSString* text) {
  if (text == nil) return std::nullopt;
  return bytesOf(text);
}

void useUnixPaths() {
  static const char* const former = GSPathHandling("unix");
  (void)former;
}

std::string canonical(id value);

std::string canonicalNumberOf(NSNumber* number) {
  switch ([number objCType][0]) {
    case 'f':
    case 'd':
      return canonicalNumber([number doubleValue]);
    case 'Q':
      return canonicalNumber(static_cast<std::uint64_t>([number unsignedLongLongValue]));
    default:
      return canonicalNumber(static_cast<std::int64_t>([number longLongValue]));
  }
}

std::string canonicalArrayOf(NSArray* array) {
  std::vector<std::string> elements;
  for (id element in array) elements.push_back(canonical(element));
  return canonicalArray(elements);
}

std::string canonicalObjectOf(NSDictionary* dictionary) {
  std::map<std::string, std::string> members;
  for (NSString* key in dictionary) members[textOf(key)] = canonical([dictionary objectForKey:key]);
  return canonicalObject(members);
}

std::string canonical(id value) {
  if (value == [NSNull null]) return "null";
  if ([value isKindOfClass:[NSString class]]) {
    const auto text = bytesOf(value);
    return text ? canonicalText(*text) : "half a surrogate pair";
  }
  if (value == [NSNumber numberWithBool:YES]) return "true";
  if (value == [NSNumber numberWithBool:NO]) return "false";
  if ([value isKindOfClass:[NSNumber class]]) return canonicalNumberOf(value);
  if ([value isKindOfClass:[NSArray class]]) return canonicalArrayOf(value);
  if ([value isKindOfClass:[NSDictionary class]]) return canonicalObjectOf(value);
  return "no JSON: " + textOf([value description]);
}

id jsonObject(NSData* data) {
  @try {
    return [NSJSONSerialization JSONObjectWithData:data
                                           options:NSJSONReadingAllowFragments
                                             error:NULL];
  } @catch (NSException* refusal) {
    return nil;
  }
}

NSURL* urlWith(NSString* text) {
  @try {
    return [NSURL URLWithString:text];
  } @catch (NSException* refusal) {
    return nil;
  }
}

NSDateFormatter* formatterFor(const std::string& format) {
  static std::map<std::string, NSDateFormatter*> formatters;
  NSDateFormatter*& formatter = formatters[format];
  if (formatter != nil) return formatter;
  formatter = [NSDateFormatter new];
  [formatter setLocale:[[[NSLocale alloc] initWithLocaleIdentifier:@"en_US_POSIX"] autorelease]];
  [formatter setTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  [formatter setLenient:NO];
  [formatter setDateFormat:toFoundation(format)];
  [formatter setGregorianStartDate:[NSDate distantPast]];
  return formatter;
}

}  // namespace

ReleasePool::ReleasePool() : pool_([NSAutoreleasePool new]) {}

ReleasePool::~ReleasePool() { [static_cast<NSAutoreleasePool*>(pool_) drain]; }

std::string foundationLastPathComponent(const std::string& path) {
  useUnixPaths();
  return textOf([toFoundation(path) lastPathComponent]);
}

std::string foundationDeletingLastPathComponent(const std::string& path) {
  useUnixPaths();
  return textOf([toFoundation(path) stringByDeletingLastPathComponent]);
}

std::string foundationPathExtension(const std::string& path) {
  useUnixPaths();
  return textOf([toFoundation(path) pathExtension]);
}

std::optional<FoundationURL> foundationURL(const std::string& text) {
  NSURL* const url = urlWith(toFoundation(text));
  if (url == nil) return std::nullopt;
  FoundationURL result;
  result.absoluteString = textOf([url absoluteString]);
  result.scheme = textOf([url scheme]);
  result.host = optionalTextOf([url host]);
  if ([url port] != nil) result.port = [[url port] longLongValue];
  result.query = textOf([url query]);
  return result;
}

std::optional<std::string> foundationPathEncoded(const std::string& text) {
  return optionalTextOf([toFoundation(text)
      stringByAddingPercentEncodingWithAllowedCharacters:[NSCharacterSet
                                                             URLPathAllowedCharacterSet]]);
}

std::optional<std::string> foundationQueryEncoded(const std::string& text) {
  return optionalTextOf([toFoundation(text)
      stringByAddingPercentEncodingWithAllowedCharacters:[NSCharacterSet
                                                             URLQueryAllowedCharacterSet]]);
}

std::optional<std::string> foundationDecoded(const std::string& text) {
  return optionalTextOf([toFoundation(text) stringByRemovingPercentEncoding]);
}

std::optional<std::string> foundationJson(const std::string& bytes) {
  const id value = jsonObject([NSData dataWithBytes:bytes.data() length:bytes.size()]);
  if (value == nil) return std::nullopt;
  return canonical(value);
}

std::optional<std::int64_t> foundationDate(const std::string& text, const std::string& format) {
  NSDate* const date = [formatterFor(format) dateFromString:toFoundation(text)];
  if (date == nil) return std::nullopt;
  return std::llround([date timeIntervalSince1970] * 1000);
}

std::string foundationDateText(std::int64_t millisecondsSince1970, const std::string& format) {
  NSDate* const date =
      [NSDate dateWithTimeIntervalSince1970:static_cast<double>(millisecondsSince1970) / 1000];
  return textOf([formatterFor(format) stringFromDate:date]);
}

int foundationDaysInMonth(int year, int month) {
  NSCalendar* const calendar =
      [[[NSCalendar alloc] initWithCalendarIdentifier:NSGregorianCalendar] autorelease];
  [calendar setTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  NSDateComponents* const first = [[NSDateComponents new] autorelease];
  [first setYear:year];
  [first setMonth:month];
  [first setDay:1];
  return static_cast<int>([calendar rangeOfUnit:NSDayCalendarUnit
                                         inUnit:NSMonthCalendarUnit
                                        forDate:[calendar dateFromComponents:first]]
                              .length);
}

}  // namespace kestrune::second_opinion
