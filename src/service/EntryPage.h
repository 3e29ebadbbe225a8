// One page of a folder's entries, in order over the whole folder, found in one reading of it with
// memory for one page.
//
// A page is found by the place of an entry in the order rather than by a number: the next page
// follows the last entry that was shown, also when others have come or gone meanwhile. Folders come
// before files in every order; entries that are equal in size or time are ordered by name, and names
// as people do: without regard to case (of ASCII letters), and digits by the number they stand for.
//
//     EntryPage(...)  (readSome)* until false  finish
//
// Threads: one at a time. Blocks on the disk.
// Fails: ServiceError.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/FileDescriptor.h"
#include "service/Folders.h"
#include "service/Tree.h"

namespace kestrune::service {

enum class SortBy { name, size, time };

struct Sorting {
  SortBy by = SortBy::name;
  bool isDescending = false;
  bool operator==(const Sorting&) const = default;
};

struct FolderEntry {
  bool isFolder = false;
  std::string name;
  std::uint64_t sizeBytes = 0;
  FileTime modified;
};

/// An entry's place in an order.
struct EntryPlace {
  bool isFolder = false;
  /// Its size, or milliseconds since 1970; 0 where the order is by name.
  std::int64_t value = 0;
  std::string name;

  static EntryPlace of(const FolderEntry& entry, SortBy by);
  /// "d.0.Documents", "f.1234.a.txt", and back. Nothing for another text.
  std::string text() const;
  static std::optional<EntryPlace> parse(std::string_view text);
};

/// Whether `a` comes before `b`.
bool comesBefore(const EntryPlace& a, const EntryPlace& b, Sorting sorting);

/// Which entries: the first ones, the ones after or before a place, or the last ones.
struct EntryWindow {
  enum class From { first, after, before, last };
  From from = From::first;
  /// For after and before.
  EntryPlace place;
};

class EntryPage {
 public:
  struct Result {
    std::vector<FolderEntry> entries;
    /// How many entries of the folder come before these.
    std::uint64_t before = 0;
    /// How many entries the folder has.
    std::uint64_t total = 0;
    /// How many names were left out because the service would not accept them.
    std::uint64_t refusedNames = 0;
  };

  /// `folder` is open for reading.
  EntryPage(FileDescriptor folder, Sorting sorting, EntryWindow window, std::size_t length);

  /// Reads up to `count` entries more; false at the end of the folder.
  bool readSome(std::size_t count);
  /// REQUIRES: readSome was false.
  Result finish();

  /// The folder that is read.
  const FileDescriptor& folder() const { return folder_; }

 private:
  struct Candidate {
    FolderEntry entry;
    EntryPlace place;
  };

  bool fromTheEnd() const;
  bool isFurther(const Candidate& a, const Candidate& b) const;
  std::optional<FolderEntry> entryOf(const char* name, unsigned char kindHint);
  bool describe(FolderEntry& entry) const;
  void take(FolderEntry entry);

  FileDescriptor folder_;
  Directory reader_;
  const Sorting sorting_;
  const EntryWindow window_;
  const std::size_t length_;
  /// A heap with the candidate on top that the next better one replaces.
  std::vector<Candidate> kept_;
  std::uint64_t total_ = 0;
  /// Entries up to the place, or before it.
  std::uint64_t beforePlace_ = 0;
  std::uint64_t refusedNames_ = 0;
};

}  // namespace kestrune::service
