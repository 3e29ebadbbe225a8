// Uploads that come in parts: which are open, where their parts lie, and how they become one
// object.
//
// Joining the parts must not take long: clients wait a minute for it. So parts are written where
// they belong as they come: the length of the first large part is taken as the length of all, and a
// part of that length goes to its place in one common draft. What does not fit the guess (the last
// part, usually) gets a draft of its own and is copied to its place in the end. Where the guess was
// wrong altogether, all parts are copied in order; that is slower and gives the same object.
//
// The state is kept in memory: after a restart open uploads are unknown (404), and clients begin
// anew.
//
//     open  (beginPart (finishPart | failPart))*  (complete | abort)
//
// Threads: callable from any thread; all but `open` block on the disk.
// Owns: the drafts of open uploads.
// Fails: ServiceError; 404 for an upload that is not open.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Mutex.h"
#include "service/Draft.h"
#include "service/Staging.h"

namespace kestrune::service {

class MultipartUploads {
 public:
  struct Opened {
    std::string key;
    std::string id;
  };
  /// Where one part is written while it comes.
  struct Slot {
    std::shared_ptr<Draft> draft;
    std::uint64_t offset = 0;
    /// 0 as long as the part was not begun.
    int number = 0;
    bool inPlace = false;
  };
  /// One part as the client names it.
  struct NamedPart {
    int number = 0;
    std::string tag;
  };

  static constexpr int kMaxPartNumber = 10'000;

  /// `staging` outlives this object.
  explicit MultipartUploads(const Staging& staging) : staging_(staging) {}

  /// 503 when too many are open. `nowSeconds` is the time since 1970.
  Opened open(std::int64_t nowSeconds);
  /// Whether a part of this number may be uploaded now: 400 for a number outside 1 to
  /// kMaxPartNumber.
  void check(const std::string& key, const std::string& id, std::int64_t number) const;

  /// `length` is what was announced, if it was.
  Slot beginPart(const std::string& id, int number, std::optional<std::uint64_t> length);
  /// The part is complete; returns its entity tag, without quotes. An earlier part of that number
  /// is forgotten. 409 while the upload is being completed; `failPart` must follow then.
  std::string finishPart(const std::string& id, const Slot& slot, std::uint64_t length,
                         std::int64_t nowSeconds);
  /// The part will not be completed.
  void failPart(const std::string& id, const Slot& slot);

  /// Joins the parts, in this order, to the object `key`. 400 if the list is empty, not ascending,
  /// or names a part that was not uploaded (the upload then stays open); 409 while another call
  /// does the same; 404 if the upload was aborted meanwhile.
  void complete(const std::string& key, const std::string& id, const std::vector<NamedPart>& parts);

  /// Forgets the upload, also while it is being completed, or the object if it was completed.
  /// Fine if there is none.
  void abort(const std::string& key, const std::string& id);

  /// Forgets the uploads that nobody touched for 24 hours. A part on its way touches its upload.
  void sweep(std::int64_t nowSeconds);

 private:
  struct Part {
    std::shared_ptr<Draft> draft;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::string tag;
    bool inPlace = false;
  };
  struct Upload {
    std::string key;
    /// The common draft; null until a part has a place in it.
    std::shared_ptr<Draft> whole;
    std::uint64_t partLength = 0;
    /// The places of the common draft that are written or being written.
    std::set<int> taken;
    int writing = 0;
    /// All parts that are on their way, those included.
    int receiving = 0;
    bool completing = false;
    /// Aborted while it is completed; nobody finds it any more, and `complete` forgets it.
    bool aborted = false;
    std::map<int, Part> parts;
    std::int64_t touched = 0;
  };
  /// What `complete` works on while the upload is marked as completing.
  struct Joining {
    std::shared_ptr<Draft> whole;
    /// Whether nobody writes to the common draft, and it holds no part but those that are named.
    bool wholeIsOurs = false;
    std::vector<Part> parts;
  };

  Upload& find(const std::string& id) REQUIRES_LOCK(mutex_);
  const Upload& find(const std::string& id) const REQUIRES_LOCK(mutex_);
  Joining beginJoining(const std::string& key, const std::string& id,
                       const std::vector<NamedPart>& parts);
  std::shared_ptr<Draft> join(const Joining& joining) const;

  const Staging& staging_;
  mutable platform::Mutex mutex_;
  std::map<std::string, Upload, std::less<>> uploads_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::service
