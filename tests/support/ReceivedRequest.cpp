#include "tests/support/ReceivedRequest.h"

#include <algorithm>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

namespace kestrune::support {

std::optional<std::string> ReceivedRequest::header(std::string_view name) const {
  for (const auto& [present, value] : headers) {
    if (boost::algorithm::iequals(present, name)) return value;
  }
  return std::nullopt;
}

std::size_t ReceivedRequest::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(
      headers.begin(), headers.end(),
      [name](const auto& header) { return boost::algorithm::iequals(header.first, name); }));
}

std::vector<std::string> ReceivedRequest::headerNames() const {
  std::vector<std::string> names;
  for (const auto& header : headers) names.push_back(boost::algorithm::to_lower_copy(header.first));
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kestrune::support
