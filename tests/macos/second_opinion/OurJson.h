// What the platform layer's two JSON readers say, as CanonicalJson.h texts; refusals are no exceptions
// here.
//
// Threads: pure functions; callable from any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Comparison.h"

namespace kestrune::second_opinion {

std::string canonicalJson(const nlohmann::json& value);

/// By the reader of small records.
Answer recordAnswer(std::string_view text);

/// By the reader of listings. Of repeated keys the first, as its callers get it.
Answer listingAnswer(std::string_view text);

}  // namespace kestrune::second_opinion
