// One request on its way: its easy handle, what it sends, where its answer goes, and its idle
// clock.
//
// A Transfer is made on any thread, handed to a CurlDriver, and from then on touched by that
// driver's thread alone. It ends exactly once: with a call of its sink's `didEnd`.
#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/net/URLSession.h"

namespace kestrune::platform {

/// Where an answer goes. All calls come on the driver thread, in the order response, data…, end. A
/// transfer that fails early ends without a response.
class TransferSink {
 public:
  enum class Take { taken, pause };

  // Measured: 16 KiB, libcurl's default, costs up to three times the processor time of 512 KiB.
  static constexpr long kContentsBufferBytes = 512L << 10U;

  virtual ~TransferSink() = default;
  /// How much is read from the network at once: much for contents, little for short replies, for
  /// which allocating the room would cost more than the reading.
  virtual long receiveBufferBytes() const { return kContentsBufferBytes; }
  /// The final answer's status and headers; `expectedBytes` is -1 while the body's length is not
  /// known.
  virtual void didReceiveResponse(const HTTPURLResponse& response, std::int64_t expectedBytes) = 0;
  /// With `pause` the bytes were not taken: they come again after CurlDriver::resumeReading. May
  /// throw: the transfer then ends with that error.
  virtual Take didReceiveData(std::string_view bytes) = 0;
  /// The driver has moved what it could move for now.
  virtual void turnEnded() {}
  /// `error` is null where the whole answer arrived.
  virtual void didEnd(std::exception_ptr error) = 0;
};

/// What a request sends as its body.
class BodySource {
 public:
  virtual ~BodySource() = default;
  virtual std::uint64_t size() const = 0;
  /// Copies up to `capacity` bytes from `offset` on and returns how many. May throw.
  virtual std::size_t read(std::uint64_t offset, char* destination, std::size_t capacity) = 0;

  static std::unique_ptr<BodySource> fromData(std::shared_ptr<const std::string> data);
  /// Throws NSPOSIXError if `file` cannot be opened or is no regular file.
  static std::unique_ptr<BodySource> fromFile(const std::filesystem::path& file);
};

class Transfer : public std::enable_shared_from_this<Transfer> {
 public:
  using Instant = std::chrono::steady_clock::time_point;

  /// `body` null: httpBody is sent.
  Transfer(URLRequest request, const URLSessionConfiguration& configuration,
           std::unique_ptr<BodySource> body, std::unique_ptr<TransferSink> sink);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // For the driver's thread.

  /// The configured handle. Throws URLError for an address that cannot be requested.
  CURL* prepare();
  CURL* handle() const { return easy_; }
  TransferSink& sink() { return *sink_; }
  /// Of the address that was asked for.
  const std::string& origin() const { return request_.url.origin(); }
  /// When the whole transfer must have ended, waiting included.
  Instant resourceDeadline() const { return made_ + resourceTimeout_; }
  /// When the idle clock runs out; nothing while it stands still.
  std::optional<Instant> idleDeadline() const;
  void setPaused(bool paused);
  bool isPaused() const { return paused_; }
  /// Ends the transfer by what libcurl says of it, or by the error that stopped it.
  void finish(CURLcode code);
  /// Ends the transfer with `error`.
  void fail(std::exception_ptr error);

 private:
  void setAddressAndLimits();
  void setMethodAndBody();
  void setHeaders();
  void setCallbacks();
  void setDiagnosis();
  void fillDiagnosis(CURLcode code) const;
  void touch();
  void announceResponse();
  void end(std::exception_ptr error);
  /// Keeps the exception being handled as the reason to stop. REQUIRES: called inside a catch
  /// block.
  void stopWithCurrentException() { failure_ = std::current_exception(); }
  long redirectCount() const;
  bool acceptHeaderLine(std::string_view line);

  /// Called before each request that goes out. libcurl sends one again whose kept connection ended
  /// without an answer; where that could carry it out twice, the transfer ends instead.
  static int onRequest(void* self, char*, char*, int, int);
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onData(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onRead(char* data, std::size_t size, std::size_t count, void* self);
  static int onSeek(void* self, curl_off_t offset, int origin);
  static int onProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent);
  static curl_socket_t onOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);

  const URLRequest request_;
  const std::chrono::milliseconds idleTimeout_;
  const std::chrono::milliseconds resourceTimeout_;
  const Instant made_ = std::chrono::steady_clock::now();

  // Used by the driver's thread alone.
  std::unique_ptr<BodySource> body_;
  std::unique_ptr<TransferSink> sink_;
  CURL* easy_ = nullptr;
  std::array<char, CURL_ERROR_SIZE> errorText_{};  // where a diagnosis is wanted
  curl_slist* headerList_ = nullptr;
  HTTPURLResponse response_;
  std::size_t headerBytes_ = 0;
  std::size_t headerLines_ = 0;
  bool headIsComplete_ = false;   // of the last answer that has begun
  long sentAfterRedirects_ = -1;  // how many redirects came before the last request that went out
  std::uint64_t bodyOffset_ = 0;
  curl_off_t movedBytes_ = 0;
  std::optional<Instant> lastActivity_;  // none until the request has a connection or looks for one
  bool responseAnnounced_ = false;
  bool paused_ = false;
  std::exception_ptr failure_;
};

}  // namespace kestrune::platform
