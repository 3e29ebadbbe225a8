// What a known item costs: a folder of a million items is to fit into the memory of a small machine.
#include <gtest/gtest.h>
#include <malloc.h>

#include "host/tree/Tree.h"

// With a sanitizer the memory is that of its own allocator.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KESTRUNE_HAS_OTHER_ALLOCATOR
#endif
#endif

namespace kestrune::host {

namespace {

constexpr std::size_t kFolders = 100;
constexpr std::size_t kFiles = 1000;

std::size_t allocatedBytes() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

ItemRecord record(const std::string& above, const std::string& name, std::size_t size) {
  ItemRecord record;
  record.name = name;
  record.identifier = above + "/" + name;
  record.sizeBytes = static_cast<std::int64_t>(size);
  record.modified = platform::Date(std::chrono::seconds(1'795'339'300));
  record.contentVersion = "1795339300-" + std::to_string(size);
  record.metadataVersion = *record.contentVersion;
  return record;
}

void fill(Tree& tree) {
  std::vector<ItemRecord> folders;
  for (std::size_t number = 0; number < kFolders; ++number) {
    folders.push_back(record("/many", "folder " + std::to_string(number), 0));
    folders.back().isFolder = true;
  }
  tree.applyListing(tree.root(), folders, "anchor", tree.moment());
  tree.takeEffects();
  for (const ItemRecord& folder : folders) {
    std::vector<ItemRecord> files;
    for (std::size_t number = 0; number < kFiles; ++number)
      files.push_back(record(folder.identifier, "file " + std::to_string(number) + ".txt", number));
    tree.applyListing(*tree.child(tree.root(), folder.name), files, "anchor", tree.moment());
    tree.takeEffects();
  }
}

std::size_t bytesPerItem(const std::function<std::unique_ptr<Tree>()>& make) {
  const std::size_t before = allocatedBytes();
  const std::unique_ptr<Tree> tree = make();
  const std::size_t bytes = allocatedBytes() - before;
  EXPECT_EQ(tree->count(), kFolders * (kFiles + 1) + 1);
  return bytes / tree->count();
}

Tree::Setting setting() {
  return {"here", [] { return platform::Date(std::chrono::seconds(1)); }, "root"};
}

}  // namespace

TEST(TreeMemoryTest, AKnownItemTakesNoMoreThan240Bytes) {
#ifdef KESTRUNE_HAS_OTHER_ALLOCATOR
  GTEST_SKIP() << "not the allocator that is measured";
#endif
  std::vector<ItemRow> rows;
  const std::size_t listed = bytesPerItem([&] {
    auto tree = std::make_unique<Tree>(setting());
    fill(*tree);
    return tree;
  });
  RecordProperty("listed", static_cast<int>(listed));
  EXPECT_LE(listed, 240U);
  {
    Tree tree(setting());
    fill(tree);
    tree.forEach([&](Item& item) { rows.push_back(tree.row(item)); });
  }
  const std::size_t restored = bytesPerItem([&] {
    auto tree = std::make_unique<Tree>(setting());
    for (const ItemRow& row : rows) tree->takeRow(row);
    tree->endRestore(0);
    tree->takeEffects();
    return tree;
  });
  RecordProperty("restored", static_cast<int>(restored));
  EXPECT_LE(restored, 240U);
  // A tree that took nothing would have passed: it takes at least its names.
  EXPECT_GE(std::min(listed, restored), 40U);
}

}  // namespace kestrune::host
