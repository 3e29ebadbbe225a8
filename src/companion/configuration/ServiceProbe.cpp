#include "companion/configuration/ServiceProbe.h"

#include <curl/curl.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "api/Listing.h"
#include "platform/log/Log.h"
#include "platform/net/URL.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

using Outcome = ServiceProbe::Outcome;

/// A root of some hundred thousand names; more is not needed to know that it is one.
constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

std::string inQuotes(const std::string& text) {
  return "'" + platform::escapeForDisplay(text) + "'";
}

std::size_t collect(char* bytes, std::size_t, std::size_t count, void* body) {
  auto& text = *static_cast<std::string*>(body);
  if (text.size() + count > kMostBytes) return 0;
  text.append(bytes, count);
  return count;
}

class Request {
 public:
  Request() : easy_(curl_easy_init()) {}
  ~Request() {
    curl_slist_free_all(headers_);
    curl_easy_cleanup(easy_);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  CURLcode run(const std::string& address, const platform::Secret& token,
               std::chrono::milliseconds patience) {
    if (easy_ == nullptr) return CURLE_FAILED_INIT;
    headers_ = curl_slist_append(nullptr, ("Authorization: Bearer " + token.reveal()).c_str());
    set(CURLOPT_URL, (address + "/files?path=%2F").c_str());
    set(CURLOPT_HTTPHEADER, headers_);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(patience.count()));
    set(CURLOPT_CERTINFO, 1L);
    set(CURLOPT_ERRORBUFFER, error_.data());
    set(CURLOPT_WRITEFUNCTION, &collect);
    set(CURLOPT_WRITEDATA, &body_);
    if (const char* store = std::getenv("SSL_CERT_FILE")) set(CURLOPT_CAINFO, store);
    return curl_easy_perform(easy_);
  }

  int status() const {
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    return static_cast<int>(status);
  }
  std::string header(const char* name) const {
    curl_header* found = nullptr;
    if (curl_easy_header(easy_, name, 0, CURLH_HEADER, -1, &found) != CURLHE_OK) return {};
    return found->value;
  }
  std::optional<platform::Date> certificateUntil() const {
    constexpr std::string_view kKey = "Expire date:";
    curl_certinfo* chain = nullptr;
    if (curl_easy_getinfo(easy_, CURLINFO_CERTINFO, &chain) != CURLE_OK || chain == nullptr ||
        chain->num_of_certs < 1)
      return std::nullopt;
    for (const curl_slist* row = chain->certinfo[0]; row != nullptr; row = row->next) {
      const std::string_view text = row->data;
      if (text.starts_with(kKey)) return dateOf(std::string(text.substr(kKey.size())));
    }
    return std::nullopt;
  }
  static std::optional<platform::Date> dateOf(const std::string& text) {
    const time_t seconds = text.empty() ? -1 : curl_getdate(text.c_str(), nullptr);
    if (seconds < 0) return std::nullopt;
    return platform::Date(std::chrono::seconds(seconds));
  }
  const std::string& body() const { return body_; }
  /// What the library says beyond the code; may be empty.
  std::string detail() const { return error_.data(); }

 private:
  template <class Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(easy_, option, value);
  }

  CURL* const easy_;
  curl_slist* headers_ = nullptr;
  std::array<char, CURL_ERROR_SIZE> error_{};
  std::string body_;
};

ServiceProbe afterTransport(CURLcode code, const std::string& detail, const std::string& address) {
  const std::string shown = inQuotes(address);
  const std::string why = detail.empty() ? curl_easy_strerror(code) : detail;
  const std::string because = " (" + platform::escapeForDisplay(why) + ")";
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return {Outcome::cannotResolve,
              "The host of " + shown + " has no address" + because +
                  ". Check the spelling, and that this machine is online and can resolve names.",
              {},
              {}};
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {Outcome::cannotResolve,
              "The proxy on the way to " + shown + " has no address" + because +
                  ". Check http_proxy, https_proxy and all_proxy in the environment.",
              {},
              {}};
    case CURLE_COULDNT_CONNECT:
      return {Outcome::refused,
              "Nothing answers at " + shown + because +
                  ". Check the port, that the service runs, and that no firewall is in between.",
              {},
              {}};
    case CURLE_OPERATION_TIMEDOUT:
      return {Outcome::timedOut,
              shown + " did not answer in time" + because +
                  ". Check that this machine is online and that no firewall is in between.",
              {},
              {}};
    case CURLE_PEER_FAILED_VERIFICATION:
      return {Outcome::notSecure,
              "The certificate of " + shown + " is not to be trusted" + because +
                  ". Check the host's name, this machine's clock and the package ca-certificates; "
                  "the file of a private authority is named by SSL_CERT_FILE.",
              {},
              {}};
    case CURLE_SSL_CACERT_BADFILE:
      return {Outcome::notSecure,
              "The certificates that " + shown + " is checked against cannot be read" + because +
                  ". Install the package ca-certificates, or correct SSL_CERT_FILE.",
              {},
              {}};
    case CURLE_SSL_CONNECT_ERROR:
      return {Outcome::notSecure,
              "No secure connection to " + shown + " can be made" + because +
                  ". If the service speaks plain HTTP there, the address begins with http://.",
              {},
              {}};
    default:
      return {Outcome::other, "Asking " + shown + " failed" + because + ".", {}, {}};
  }
}

ServiceProbe afterStatus(const Request& request, const std::string& address) {
  const std::string shown = inQuotes(address);
  const int status = request.status();
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
    const auto target = platform::URL::parse(request.header("Location"));
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
    static_cast<void>(decodeListing(request.body()));
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
  static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
  Request request;
  const CURLcode code =
      initialized == CURLE_OK ? request.run(address, token, patience) : initialized;
  ServiceProbe probe = code == CURLE_OK ? afterStatus(request, address)
                                        : afterTransport(code, request.detail(), address);
  if (code != CURLE_OK) return probe;
  probe.serverTime = Request::dateOf(request.header("Date"));
  probe.certificateUntil = request.certificateUntil();
  return probe;
}

}  // namespace kestrune
