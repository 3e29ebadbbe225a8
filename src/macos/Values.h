// The small values of the two sides turned into each other: texts, identifiers, data, dates, local
// files, versions, types, requests, ranges. What comes from the platform is copied; what goes there is
// autoreleased.
//
// Texts: the platform's may hold lone surrogates and ours bytes that are no UTF-8; each such place
// becomes U+FFFD, because a name that looks odd beats one that is missing.
//
// Sets of bits and policies have the platform's own values on both sides and are cast; Values.mm checks
// that at compile time.
//
// Threads: callable from any thread that has an autorelease pool.
#pragma once

#import <FileProvider/FileProvider.h>
#import <Foundation/Foundation.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderItem.h"
#include "platform/file_provider/NSFileProviderTypes.h"
#include "platform/values/Date.h"

namespace kestrune::macos {

/// nil gives the empty text.
std::string textFrom(NSString* text);
NSString* toPlatform(const std::string& text);

/// Reserved identifiers are mapped by meaning, all others are taken as they are.
platform::NSFileProviderItemIdentifier identifierFrom(::NSFileProviderItemIdentifier identifier);
::NSFileProviderItemIdentifier identifierToPlatform(
    const platform::NSFileProviderItemIdentifier& identifier);
std::vector<platform::NSFileProviderItemIdentifier> identifiersFrom(NSArray* identifiers);

/// nil gives no bytes.
std::string bytesFrom(NSData* data);
NSData* dataToPlatform(const std::string& bytes);

/// Times beyond what a Date holds are clamped; nil and no number give none.
std::optional<platform::Date> dateFrom(NSDate* date);
NSDate* toPlatform(platform::Date date);

/// The local path of a file URL, its characters as they are written; none for nil, for other URLs and
/// for one without a path.
std::optional<std::filesystem::path> pathFrom(NSURL* url);
NSURL* fileToPlatform(const std::filesystem::path& path);

std::optional<platform::NSFileProviderItemVersion> versionFrom(
    ::NSFileProviderItemVersion* version);
::NSFileProviderItemVersion* toPlatform(const platform::NSFileProviderItemVersion& version);

/// nil gives none.
std::optional<platform::UTType> typeFrom(::UTType* type);
/// The generic data type where the platform does not know the name.
::UTType* toPlatform(const platform::UTType& type);

platform::NSFileProviderRequest requestFrom(::NSFileProviderRequest* request);

/// Clamped to 64 signed bits.
std::int64_t countFrom(NSUInteger count);

/// Bounds as in countFrom.
platform::NSRange rangeFrom(::NSRange range);
/// REQUIRES: neither bound is negative.
::NSRange toPlatform(const platform::NSRange& range);

}  // namespace kestrune::macos
