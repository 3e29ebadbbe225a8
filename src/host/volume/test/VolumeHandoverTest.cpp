// Nodes and open files go from one volume to the next, as between two processes but without a kernel.
#include "host/volume/VolumeHandover.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "host/volume/OpenVolumeFile.h"
#include "host/volume/test/HostHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using support::waitUntil;
using testing::SizeIs;

class VolumeHandoverTest : public testing::Test, public HostHarness {
 protected:
  /// Ends the volume without closing anything, and begins the next. `files` are the same files there.
  void replace(std::vector<OpenFilePtr>& files) {
    settleOpenFiles(fileSystem(), files);
    Handover handover;
    for (std::size_t i = 0; i < files.size(); ++i) {
      Handover::File file;
      file.handle = i + 1;
      file.node = files[i]->node;
      handover.files.push_back(file);
    }
    handover.nextHandle = files.size() + 1;
    handover.head.device = 0;
    handover.head.mountPoint = "/";
    EXPECT_TRUE(waitUntil([&] {
      return fileSystem().volume()->lookIfCommitted(
          [&](Tree& tree, Nodes& nodes) { handOverVolume(files, tree, nodes, handover); });
    }));
    const Handover read = Handover::parse(handover.encode());
    std::vector<OpenFilePtr> taken;
    setSuccession({[&](Volume::Services& services) { keepWhatIsOpen(read, services); },
                   [&](FileSystem& next) { taken = takeOverVolume(next, read); }});
    restartFromCopy([&] { files.clear(); });
    files = std::move(taken);
  }
  std::ptrdiff_t contentCount() const {
    const std::filesystem::directory_iterator at(replica() / "contents");
    return std::distance(begin(at), end(at));
  }
  Attributes attributesOf(NodeId node) {
    auto answer = fileSystem().attributes(node);
    EXPECT_TRUE(answer.ok());
    return answer.ok() ? answer.value() : Attributes();
  }
};

TEST_F(VolumeHandoverTest, NodesStandForTheSameItems) {
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "hello");
  const Entry folder = find("/docs");
  const Entry file = find("/docs/a");
  std::vector<OpenFilePtr> none;
  replace(none);
  EXPECT_EQ(attributesOf(folder.node).inode, folder.attributes.inode);
  EXPECT_EQ(attributesOf(file.node).inode, file.attributes.inode);
  EXPECT_EQ(find("/docs/a").node, file.node);
  // The references of the kernel count on.
  fileSystem().forget(file.node, 2);
  EXPECT_NE(find("/docs/a").node, file.node);
}

TEST_F(VolumeHandoverTest, NumbersOfNodesAreNotGivenAgain) {
  remote().putFile("/a", "x");
  const NodeId known = find("/a").node;
  std::vector<OpenFilePtr> none;
  replace(none);
  makeFolder("/new");
  EXPECT_GT(find("/new").node, known);
}

TEST_F(VolumeHandoverTest, AFileThatIsBeingWrittenIsTheSame) {
  std::vector<OpenFilePtr> files = {create("/a"), openForWriting("/a")};
  write(files[0], "hello");
  replace(files);
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_EQ(volumeFile(*files[0]).object, volumeFile(*files[1]).object);
  EXPECT_TRUE(volumeFile(*files[0]).object->isOpenForWriting());
  write(files[1], "J");
  EXPECT_EQ(readAll(files[0]), "Jello");
  close(files[0]);
  close(files[1]);
  EXPECT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "Jello");
}

TEST_F(VolumeHandoverTest, ARemovedFileIsForgottenWhenItIsClosed) {
  std::vector<OpenFilePtr> files = {create("/a")};
  write(files[0], "hello");
  const NodeId node = files[0]->node;
  EXPECT_EQ(removeFile("/a"), 0);
  replace(files);
  EXPECT_EQ(readAll(files[0]), "hello");
  EXPECT_TRUE(attributesOf(node).isUnlinked);
  write(files[0], "J");
  EXPECT_EQ(readAll(files[0]), "Jello");
  const ItemId item = volumeFile(*files[0]).item;
  const auto isKnown = [&] {
    return fileSystem().volume()->look(
        [&](Tree& tree, Nodes&) { return tree.find(item) != nullptr; });
  };
  EXPECT_TRUE(isKnown());
  close(files[0]);
  EXPECT_FALSE(isKnown());
}

TEST_F(VolumeHandoverTest, AnOldVersionIsReadOnAndGoesWithItsReader) {
  remote().putFile("/a", "old");
  std::vector<OpenFilePtr> files = {open(find("/a").node)};
  EXPECT_EQ(readAll(files[0]), "old");
  const NodeId node = files[0]->node;
  remote().overwrite("/a", "newer");
  announce();
  EXPECT_TRUE(waitUntil([&] { return find("/a").node != node; }));
  replace(files);
  EXPECT_EQ(readAll(files[0]), "old");
  EXPECT_EQ(attributesOf(node).sizeBytes, 3);
  EXPECT_EQ(readPath("/a"), "newer");
  EXPECT_EQ(contentCount(), 2);
  close(files[0]);
  EXPECT_TRUE(waitUntil([&] { return contentCount() == 1; }));
}

TEST_F(VolumeHandoverTest, ANodeOfAnItemThatIsGoneIsStale) {
  remote().putFile("/a", "x");
  const NodeId node = find("/a").node;
  remote().remove("/a");
  announce();
  EXPECT_TRUE(waitForNames({}));
  std::vector<OpenFilePtr> none;
  replace(none);
  EXPECT_EQ(errnoOf(fileSystem().attributes(node)), ESTALE);
  EXPECT_EQ(openError(node), ESTALE);
  fileSystem().forget(node, 1);
}

TEST_F(VolumeHandoverTest, ANodeOfAnItemThatTheDatabaseDoesNotHaveIsStale) {
  Handover handover;
  handover.nextNode = 51;
  handover.nodes = {{.id = kRootNode, .item = kRootItem, .references = 1},
                    {.id = 50, .item = 999, .references = 1}};
  EXPECT_TRUE(takeOverVolume(fileSystem(), handover).empty());
  EXPECT_EQ(errnoOf(fileSystem().attributes(50)), ESTALE);
  EXPECT_EQ(attributesOf(kRootNode).inode, kRootItem);
  fileSystem().forget(50, 1);
}

}  // namespace
}  // namespace kestrune::host::test
