#include "namespace/FileProviderItem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>
#include <type_traits>

#include "namespace/PinStore.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using platform::Date;
using platform::NSFileProviderContentPolicy;
using platform::UTType;

constexpr const char* kRoot = platform::NSFileProviderRootContainerItemIdentifier;
constexpr const char* kWorkingSet = platform::NSFileProviderWorkingSetContainerItemIdentifier;
constexpr const char* kTrash = platform::NSFileProviderTrashContainerItemIdentifier;

static_assert(!std::is_default_constructible_v<FileProviderItem>);
static_assert(!std::is_copy_assignable_v<FileProviderItem>);

FileProviderItem file(const std::string& path) { return {path, false, 5, Date(1s)}; }
FileProviderItem folder(const std::string& path) { return {path, true, 5, Date(1s)}; }

/// Types of filename extensions come from a database of the test's own.
class FileProviderItemTest : public testing::Test {
 protected:
  FileProviderItemTest() {
    databases_.write("mime/globs2",
                     "50:application/pdf:*.pdf\n"
                     "50:text/plain:*.txt\n"
                     "50:application/gzip:*.gz\n"
                     "50:inode/mount-point:*.mnt\n");
  }

  const support::IsolatedStorage storage_;
  const support::TemporaryDirectory databases_;
  const support::ScopedEnvironment variable_{"XDG_DATA_DIRS", databases_.path().string()};
};

TEST_F(FileProviderItemTest, IdentifierParentAndNameFollowFromThePath) {
  const struct {
    std::string path;
    std::string identifier;
    std::string parent;
    std::string filename;
  } cases[] = {
      {"", kRoot, kRoot, "Kestrune"},
      {"/", kRoot, kRoot, "/"},
      {"/a.txt", "/a.txt", kRoot, "a.txt"},
      {"/docs/a.txt", "/docs/a.txt", "/docs", "a.txt"},
      {"/a/b/c", "/a/b/c", "/a/b", "c"},
      {"/docs/", "/docs/", kRoot, "docs"},
      {"/docs/a/", "/docs/a/", "/docs", "a"},
      {"/docs//a", "/docs//a", "/docs", "a"},
      {"a.txt", "a.txt", kRoot, "a.txt"},
      {"docs/a.txt", "docs/a.txt", "docs", "a.txt"},
      {"//", "//", kRoot, "/"},
      {"/..", "/..", kRoot, ".."},
      {"/\xC3\xA9/e\xCC\x81", "/\xC3\xA9/e\xCC\x81", "/\xC3\xA9", "e\xCC\x81"},
      {std::string("/a\0b/c", 6), std::string("/a\0b/c", 6), std::string("/a\0b", 4), "c"},
      {kWorkingSet, kWorkingSet, kRoot, kWorkingSet},
  };
  for (const auto& [path, identifier, parent, filename] : cases) {
    const FileProviderItem item = file(path);
    EXPECT_EQ(item.itemIdentifier(), identifier) << path;
    EXPECT_EQ(item.parentItemIdentifier(), parent) << path;
    EXPECT_EQ(item.filename(), filename) << path;
  }
}

TEST_F(FileProviderItemTest, IdentifiersArePathsExceptTheRoots) {
  EXPECT_EQ(FileProviderItem::path(kRoot), "/");
  EXPECT_EQ(FileProviderItem::path(kWorkingSet), "NSFileProviderWorkingSetContainerItemIdentifier");
  EXPECT_EQ(FileProviderItem::path(kTrash), "NSFileProviderTrashContainerItemIdentifier");
  for (const char* text : {"/a/b.txt", "", "/", "x", "nsfileproviderrootcontaineritemidentifier"})
    EXPECT_EQ(FileProviderItem::path(text), text);
}

TEST_F(FileProviderItemTest, AnEntrysPathIsItsFoldersWithItsName) {
  const struct {
    std::string parent;
    std::string name;
    std::string path;
  } cases[] = {
      {"/", "a.txt", "/a.txt"},
      {"/docs", "a.txt", "/docs/a.txt"},
      {"", "a.txt", "/a.txt"},
      {"/docs/", "a.txt", "/docs//a.txt"},
      {"/docs", "", "/docs/"},
      {"/docs", "..", "/docs/.."},
      {"/docs", "a/b", "/docs/a/b"},
      {"/docs", "a b%20", "/docs/a b%20"},
      {"/", "", kRoot},
  };
  for (const auto& [parent, name, path] : cases) {
    const auto item = FileProviderItem::from({name, "file", 7, Date(9s), "text/html"}, parent);
    EXPECT_EQ(item->itemIdentifier(), path);
    EXPECT_EQ(item->documentSize(), 7);
    EXPECT_EQ(item->contentModificationDate(), Date(9s));
  }
}

TEST_F(FileProviderItemTest, OnlyTheWordDirectoryMakesAFolder) {
  const auto isFolder = [](const char* type) {
    return FileProviderItem::from({"x", type, 0, Date(), {}}, "/")->contentType() ==
           UTType::folder();
  };
  EXPECT_TRUE(isFolder("directory"));
  for (const char* type : {"file", "Directory", "DIRECTORY", "dir", "folder", "", "directory ",
                           "directory2", "symlink"})
    EXPECT_FALSE(isFolder(type)) << type;
}

TEST_F(FileProviderItemTest, ContentTypeComesFromTheExtensionAlone) {
  const struct {
    const char* path;
    UTType type;
  } cases[] = {
      {"/a.pdf", UTType::named("application/pdf")},
      {"/a.PDF", UTType::named("application/pdf")},
      {"/a.tar.gz", UTType::named("application/gzip")},
      {"/docs.pdf/a", UTType::data()},
      {"/a", UTType::data()},
      {"/a.", UTType::data()},
      {"/.pdf", UTType::data()},
      {"/a.unheardof", UTType::data()},
      {"/a.mnt", UTType::data()},
      {"/a.pdf ", UTType::data()},
      {"/a.p/df", UTType::data()},
  };
  for (const auto& [path, type] : cases) {
    EXPECT_EQ(file(path).contentType(), type) << path;
    EXPECT_EQ(folder(path).contentType(), UTType::folder()) << path;
  }
  EXPECT_EQ(FileProviderItem::from({"photos.2024", "directory", 0, Date(), {}}, "/")->contentType(),
            UTType::folder());
  EXPECT_EQ(
      FileProviderItem::from({"a.txt", "file", 0, Date(), "application/pdf"}, "/")->contentType(),
      UTType::named("text/plain"));
}

TEST_F(FileProviderItemTest, FilesAndFoldersMayBeReadWrittenMovedRenamedAndDeleted) {
  for (const auto& item : {file("/a"), folder("/a"), folder("")}) {
    ASSERT_TRUE(item.capabilities());
    EXPECT_EQ(static_cast<std::uint32_t>(*item.capabilities()), 47U);
  }
}

TEST_F(FileProviderItemTest, OnlyFilesHaveASize) {
  EXPECT_EQ(file("/a").documentSize(), 5);
  EXPECT_EQ(folder("/a").documentSize(), std::nullopt);
  EXPECT_EQ(FileProviderItem("/a", false, 0, Date()).documentSize(), 0);
  EXPECT_EQ(FileProviderItem("/a", false, -1, Date()).documentSize(), -1);
}

TEST_F(FileProviderItemTest, BothDatesAreTheModificationTime) {
  const Date modified(1234567890123456us);
  const FileProviderItem item("/a", true, 0, modified);
  EXPECT_EQ(item.contentModificationDate(), modified);
  EXPECT_EQ(item.creationDate(), modified);
}

TEST_F(FileProviderItemTest, TheVersionIsWholeSecondsAndSize) {
  const struct {
    Date modified;
    std::int64_t size;
    const char* version;
  } cases[] = {
      {Date(24h), 5120, "86400-5120"},
      {Date(900ms), 0, "0-0"},
      {Date(999'999us), 7, "0-7"},
      {Date(-900ms), 1, "0-1"},
      {Date(-1500ms), 1, "-1-1"},
      {Date(-2s), -3, "-2--3"},
      {Date(1714566645123ms), std::numeric_limits<std::int64_t>::max(),
       "1714566645-9223372036854775807"},
      {*platform::parseISO8601("0000-01-01T00:00:00Z"), 0, "-62167219200-0"},
      {*platform::parseISO8601("9999-12-31T23:59:59Z"), 0, "253402300799-0"},
  };
  for (const auto& [modified, size, version] : cases) {
    for (const bool isFolder : {false, true}) {
      const auto both = FileProviderItem("/a", isFolder, size, modified).itemVersion();
      ASSERT_TRUE(both);
      EXPECT_EQ(both->contentVersion, version);
      EXPECT_EQ(both->metadataVersion, version);
    }
  }
}

TEST_F(FileProviderItemTest, APinnedFileIsKeptDownloadedFromTheNextLookOn) {
  const FileProviderItem item = file("/Docs/a.pdf");
  const auto versionBefore = item.itemVersion();
  EXPECT_EQ(item.contentPolicy(), NSFileProviderContentPolicy::inherited);
  PinStore::setPinned(true, "/Docs/a.pdf");
  EXPECT_EQ(item.contentPolicy(), NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  EXPECT_EQ(static_cast<int>(item.contentPolicy()), 3);
  EXPECT_EQ(item.itemVersion(), versionBefore);
  EXPECT_EQ(file("/Docs/b.pdf").contentPolicy(), NSFileProviderContentPolicy::inherited);
  PinStore::setPinned(false, "/Docs/a.pdf");
  EXPECT_EQ(item.contentPolicy(), NSFileProviderContentPolicy::inherited);
}

TEST_F(FileProviderItemTest, APinnedFolderKeepsNothing) {
  PinStore::setPinned(true, "/Docs");
  EXPECT_EQ(folder("/Docs").contentPolicy(), NSFileProviderContentPolicy::inherited);
  EXPECT_EQ(file("/Docs/a.pdf").contentPolicy(), NSFileProviderContentPolicy::inherited);
}

TEST_F(FileProviderItemTest, TheRootIsAFolderInItself) {
  const FileProviderItem root("", true, 0, Date(1s));
  EXPECT_EQ(root.filename(), "Kestrune");
  EXPECT_EQ(root.contentType(), UTType::folder());
  EXPECT_EQ(root.documentSize(), std::nullopt);
  EXPECT_EQ(root.parentItemIdentifier(), kRoot);
  EXPECT_EQ(root.itemVersion()->contentVersion, "1-0");
}

TEST(ItemLocation, IsTheParentAndTheName) {
  const struct {
    std::string path;
    std::string parent;
    std::string name;
  } cases[] = {
      {"/a.txt", "/", "a.txt"}, {"/x/y", "/x", "y"}, {"/x/y/", "/x", "y"},  {"a", "/", "a"},
      {"/", "/", "/"},          {"", "/", ""},       {"/x/..", "/x", ".."}, {kTrash, "/", kTrash},
  };
  for (const auto& [path, parent, name] : cases) {
    EXPECT_EQ(ItemLocation(path).parent, parent) << path;
    EXPECT_EQ(ItemLocation(path).name, name) << path;
  }
}

TEST(FindEntry, TakesTheFirstWithExactlyTheName) {
  const std::vector<KestruneAPI::Entry> entries = {{"Y", "file", 0, {}, {}},
                                                   {"y", "file", 1, {}, {}},
                                                   {"y", "file", 2, {}, {}},
                                                   {"e\xCC\x81", "file", 3, {}, {}},
                                                   {std::string("n\0", 2), "file", 4, {}, {}}};
  EXPECT_EQ(findEntry(entries, "y"), &entries[1]);
  EXPECT_EQ(findEntry(entries, "Y"), &entries[0]);
  EXPECT_EQ(findEntry(entries, "\xC3\xA9"), nullptr);
  EXPECT_EQ(findEntry(entries, "n"), nullptr);
  EXPECT_EQ(findEntry(entries, ""), nullptr);
  EXPECT_EQ(findEntry({}, "y"), nullptr);
}

}  // namespace
}  // namespace kestrune
