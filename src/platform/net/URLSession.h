// URL sessions: HTTP requests for coroutines, on libcurl's multi interface.
//
// A session owns one driver thread that moves all its transfers; connections are kept and reused,
// at most `httpMaximumConnectionsPerHost` of them to one host (further requests wait their turn).
// Answers are delivered on the caller's own executor. Redirects with a "Location" are followed, at
// most 16, to http and https alone; a 3xx without one is handed back as it is. "Authorization" goes
// to the first request's scheme, host and port and to no other. TLS certificates are always
// verified, against the system's store or $SSL_CERT_FILE. Requests carry only the headers that were
// set, "Host", and those of their body. A request whose kept connection ends without an answer goes
// out again on another if its method is idempotent (RFC 9110); else it fails, since the server may
// have carried it out.
//
// Time: a request's time-out is an idle time-out; its clock restarts whenever a byte of a body or a
// line of a head moves, in either direction, and stands still while the request waits for a
// connection or its reader holds the network back. The resource time-out bounds the whole transfer.
//
// Threads: every operation may be called from any thread. Handlers of download tasks are called as
// documented there. Fails: URLError with the codes of URLError.h, for transport alone: any status
// the server sends is an answer. A cancelled task (TaskGroup) cancels its transfer, which then
// fails with `cancelled`.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/net/URL.h"
#include "platform/net/URLError.h"
#include "platform/tasks/Task.h"
#include "platform/values/ByteBuffer.h"
#include "platform/values/Date.h"

namespace kestrune::platform {

struct URLSessionConfiguration {
  /// Idle time-out of requests that set none themselves.
  std::chrono::milliseconds timeoutIntervalForRequest = std::chrono::seconds(60);
  /// Bound of a whole transfer, pauses included. The platform's default is seven days.
  std::chrono::milliseconds timeoutIntervalForResource = std::chrono::hours(24 * 7);
  /// The platform's default on desktops.
  int httpMaximumConnectionsPerHost = 6;
  /// A body collected in memory that grows beyond this fails with dataLengthExceedsMaximum,
  /// whatever length was announced: room for a listing of about two million entries.
  std::uint64_t maximumDataBytes = 256ULL << 20U;
};

using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

/// What is known of a connection beyond its answer, for those who ask a person to mend something. It may name hosts and files; it
/// never holds an address, a header or a body.
struct URLDiagnosis {
  enum class Failure {
    none,  // or none of these
    hostUnknown,
    proxyUnknown,
    /// The server's certificate is not to be trusted.
    certificateUntrusted,
    /// The file of authorities cannot be read.
    authoritiesUnreadable,
    /// Nobody speaks TLS there, or none that both know.
    noTLS,
  };
  Failure failure = Failure::none;
  /// In the library's words; empty where nothing failed.
  std::string detail;
  /// When the server's certificate ends, where there is one.
  std::optional<Date> certificateUntil;
};

struct URLRequest {
  explicit URLRequest(URL requestURL) : url(std::move(requestURL)) {}
  URL url;
  std::string httpMethod = "GET";
  HTTPHeaders headers;
  std::string httpBody;
  /// Idle time-out of this request; none means the session's.
  std::optional<std::chrono::milliseconds> timeoutInterval;
  /// Otherwise a redirect is an answer like any other.
  bool followsRedirects = true;
  /// Filled in before the end is told; none: nobody asks.
  std::shared_ptr<URLDiagnosis> diagnosis;
};

struct HTTPURLResponse {
  int statusCode = 0;
  /// Of the final answer, in the order received, names as received.
  HTTPHeaders headers;
  /// The value of the first header with this name, compared without case.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
  /// What the server's clock said, exact to a second; none where the header Date says nothing.
  std::optional<Date> date() const;
};

/// A whole answer in memory.
struct URLReply {
  std::string data;
  HTTPURLResponse response;
};

/// An answer whose body is read as it arrives. About 1 MiB is buffered at most: a slow reader stops
/// the network. Threads: one reader at a time. Dropping the stream cancels the transfer.
class URLByteStream {
 public:
  class Source;
  /// What a piece can need.
  static constexpr std::size_t kRoomBytes = (1U << 20U) + (64U << 10U);

  URLByteStream(HTTPURLResponse response, std::shared_ptr<Source> source);
  URLByteStream(URLByteStream&&) noexcept;
  URLByteStream& operator=(URLByteStream&&) noexcept;
  ~URLByteStream();

  const HTTPURLResponse& response() const { return response_; }

  /// The next bytes, in pieces of whatever size has arrived; none at the end of the body. Throws
  /// what the transfer failed with, after all bytes that came before the failure have been read.
  /// `memory`: takes later bytes; a piece that was read and is no longer needed, or where the bytes
  /// are wanted. Fresh memory for each piece of a long body costs more than the copying. With room
  /// for kRoomBytes it is never left for other memory.
  Task<std::optional<ByteBuffer>> next(ByteBuffer memory = {});

 private:
  HTTPURLResponse response_;
  std::shared_ptr<Source> source_;
};

/// What a download task has received. `expected` is -1 while the length is not known.
struct DownloadCounts {
  std::int64_t countOfBytesReceived = 0;
  std::int64_t countOfBytesExpectedToReceive = -1;
};

/// One download to a file, started with `resume`.
class URLSessionDownloadTask {
 public:
  /// `location` is a file in the temporary directory, or nothing where no file came. It is removed
  /// when the handler returns unless the handler has moved it. `response` is set where there was an
  /// answer. Called once, on an executor thread, after the last observation.
  using CompletionHandler =
      std::function<void(std::optional<std::filesystem::path> location,
                         std::optional<HTTPURLResponse> response, NSErrorPtr error)>;
  /// Called on the session's driver thread as bytes arrive: at most about 20 times a second, and
  /// always for the last byte. It must be short and must not block.
  using Observer = std::function<void(DownloadCounts)>;
  class Implementation;

  explicit URLSessionDownloadTask(std::shared_ptr<Implementation> implementation);

  /// Sets the observer. REQUIRES: called before `resume`.
  void observe(Observer observer);
  /// Ends the observation: when it returns the observer is not running and will not be called
  /// again.
  void invalidateObservation();
  /// Starts the download. REQUIRES: called once.
  void resume();
  void cancel();

 private:
  std::shared_ptr<Implementation> implementation_;
};

class CurlDriver;

class URLSession {
 public:
  explicit URLSession(URLSessionConfiguration configuration);
  /// Cancels what still runs, like invalidateAndCancel.
  ~URLSession();
  URLSession(const URLSession&) = delete;
  URLSession& operator=(const URLSession&) = delete;

  /// The session of the whole process, with the default configuration. It is never invalidated.
  static URLSession& shared();

  /// Sends `request` with its httpBody and collects the answer in memory.
  Task<URLReply> data(URLRequest request);

  /// Sends the contents of `file` as the body, streamed; httpBody is ignored. The file must not
  /// change meanwhile.
  Task<URLReply> uploadFromFile(URLRequest request, std::filesystem::path file);

  /// Sends `body`, which is kept until the answer is there and then released; httpBody is ignored.
  Task<URLReply> uploadFromData(URLRequest request, std::shared_ptr<const std::string> body);

  /// Sends `request` and returns once the answer's first bytes (or its end) are there.
  Task<URLByteStream> bytes(URLRequest request);

  /// A GET of `url` into a new file of the temporary directory. Nothing happens before `resume`.
  std::shared_ptr<URLSessionDownloadTask> downloadTask(
      URL url, URLSessionDownloadTask::CompletionHandler completionHandler);

  /// Fails everything that runs, and everything that is asked for later, with URLError cancelled.
  /// May be called twice.
  void invalidateAndCancel();

 private:
  URLSessionConfiguration configuration_;
  std::shared_ptr<CurlDriver> driver_;
};

}  // namespace kestrune::platform
