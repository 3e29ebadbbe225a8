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

// Foundation drops a byte-order mark where a text begins or ends its way through bytes. In a text that is
// no file it is a character like others: with a letter before it, it stays.
constexpr char kBefore = 'x';

NSString* toFoundation(const std::string& text) {
  const std::string guarded = kBefore + text;
  NSString* const decoded = [[[NSString alloc] initWithBytes:guarded.data()
                                                      length:guarded.size()
                                                    encoding:NSUTF8StringEncoding] autorelease];
  return [decoded substringFromIndex:1];
}

/// None for a text that has no UTF-8: one with half a surrogate pair.
std::optional<std::string> bytesOf(NSString* text) {
  NSString* const guarded = [NSString stringWithFormat:@"%c%@", kBefore, text];
  NSData* const bytes = [guarded dataUsingEncoding:NSUTF8StringEncoding];
  if (bytes == nil) return std::nullopt;
  return std::string(static_cast<const char*>([bytes bytes]) + 1, [bytes length] - 1);
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

/// Nil also where NSURL raises an exception: it has then no such part to offer.
id partOf(NSURL* url, SEL part) {
  @try {
    return [url performSelector:part];
  } @catch (NSException* refusal) {
    return nil;
  }
}

NSDateFormatter* formatterFor(const std::string& format) {
  static NSMutableDictionary* const formatters = [NSMutableDictionary new];
  NSString* const key = toFoundation(format);
  NSDateFormatter* formatter = [formatters objectForKey:key];
  if (formatter != nil) return formatter;
  formatter = [[NSDateFormatter new] autorelease];
  [formatters setObject:formatter forKey:key];
  [formatter setLocale:[[[NSLocale alloc] initWithLocaleIdentifier:@"en_US_POSIX"] autorelease]];
  [formatter setTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  // The format first: it starts the formatter anew, without what was said about strictness.
  [formatter setDateFormat:key];
  [formatter setLenient:NO];
  return formatter;
}

NSCalendar* gregorianCalendar() {
  static NSCalendar* calendar = nil;
  if (calendar != nil) return calendar;
  calendar = [[NSCalendar alloc] initWithCalendarIdentifier:NSGregorianCalendar];
  [calendar setTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  return calendar;
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
  result.absoluteString = textOf(partOf(url, @selector(absoluteString)));
  result.scheme = textOf(partOf(url, @selector(scheme)));
  result.host = optionalTextOf(partOf(url, @selector(host)));
  if (NSNumber* const port = partOf(url, @selector(port)); port != nil)
    result.port = [port longLongValue];
  result.query = textOf(partOf(url, @selector(query)));
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
  // The middle: what NSDate counts, seconds since 2001, hits the beginning of few milliseconds exactly.
  NSDate* const date = [NSDate
      dateWithTimeIntervalSince1970:(static_cast<double>(millisecondsSince1970) + 0.5) / 1000];
  return textOf([formatterFor(format) stringFromDate:date]);
}

std::optional<std::int64_t> foundationDay(int year, int month, int day) {
  NSCalendar* const calendar = gregorianCalendar();
  NSDateComponents* const asked = [[NSDateComponents new] autorelease];
  [asked setYear:year];
  [asked setMonth:month];
  [asked setDay:day];
  NSDate* const date = [calendar dateFromComponents:asked];
  NSDateComponents* const found =
      [calendar components:NSYearCalendarUnit | NSMonthCalendarUnit | NSDayCalendarUnit
                  fromDate:date];
  if ([found year] != year || [found month] != month || [found day] != day) return std::nullopt;
  return std::llround([date timeIntervalSince1970]);
}

}  // namespace kestrune::second_opinion
