// JSON texts to read: sound ones of every kind, the same with one or two faults, and hard ones picked by
// hand. Their bytes need not be text.
//
// Threads: one thread at a time.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Generator.h"

namespace kestrune::second_opinion {

/// A value of any kind, at most `depth` deep.
nlohmann::json generatedJsonValue(Generator& generator, int depth);

/// A sound text, with white space and escapes as writers use them and as they do not.
std::string generatedJsonText(Generator& generator, int depth);

/// `text` with a byte or token removed, added, doubled or replaced, or cut off.
std::string mutatedJsonText(Generator& generator, std::string text);

std::vector<std::string> handPickedJsonTexts();

}  // namespace kestrune::second_opinion
