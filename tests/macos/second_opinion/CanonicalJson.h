// One text a JSON value, whatever holds it, so that two readers' values compare as texts. Numbers are
// equal if they are the same number ("5", "5.0" and "5e0"); members are sorted by key.
//
// Threads: pure functions; callable from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::second_opinion {

std::string canonicalText(std::string_view text);
std::string canonicalNumber(std::int64_t number);
std::string canonicalNumber(std::uint64_t number);
std::string canonicalNumber(double number);
std::string canonicalArray(const std::vector<std::string>& elements);
std::string canonicalObject(const std::map<std::string, std::string>& members);

}  // namespace kestrune::second_opinion
