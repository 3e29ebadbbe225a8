#include "api/KestruneAPI.h"

#include <chrono>
#include <optional>

#include "config/SharedConfig.h"
#include "platform/values/UTF8.h"

namespace kestrune {

using platform::Json;
using platform::Task;
using platform::URL;
using platform::URLReply;
using platform::URLRequest;
using platform::URLSession;
using platform::URLSessionConfiguration;

namespace {

constexpr std::chrono::seconds kRequestTimeout(60);
constexpr std::chrono::seconds kImportTimeout(1800);
constexpr std::chrono::seconds kImportResourceTimeout(3600);
constexpr int kFirstErrorStatus = 400;
// Imports of large objects last long; they must not keep others waiting.
constexpr int kImportsAtOnce = 32;

// Kept between imports: a thread and a connection for each would cost more than importing a small file does.
URLSession& importSession() {
  static auto* const session = [] {
    URLSessionConfiguration configuration;
    configuration.timeoutIntervalForRequest = kImportTimeout;
    configuration.timeoutIntervalForResource = kImportResourceTimeout;
    configuration.httpMaximumConnectionsPerHost = kImportsAtOnce;
    return new URLSession(configuration);  // used until the process ends
  }();
  return *session;
}

URLRequest authenticatedRequest(const std::string& method, const std::string& path,
                                std::chrono::seconds timeout) {
  const auto apiURL = SharedConfig::apiURL();
  if (!apiURL) throw APIError::notConfigured();
  auto url = URL::parse(*apiURL + path);
  if (!url) throw APIError::notConfigured();
  const auto token = SharedConfig::token();
  if (!token) throw APIError::notConfigured();

  URLRequest request(std::move(*url));
  request.httpMethod = method;
  request.timeoutInterval = timeout;
  request.headers = {{"Authorization", "Bearer " + token->reveal()},
                     {"Content-Type", "application/json"}};
  return request;
}

void throwIfRefused(const URLReply& reply) {
  const int status = reply.response.statusCode;
  if (status >= kFirstErrorStatus)
    throw APIError::http(status, platform::isValidUTF8(reply.data) ? reply.data : "");
}

}  // namespace

std::string KestruneAPI::filesPath(const std::string& path) {
  std::string result = "/files?path=";
  const auto encoded = platform::percentEncodedForURLPath(path);
  if (!encoded) return result + path;  // no text; makeRequest refuses the address
  for (const char c : *encoded) {
    if (c == '/') {
      result += "%2F";
    } else {
      result += c;
    }
  }
  return result;
}

URLRequest KestruneAPI::makeRequest(const std::string& method, const std::string& path) {
  return authenticatedRequest(method, path, kRequestTimeout);
}

Task<URLReply> KestruneAPI::checkedResponse(URLRequest request) {
  URLReply reply = co_await URLSession::shared().data(std::move(request));
  throwIfRefused(reply);
  co_return reply;
}

Task<std::string> KestruneAPI::post(std::string path, Json body) {
  URLRequest request = makeRequest("POST", path);
  request.httpBody = platform::encodeJson(body);
  URLReply reply = co_await checkedResponse(std::move(request));
  co_return std::move(reply.data);
}

Task<std::vector<KestruneAPI::Entry>> KestruneAPI::list(std::string path) {
  URLRequest request = makeRequest("GET", filesPath(path));
  URLReply reply = co_await checkedResponse(std::move(request));
  std::vector<Entry> entries;
  try {
    entries = decodeListing(reply.data);
  } catch (const platform::NSError& error) {
    throw APIError::decode(error);
  }
  co_return entries;
}

Task<void> KestruneAPI::mkdir(std::string path) {
  Json body = {{"path", std::move(path)}};
  co_await postJSON<StringDictionary>("/files/mkdir", std::move(body));
}

Task<void> KestruneAPI::move(std::string src, std::string dst) {
  Json body = {{"src", std::move(src)}, {"dst", std::move(dst)}};
  co_await postJSON<StringDictionary>("/files/move", std::move(body));
}

Task<void> KestruneAPI::notify(std::string path, std::int64_t size) {
  Json body = {{"path", std::move(path)}, {"size", std::to_string(size)}};
  try {
    co_await postJSON<OptionalStringDictionary>("/files/presign-notify", std::move(body));
  } catch (const platform::NSError&) {
    // The contents are on the store; the service finds them without being told.
  }
}

Task<PresignResponse> KestruneAPI::presignDownload(std::string path) {
  Json body = {{"path", std::move(path)}};
  co_return co_await postJSON<PresignResponse>("/files/presign-download", std::move(body));
}

Task<PresignResponse> KestruneAPI::presignUpload(std::string path) {
  Json body = {{"path", std::move(path)}};
  co_return co_await postJSON<PresignResponse>("/files/presign-upload", std::move(body));
}

Task<DirectPresignResponse> KestruneAPI::directPresignUpload(std::string path) {
  Json body = {{"path", std::move(path)}};
  co_return co_await postJSON<DirectPresignResponse>("/files/direct-presign-upload",
                                                     std::move(body));
}

Task<DirectMultipartInitResponse> KestruneAPI::directMultipartInit(std::string path) {
  Json body = {{"path", std::move(path)}};
  co_return co_await postJSON<DirectMultipartInitResponse>("/files/direct-multipart-init",
                                                           std::move(body));
}

Task<std::string> KestruneAPI::directMultipartPartURL(std::string key, std::string s3UploadId,
                                                      std::int64_t partNumber) {
  Json body = {
      {"key", std::move(key)}, {"s3UploadId", std::move(s3UploadId)}, {"partNumber", partNumber}};
  PartURLResponse reply =
      co_await postJSON<PartURLResponse>("/files/direct-multipart-part-url", std::move(body));
  co_return std::move(reply.url);
}

Task<void> KestruneAPI::directMultipartComplete(std::string key, std::string s3UploadId,
                                                std::vector<UploadedPart> parts) {
  Json list = Json::array();
  // "Etag" is spelled so on this wire.
  for (UploadedPart& part : parts)
    list.push_back({{"PartNumber", part.partNumber}, {"Etag", std::move(part.etag)}});
  Json body = {
      {"key", std::move(key)}, {"s3UploadId", std::move(s3UploadId)}, {"parts", std::move(list)}};
  co_await postJSON<StringDictionary>("/files/direct-multipart-complete", std::move(body));
}

Task<void> KestruneAPI::directMultipartAbort(std::string key, std::string s3UploadId) {
  Json body = {{"key", std::move(key)}, {"s3UploadId", std::move(s3UploadId)}};
  try {
    co_await postJSON<OptionalStringDictionary>("/files/direct-multipart-abort", std::move(body));
  } catch (const platform::NSError&) {
    // The service sweeps abandoned uploads by itself.
  }
}

Task<void> KestruneAPI::directImport(std::string key, std::string path) {
  URLRequest request = authenticatedRequest("POST", "/files/direct-import", kImportTimeout);
  request.httpBody = platform::encodeJson({{"key", std::move(key)}, {"path", std::move(path)}});
  const URLReply reply = co_await importSession().data(std::move(request));
  throwIfRefused(reply);
}

}  // namespace kestrune
