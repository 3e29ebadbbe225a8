#include "platform/net/CurlWords.h"

#include <string_view>

namespace kestrune::platform {

URLError errorFromCurl(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return URLError(URLError::timedOut);
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return URLError(URLError::unsupportedURL);
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return URLError(URLError::cannotFindHost);
    case CURLE_COULDNT_CONNECT:
    case CURLE_PROXY:
    case CURLE_INTERFACE_FAILED:
      return URLError(URLError::cannotConnectToHost);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return URLError(URLError::networkConnectionLost);
    case CURLE_TOO_MANY_REDIRECTS:
      return URLError(URLError::httpTooManyRedirects);
    case CURLE_FILESIZE_EXCEEDED:
      return URLError(URLError::dataLengthExceedsMaximum);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
      return URLError(URLError::secureConnectionFailed);
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_OUT_OF_MEMORY:  // what libcurl 7.88 says of a header line of more than 100 KiB
      return URLError(URLError::badServerResponse);
    default:
      return URLError(URLError::unknown,
                      std::string("transfer failed: ") + curl_easy_strerror(code));
  }
}

URLDiagnosis::Failure failureFromCurl(CURLcode code) {
  using Failure = URLDiagnosis::Failure;
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return Failure::hostUnknown;
    case CURLE_COULDNT_RESOLVE_PROXY:
      return Failure::proxyUnknown;
    case CURLE_PEER_FAILED_VERIFICATION:
      return Failure::certificateUntrusted;
    case CURLE_SSL_CACERT_BADFILE:
      return Failure::authoritiesUnreadable;
    case CURLE_SSL_CONNECT_ERROR:
      return Failure::noTLS;
    default:
      return Failure::none;
  }
}

std::optional<Date> dateOf(const std::string& text) {
  const time_t seconds = text.empty() ? -1 : curl_getdate(text.c_str(), nullptr);
  if (seconds < 0) return std::nullopt;
  return Date(std::chrono::seconds(seconds));
}

std::optional<Date> certificateEnd(CURL* easy) {
  constexpr std::string_view kKey = "Expire date:";
  curl_certinfo* chain = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_CERTINFO, &chain) != CURLE_OK || chain == nullptr ||
      chain->num_of_certs < 1)
    return std::nullopt;
  for (const curl_slist* row = chain->certinfo[0]; row != nullptr; row = row->next) {
    const std::string_view text = row->data;
    if (text.starts_with(kKey)) return dateOf(std::string(text.substr(kKey.size())));
  }
  return std::nullopt;
}

}  // namespace kestrune::platform
