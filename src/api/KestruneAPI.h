// The client of the remote file service: JSON over HTTP with a bearer token. Files are named by
// their absolute remote path ("/" is the root). Contents never pass through the service: it hands
// out pre-signed addresses.
//
// Every request reads the configuration anew: the address first, then the token. Requests go out on
// the process-wide shared session with an idle time-out of 60 seconds, except directImport.
//
// Threads: all functions hold no state and may be called from any task.
// Fails: APIError for the configuration, a status of 400 or more, and replies that do not decode;
// URLError for transport; NSCocoaError for a text that cannot be sent as JSON. Nothing is retried
// and nothing is logged here. A call that failed in transport or with `decode` may have been
// carried out all the same.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "api/APIError.h"
#include "api/Listing.h"
#include "api/WireRecords.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "platform/values/Json.h"

namespace kestrune {

class KestruneAPI {
 public:
  using Entry = RemoteEntry;

  KestruneAPI() = delete;

  /// The entries of one folder, in the service's order, unsorted and unfiltered.
  static platform::Task<std::vector<Entry>> list(std::string path);
  static platform::Task<void> mkdir(std::string path);
  static platform::Task<void> move(std::string src, std::string dst);
  /// Tells the service that `path` was rewritten. Never fails: whatever goes wrong is dropped.
  static platform::Task<void> notify(std::string path, std::int64_t size);

  static platform::Task<PresignResponse> presignDownload(std::string path);
  static platform::Task<PresignResponse> presignUpload(std::string path);
  static platform::Task<DirectPresignResponse> directPresignUpload(std::string path);

  /// One uploaded part: its number (from 1) and the storage's entity tag, exactly as received.
  struct UploadedPart {
    std::int64_t partNumber = 0;
    std::string etag;
  };
  static platform::Task<DirectMultipartInitResponse> directMultipartInit(std::string path);
  /// The pre-signed address of one part.
  static platform::Task<std::string> directMultipartPartURL(std::string key, std::string s3UploadId,
                                                            std::int64_t partNumber);
  /// Sends `parts` in the order given.
  static platform::Task<void> directMultipartComplete(std::string key, std::string s3UploadId,
                                                      std::vector<UploadedPart> parts);
  /// Best effort: whatever goes wrong is dropped.
  static platform::Task<void> directMultipartAbort(std::string key, std::string s3UploadId);

  /// Makes an uploaded object the file at `path`. Large objects take their time: the idle time-out
  /// is 1800 seconds, the whole call may last 3600, on a session that only imports use.
  static platform::Task<void> directImport(std::string key, std::string path);

  /// "/files?path=" and the encoded path, for listing and deletion: the URL-path-allowed characters
  /// stay ("&", "=", "+" and ";" among them), "/" becomes "%2F", all else is percent-encoded. A path
  /// that is not valid UTF-8 stays as it is.
  static std::string filesPath(const std::string& path);

  /// An authenticated request; `path` is appended to the configured address as it stands.
  static platform::URLRequest makeRequest(const std::string& method, const std::string& path);
  /// Sends `request`; a status of 400 or more is thrown as APIError::http with the body as text (""
  /// if not UTF-8).
  static platform::Task<platform::URLReply> checkedResponse(platform::URLRequest request);

  /// Posts `body` and decodes the reply as `Record`.
  template <class Record>
  static platform::Task<Record> postJSON(std::string path, platform::Json body) {
    const std::string reply = co_await post(std::move(path), std::move(body));
    co_return decodeReply<Record>(reply);
  }

 private:
  static platform::Task<std::string> post(std::string path, platform::Json body);

  template <class Record>
  static Record decodeReply(const std::string& reply) {
    try {
      return Record::decode(platform::decodeJson(reply));
    } catch (const platform::NSError& error) {
      throw APIError::decode(error);
    }
  }
};

}  // namespace kestrune
