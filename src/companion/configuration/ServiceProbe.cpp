#include "companion/configuration/ServiceProbe.h"

#include <memory>
#include <utility>

#include "api/Listing.h"
#include "platform/log/Log.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

using Outcome = ServiceProbe::Outcome;

/// A root of some hundred thousand names; more is not needed to know that it is one.
constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

std::string inQuotes(const std::string& text) {
  return "'" + platform::escapeForDisplay(text) + "'";
}

// Both live in the caller, who waits.
platform::Task<void> ask(platform::URLSession* session, platform::URLRequest request,
                         platform::URLReply* reply) {
  *reply = co_await session->data(std::move(request));
}

ServiceProbe afterFailure(const platform::NSError& error, const platform::URLDiagnosis& diagnosis,
                          const std::string& address) {
  using Failure = platform::URLDiagnosis::Failure;
  using platform::URLError;
  const std::string shown = inQuotes(address);
  const std::string why =
      diagnosis.detail.empty() ? error.localizedDescription() : diagnosis.detail;
  const std::string because = " (" + platform::escapeForDisplay(why) + ")";
  switch (diagnosis.failure) {
    case Failure::hostUnknown:
      return {Outcome::cannotResolve,
              "The host of " + shown + " has no address" + because +
                  ". Check the spelling, and that this machine is online and can resolve names.",
              {},
              {}};
    case Failure::proxyUnknown:
      return {Outcome::cannotResolve,
              "The proxy on the way to " + shown + " has no address" + because +
                  ". Check http_proxy, https_proxy and all_proxy in the environment.",
              {},
              {}};
    case Failure::certificateUntrusted:
      return {Outcome::notSecure,
              "The certificate of " + shown + " is not to be trusted" + because +
                  ". Check the host's name, this machine's clock and the package ca-certificates; "
                  "the file of a private authority is named by SSL_CERT_FILE.",
              {},
              {}};
    case Failure::authoritiesUnreadable:
      return {Outcome::notSecure,
              "The certificates that " + shown + " is checked against cannot be read" + because +
                  ". Install the package ca-certificates, or correct SSL_CERT_FILE.",
              {},
              {}};
    case Failure::noTLS:
      return {Outcome::notSecure,
              "No secure connection to " + shown + " can be made" + because +
                  ". If the service speaks plain HTTP there, the address begins with http://.",
              {},
              {}};
    case Failure::none:
      break;
  }
  const bool isOfURL = error.domain() == platform::kNSURLErrorDomain;
  if (isOfURL && error.code() == URLError::cannotConnectToHost)
    return {Outcome::refused,
            "Nothing answers at " + shown + because +
                ". Check the port, that the service runs, and that no firewall is in between.",
            {},
            {}};
  if (isOfURL && error.code() == URLError::timedOut)
    return {Outcome::timedOut,
            shown + " did not answer in time" + because +
                ". Check that this machine is online and that no firewall is in between.",
            {},
            {}};
  return {Outcome::other, "Asking " + shown + " failed" + because + ".", {}, {}};
}

ServiceProbe afterStatus(const platform::URLReply& reply, const std::string& address) {
  const std::string shown = inQuotes(address);
  const int status = reply.response.statusCode;
  const std::string http = "HTTP " + std::to_string(status);
  if (status == 401 || status == 403) {
    return {Outcome::unauthorized,
            shown + " does not accept the token (" + http +
                "). Get a new one from the service, and give it to kestrune configure.",
            {},
            {}};
  }
  if (status == 404 || status == 405) {
    return {Outcome::notFound,
            "There is a server at " + shown + ", but no file service (" + http +
                "). Check the path behind the host's name.",
            {},
            {}};
  }
  if (status >= 300 && status < 400) {
    const auto target =
        platform::URL::parse(reply.response.valueForHTTPHeaderField("Location").value_or(""));
    const std::string origin = target ? target->origin() : std::string();
    return {Outcome::redirected,
            shown + " sends elsewhere (" + http +
                (origin.empty() ? "" : " to " + platform::escapeForDisplay(origin)) +
                "). Give the address where the service is itself; a network that wants a log-in "
                "first does the same.",
            {},
            {}};
  }
  if (status >= 400) {
    return {Outcome::status,
            "The service at " + shown + " cannot list its root (" + http +
                (status >= 500 ? "). The fault is the service's; try again later."
                               : "). Ask who runs it."),
            {},
            {}};
  }
  try {
    static_cast<void>(decodeListing(reply.data));
  } catch (const platform::NSError&) {
    return {Outcome::noListing,
            "What answers at " + shown + " is no file service (" + http +
                ", but no listing). Check the path behind the host's name; a network that wants a "
                "log-in first does the same.",
            {},
            {}};
  }
  return {};
}

}  // namespace

ServiceProbe probeService(const std::string& address, const platform::Secret& token,
                          std::chrono::milliseconds patience) {
  auto url = platform::URL::parse(address + "/files?path=%2F");
  if (!url) return {Outcome::other, inQuotes(address) + " is no address.", {}, {}};
  platform::URLRequest request(std::move(*url));
  request.headers = {{"Authorization", "Bearer " + token.reveal()}};
  request.followsRedirects = false;
  request.diagnosis = std::make_shared<platform::URLDiagnosis>();
  const auto diagnosis = request.diagnosis;
  platform::URLSession session({.timeoutIntervalForRequest = patience,
                                .timeoutIntervalForResource = patience,
                                .maximumDataBytes = kMostBytes});
  try {
    platform::URLReply reply;
    platform::runBlocking(ask(&session, std::move(request), &reply));
    ServiceProbe probe = afterStatus(reply, address);
    probe.serverTime = reply.response.date();
    probe.certificateUntil = diagnosis->certificateUntil;
    return probe;
  } catch (const platform::NSError& error) {
    return afterFailure(error, *diagnosis, address);
  }
}

}  // namespace kestrune
