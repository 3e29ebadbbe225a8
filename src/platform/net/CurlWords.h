// What libcurl says, in this project's words: the one translation of its codes. Used by Transfer alone.
//
// Threads: plain functions.
#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>

#include "platform/net/URLError.h"
#include "platform/net/URLSession.h"
#include "platform/values/Date.h"

namespace kestrune::platform {

URLError errorFromCurl(CURLcode code);
/// For a diagnosis, which tells apart what is one error to everybody else.
URLDiagnosis::Failure failureFromCurl(CURLcode code);

/// A date in one of the forms of RFC 9110, 5.6.7, or of a certificate; none if it is none.
std::optional<Date> dateOf(const std::string& text);
/// When the certificate ends that the server itself has shown; none where there was none.
std::optional<Date> certificateEnd(CURL* easy);

}  // namespace kestrune::platform
