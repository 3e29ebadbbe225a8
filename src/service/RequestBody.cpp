#include "service/RequestBody.h"

#include <charconv>
#include <limits>
#include <system_error>

#include "platform/values/NSError.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

constexpr std::size_t kMaxBodyBytes = 1U << 20U;

ServiceError wrongMember(const char* member, const char* type) {
  return badRequest(std::string("the body's \"") + member + "\" must be " + type);
}

}  // namespace

boost::asio::awaitable<RequestBody> RequestBody::read(std::shared_ptr<Exchange> exchange) {
  const std::string text = co_await exchange->readWholeBody(kMaxBodyBytes);
  co_return parse(text);
}

RequestBody RequestBody::parse(const std::string& text) {
  try {
    return of(platform::decodeJson(text));
  } catch (const platform::NSError&) {
    throw badRequest("the body is not valid JSON");
  }
}

RequestBody RequestBody::of(const platform::Json& value) {
  if (!value.is_object()) throw badRequest("the body must be a JSON object");
  return RequestBody(value);
}

std::string RequestBody::text(const char* member) const {
  const auto found = value_.find(member);
  if (found == value_.end() || !found->is_string()) throw wrongMember(member, "a string");
  return found->get<std::string>();
}

RemotePath RequestBody::path(const char* member) const { return RemotePath::parse(text(member)); }

std::int64_t RequestBody::integer(const char* member) const {
  const auto found = value_.find(member);
  constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
  const bool fits = found != value_.end() && found->is_number_integer() &&
                    (!found->is_number_unsigned() || found->get<std::uint64_t>() <= kMax);
  if (!fits) throw wrongMember(member, "an integer");
  return found->get<std::int64_t>();
}

std::uint64_t RequestBody::decimal(const char* member) const {
  const std::string digits = text(member);
  std::int64_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [parsed, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || parsed != end || value < 0 || digits.front() == '-') {
    throw wrongMember(member, "a string of decimal digits");
  }
  return static_cast<std::uint64_t>(value);
}

const platform::Json& RequestBody::array(const char* member) const {
  const auto found = value_.find(member);
  if (found == value_.end() || !found->is_array()) throw wrongMember(member, "an array");
  return *found;
}

}  // namespace kestrune::service
