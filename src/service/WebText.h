// Texts of the web page: names, sizes and times as people read them, made safe to stand in HTML.
//
// Threads: pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "service/Tree.h"

namespace kestrune::service {

/// `text` for the inside of an element, or of an attribute in either kind of quotes.
std::string escapedHtml(std::string_view text);

/// `name` with what would make it look like another one replaced by U+FFFD: characters that turn the
/// direction of writing, control characters and line separators. "invoice<RLO>fdp.exe" would read
/// "invoiceexe.pdf". Direction marks and joiners stay; languages need them.
/// REQUIRES: valid UTF-8.
std::string visibleName(std::string_view name);

/// "512 bytes", "1.5 kB", "20 MB": powers of 1,000, two digits at least.
std::string readableSize(std::uint64_t bytes);

/// "1,234,567".
std::string grouped(std::uint64_t number);

/// <time> with the point in time for programs and, in UTC and to the minute, for people.
std::string timeElement(FileTime time);

/// The value of `field` in a body of the type application/x-www-form-urlencoded, decoded; nothing if
/// it is missing. Throws ServiceError 400 for malformed percent-encoding.
std::optional<std::string> formField(std::string_view body, std::string_view field);

/// The header "Content-Disposition: `kind`" with the file's name, which old clients get in ASCII.
std::string contentDisposition(std::string_view kind, std::string_view name);

}  // namespace kestrune::service
