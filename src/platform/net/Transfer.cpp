#include "platform/net/Transfer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/net/CurlWords.h"

namespace kestrune::platform {

namespace {

// Headers of all answers on the way (informational ones and redirects included) may take this much;
// servers that send more are broken or hostile.
constexpr std::size_t kMaximumHeaderBytes = 256U << 10U;
constexpr std::size_t kMaximumHeaderLines = 2000;
constexpr long kMaximumRedirects = 16;
constexpr std::uint64_t kMaximumSendBufferBytes = 2U << 20U;
constexpr int kMaximumUnsentBytes = 128 << 10;
constexpr std::uint64_t kMinimumSendBufferBytes = 16U << 10U;

class DataBody final : public BodySource {
 public:
  explicit DataBody(std::shared_ptr<const std::string> data) : data_(std::move(data)) {}
  std::uint64_t size() const override { return data_->size(); }
  std::size_t read(std::uint64_t offset, char* destination, std::size_t capacity) override {
    if (offset >= data_->size()) return 0;
    return data_->copy(destination, capacity, static_cast<std::size_t>(offset));
  }

 private:
  std::shared_ptr<const std::string> data_;
};

class FileBody final : public BodySource {
 public:
  explicit FileBody(const std::filesystem::path& file)
      : name_(file.string()), descriptor_(::open(file.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) throw NSPOSIXError(errno, "open '" + name_ + "'");
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) {
      const int error = S_ISREG(status.st_mode) ? errno : EINVAL;
      ::close(descriptor_);
      throw NSPOSIXError(error, "read '" + name_ + "' as a regular file");
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
  }
  ~FileBody() override { ::close(descriptor_); }
  FileBody(const FileBody&) = delete;
  FileBody& operator=(const FileBody&) = delete;

  std::uint64_t size() const override { return size_; }
  std::size_t read(std::uint64_t offset, char* destination, std::size_t capacity) override {
    for (;;) {
      const ssize_t got = ::pread(descriptor_, destination, capacity, static_cast<off_t>(offset));
      if (got >= 0) return static_cast<std::size_t>(got);
      if (errno != EINTR) throw NSPOSIXError(errno, "read '" + name_ + "'");
    }
  }

 private:
  std::string name_;
  int descriptor_;
  std::uint64_t size_ = 0;
};

template <class Value>
void setOption(CURL* easy, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(easy, option, value);
  if (code != CURLE_OK) throw errorFromCurl(code);
}

/// A socket that is closed in programs which this process starts; -1 where there is none.
int openSocket(const curl_sockaddr& address) {
#if defined(__APPLE__)
  const int descriptor = ::socket(address.family, address.socktype, address.protocol);
  if (descriptor >= 0) ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  return descriptor;
#else
  return ::socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
#endif
}

bool isLinkLocal(const sockaddr& address) {
  if (address.sa_family == AF_INET) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, &address, sizeof ipv4);
    return (ntohl(ipv4.sin_addr.s_addr) >> 16U) == 0xA9FEU;  // 169.254.0.0/16, RFC 3927
  }
  if (address.sa_family == AF_INET6) {
    sockaddr_in6 ipv6{};
    std::memcpy(&ipv6, &address, sizeof ipv6);
    const bool isMapped = IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr);
    const auto* bytes = ipv6.sin6_addr.s6_addr;
    return IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr) ||
           (isMapped && bytes[12] == 169 && bytes[13] == 254);
  }
  return false;
}

bool hasHeader(const HTTPHeaders& headers, const char* name) {
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), name) == 0) return true;
  }
  return false;
}

// RFC 9110, 9.2.2: what may be sent twice without another effect.
bool isIdempotent(std::string_view method) {
  return method == "GET" || method == "HEAD" || method == "PUT" || method == "DELETE" ||
         method == "OPTIONS";
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::unique_ptr<BodySource> BodySource::fromData(std::shared_ptr<const std::string> data) {
  return std::make_unique<DataBody>(std::move(data));
}

std::unique_ptr<BodySource> BodySource::fromFile(const std::filesystem::path& file) {
  return std::make_unique<FileBody>(file);
}

Transfer::Transfer(URLRequest request, const URLSessionConfiguration& configuration,
                   std::unique_ptr<BodySource> body, std::unique_ptr<TransferSink> sink)
    : request_(std::move(request)),
      idleTimeout_(request_.timeoutInterval.value_or(configuration.timeoutIntervalForRequest)),
      resourceTimeout_(configuration.timeoutIntervalForResource),
      body_(std::move(body)),
      sink_(std::move(sink)) {}

Transfer::~Transfer() {
  if (easy_ != nullptr) curl_easy_cleanup(easy_);
  curl_slist_free_all(headerList_);
}

CURL* Transfer::prepare() {
  if (request_.url.scheme() != "http" && request_.url.scheme() != "https")
    throw URLError(URLError::unsupportedURL);
  easy_ = curl_easy_init();
  if (easy_ == nullptr) throw URLError(URLError::unknown);
  setAddressAndLimits();
  setMethodAndBody();
  setHeaders();
  setCallbacks();
  if (request_.diagnosis) setDiagnosis();
  return easy_;
}

void Transfer::setAddressAndLimits() {
  setOption(easy_, CURLOPT_PRIVATE, static_cast<void*>(this));
  setOption(easy_, CURLOPT_URL, request_.url.absoluteString().c_str());
  setOption(easy_, CURLOPT_PATH_AS_IS, 1L);
  setOption(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
  setOption(easy_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  setOption(easy_, CURLOPT_FOLLOWLOCATION, request_.followsRedirects ? 1L : 0L);
  setOption(easy_, CURLOPT_MAXREDIRS, kMaximumRedirects);
  // A name and a password in the address would otherwise become a header that nobody set.
  setOption(easy_, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_NONE));
  setOption(easy_, CURLOPT_NOSIGNAL, 1L);
  setOption(easy_, CURLOPT_TCP_KEEPALIVE, 1L);
  setOption(easy_, CURLOPT_BUFFERSIZE, sink_->receiveBufferBytes());
  setOption(easy_, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(resourceDeadline() -
                                                                 std::chrono::steady_clock::now());
  setOption(easy_, CURLOPT_TIMEOUT_MS, std::max(static_cast<long>(left.count()), 1L));  // 0: none
  setOption(easy_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(idleTimeout_.count()));
  // OpenSSL's own variable for a store of one's own (a service with a private authority); libcurl
  // does not read it.
  if (const char* store = std::getenv("SSL_CERT_FILE"); store != nullptr && *store != '\0') {
    setOption(easy_, CURLOPT_CAINFO, store);
  }
}

void Transfer::setMethodAndBody() {
  const std::string& method = request_.httpMethod;
  if (body_) {
    setOption(easy_, CURLOPT_UPLOAD, 1L);
    setOption(easy_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body_->size()));
    const auto buffer =
        std::min(std::max(body_->size(), kMinimumSendBufferBytes), kMaximumSendBufferBytes);
    setOption(easy_, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(buffer));
    if (method != "PUT") setOption(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
    return;
  }
  if (method == "POST" || !request_.httpBody.empty()) {
    setOption(easy_, CURLOPT_POST, 1L);
    setOption(easy_, CURLOPT_POSTFIELDS, request_.httpBody.c_str());
    setOption(easy_, CURLOPT_POSTFIELDSIZE_LARGE,
              static_cast<curl_off_t>(request_.httpBody.size()));
  }
  if (method == "HEAD") {
    setOption(easy_, CURLOPT_NOBODY, 1L);
  } else if (method != "POST" && (method != "GET" || !request_.httpBody.empty())) {
    // Not for POST: a redirect by 303 turns it into GET only where libcurl chose the method.
    setOption(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
}

void Transfer::setHeaders() {
  // Without these libcurl adds headers of its own; a name followed by a bare colon takes one away.
  std::vector<std::string> lines = {"Accept:", "Expect:"};
  if (!hasHeader(request_.headers, "Content-Type")) lines.emplace_back("Content-Type:");
  for (const auto& [name, value] : request_.headers) {
    // The length is that of the body; a second header would contradict or repeat it.
    if (strcasecmp(name.c_str(), "Content-Length") == 0) continue;
    if ((name + value).find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
      throw URLError(URLError::unknown, "a header of the request holds a line break");
    }
    std::string line = name;
    line.append(value.empty() ? ";" : ": ").append(value);
    lines.push_back(std::move(line));
  }
  for (const std::string& line : lines) {
    curl_slist* extended = curl_slist_append(headerList_, line.c_str());
    if (extended == nullptr) throw URLError(URLError::unknown);
    headerList_ = extended;
  }
  setOption(easy_, CURLOPT_HTTPHEADER, headerList_);
}

void Transfer::setCallbacks() {
  setOption(easy_, CURLOPT_PREREQFUNCTION, &Transfer::onRequest);
  setOption(easy_, CURLOPT_PREREQDATA, this);
  setOption(easy_, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
  setOption(easy_, CURLOPT_HEADERDATA, this);
  setOption(easy_, CURLOPT_WRITEFUNCTION, &Transfer::onData);
  setOption(easy_, CURLOPT_WRITEDATA, this);
  setOption(easy_, CURLOPT_NOPROGRESS, 0L);
  setOption(easy_, CURLOPT_XFERINFOFUNCTION, &Transfer::onProgress);
  setOption(easy_, CURLOPT_XFERINFODATA, this);
  setOption(easy_, CURLOPT_OPENSOCKETFUNCTION, &Transfer::onOpenSocket);
  setOption(easy_, CURLOPT_OPENSOCKETDATA, this);
  if (body_) {
    setOption(easy_, CURLOPT_READFUNCTION, &Transfer::onRead);
    setOption(easy_, CURLOPT_READDATA, this);
    setOption(easy_, CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
    setOption(easy_, CURLOPT_SEEKDATA, this);
  }
}

void Transfer::setDiagnosis() {
  setOption(easy_, CURLOPT_ERRORBUFFER, errorText_.data());
  setOption(easy_, CURLOPT_CERTINFO, 1L);
}

void Transfer::fillDiagnosis(CURLcode code) const {
  URLDiagnosis& diagnosis = *request_.diagnosis;
  diagnosis.failure = failureFromCurl(code);
  diagnosis.certificateUntil = certificateEnd(easy_);
  if (code != CURLE_OK)
    diagnosis.detail = errorText_[0] != '\0' ? errorText_.data() : curl_easy_strerror(code);
}

void Transfer::touch() { lastActivity_ = std::chrono::steady_clock::now(); }

std::optional<Transfer::Instant> Transfer::idleDeadline() const {
  if (!lastActivity_ || paused_) return std::nullopt;
  return *lastActivity_ + idleTimeout_;
}

void Transfer::setPaused(bool paused) {
  paused_ = paused;
  touch();
}

void Transfer::announceResponse() {
  if (responseAnnounced_) return;
  responseAnnounced_ = true;
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  response_.statusCode = static_cast<int>(status);
  curl_off_t expected = -1;
  curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
  sink_->didReceiveResponse(response_, expected);
}

void Transfer::finish(CURLcode code) {
  if (request_.diagnosis) fillDiagnosis(code);
  if (failure_) return fail(std::move(failure_));
  // An answer in no protocol that libcurl knows has the code of an address in none, but comes after
  // a request.
  if (code == CURLE_UNSUPPORTED_PROTOCOL && sentAfterRedirects_ == redirectCount()) {
    return fail(std::make_exception_ptr(URLError(URLError::badServerResponse)));
  }
  if (code != CURLE_OK) return fail(std::make_exception_ptr(errorFromCurl(code)));
  // libcurl 7.88 takes the end of the connection inside a head for the end of the head.
  if (!headIsComplete_) {
    return fail(std::make_exception_ptr(URLError(URLError::networkConnectionLost)));
  }
  try {
    announceResponse();
  } catch (...) {
    failure_ = std::current_exception();
  }
  if (failure_) return fail(std::move(failure_));
  end(nullptr);
}

void Transfer::fail(std::exception_ptr error) { end(std::move(error)); }

void Transfer::end(std::exception_ptr error) {
  // Before anybody hears of the end: whoever then sends the next body must not find this one's
  // memory still in use.
  body_.reset();
  sink_->didEnd(std::move(error));
}

bool Transfer::acceptHeaderLine(std::string_view line) {
  headerBytes_ += line.size();
  if (headerBytes_ > kMaximumHeaderBytes || ++headerLines_ > kMaximumHeaderLines) {
    failure_ = std::make_exception_ptr(URLError(URLError::badServerResponse));
    return false;
  }
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.empty()) {
    headIsComplete_ = true;
  } else if (line.substr(0, 5) == "HTTP/") {
    // A new answer begins: an informational one or a redirect came before.
    headIsComplete_ = false;
    response_.headers.clear();
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
    response_.headers.emplace_back(std::string(line.substr(0, colon)),
                                   std::string(trimmed(line.substr(colon + 1))));
  }
  return true;
}

std::size_t Transfer::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  transfer.touch();
  return transfer.acceptHeaderLine({data, size * count}) ? size * count : 0;
}

std::size_t Transfer::onData(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  transfer.touch();
  try {
    transfer.announceResponse();
    if (transfer.sink_->didReceiveData({data, size * count}) == TransferSink::Take::pause) {
      transfer.setPaused(true);
      return CURL_WRITEFUNC_PAUSE;
    }
  } catch (...) {
    transfer.stopWithCurrentException();
    return CURL_WRITEFUNC_ERROR;
  }
  return size * count;
}

std::size_t Transfer::onRead(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  try {
    const std::size_t got = transfer.body_->read(transfer.bodyOffset_, data, size * count);
    transfer.bodyOffset_ += got;
    return got;
  } catch (...) {
    transfer.stopWithCurrentException();
    return CURL_READFUNC_ABORT;
  }
}

int Transfer::onSeek(void* self, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  static_cast<Transfer*>(self)->bodyOffset_ = static_cast<std::uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

long Transfer::redirectCount() const {
  long count = 0;
  curl_easy_getinfo(easy_, CURLINFO_REDIRECT_COUNT, &count);
  return count;
}

int Transfer::onRequest(void* self, char*, char*, int, int) {
  auto& transfer = *static_cast<Transfer*>(self);
  const long redirects = transfer.redirectCount();
  const bool isRepetition = std::exchange(transfer.sentAfterRedirects_, redirects) == redirects;
  const char* method = "";
  curl_easy_getinfo(transfer.easy_, CURLINFO_EFFECTIVE_METHOD, &method);
  if (!isRepetition || isIdempotent(method)) return CURL_PREREQFUNC_OK;
  transfer.failure_ = std::make_exception_ptr(URLError(URLError::networkConnectionLost));
  return CURL_PREREQFUNC_ABORT;
}

int Transfer::onProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
  auto& transfer = *static_cast<Transfer*>(self);
  const curl_off_t moved = received + sent;
  if (!transfer.lastActivity_ || moved != transfer.movedBytes_) transfer.touch();
  transfer.movedBytes_ = moved;
  return 0;
}

curl_socket_t Transfer::onOpenSocket(void* self, curlsocktype, curl_sockaddr* address) {
  // A redirect must not lead to this machine's own link, where credentials of cloud machines are
  // served.
  const bool isRedirected = static_cast<Transfer*>(self)->redirectCount() > 0;
  if (isRedirected && isLinkLocal(address->addr)) return CURL_SOCKET_BAD;
  const int descriptor = openSocket(*address);
  // The idle clock sees what the kernel takes. A kernel that took megabytes at once would then be
  // silent for as long as a slow line needs to carry them.
  if (descriptor >= 0) {
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMaximumUnsentBytes,
                 sizeof kMaximumUnsentBytes);
  }
  return descriptor;
}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view name) const {
  const std::string wanted(name);
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), wanted.c_str()) == 0) return header.second;
  }
  return std::nullopt;
}

std::optional<Date> HTTPURLResponse::date() const {
  return dateOf(valueForHTTPHeaderField("Date").value_or(""));
}

}  // namespace kestrune::platform
