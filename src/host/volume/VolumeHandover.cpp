#include "host/volume/VolumeHandover.h"

#include <cerrno>
#include <map>
#include <set>
#include <utility>

#include "host/volume/OpenVolumeFile.h"

namespace kestrune::host {

namespace {

using platform::NSPOSIXError;

bool isOwnObject(const Item* item, const FileObject& object) {
  return item != nullptr && item->object().get() == &object;
}

Handover::Object recordOf(const OpenVolumeFile& file, const Tree& tree) {
  const ContentState state = file.object->state();
  Handover::Object record;
  record.item = file.item;
  record.isItems = isOwnObject(tree.find(file.item), *file.object);
  record.number = state.number;
  record.version = state.version;
  record.sizeBytes = state.sizeBytes;
  record.fetchableBytes = state.fetchableBytes;
  record.present = state.present.text();
  record.edits = state.edits;
  record.isEdited = state.isEdited;
  return record;
}

ContentState stateOf(const Handover::Object& record) {
  ContentState state;
  state.number = record.number;
  state.version = record.version;
  state.sizeBytes = record.sizeBytes;
  state.fetchableBytes = record.fetchableBytes;
  auto present = Ranges::parse(record.present);
  if (!present) throw NSPOSIXError(EPROTO, "use the ranges of a file that was handed over");
  state.present = std::move(*present);
  state.edits = record.edits;
  state.isEdited = record.isEdited;
  return state;
}

Handover::Node recordOf(const Node& node) {
  Handover::Node record;
  record.id = node.id;
  record.item = node.item;
  record.references = node.kernelReferences;
  record.isDetached = node.detached != nullptr;
  if (!record.isDetached) return record;
  const DetachedVersion& version = *node.detached;
  record.isExecutable = version.isExecutable;
  record.sizeBytes = version.sizeBytes;
  record.modified = version.modified;
  record.changed = version.changed;
  return record;
}

Node nodeOf(const Handover::Node& record) {
  Node node;
  node.id = record.id;
  node.item = record.item;
  node.kernelReferences = record.references;
  if (!record.isDetached) return node;
  node.detached = std::make_unique<DetachedVersion>();
  node.detached->node = record.id;
  node.detached->item = record.item;
  node.detached->isExecutable = record.isExecutable;
  node.detached->sizeBytes = record.sizeBytes;
  node.detached->modified = record.modified;
  node.detached->changed = record.changed;
  return node;
}

// Counts a file as open and hands it out.
OpenFilePtr openAgain(const Handover::File& record, const FileObjectPtr& object, Nodes& nodes) {
  object->opened(record.writes);
  nodes.opened(record.node);
  Node* node = nodes.find(record.node);
  if (node != nullptr && node->detached) node->detached->object = object;
  auto file = std::make_shared<OpenVolumeFile>(record.node, record.item, object, record.writes,
                                               record.mayFetch);
  file->listedEmpty = record.listedEmpty;
  return file;
}

}  // namespace

void settleOpenFiles(FileSystem& fileSystem, const std::vector<OpenFilePtr>& files) {
  std::set<const FileObject*> told;
  fileSystem.volume()->change([&](Tree& tree, Nodes&) {
    for (const OpenFilePtr& each : files) {
      const OpenVolumeFile& file = volumeFile(*each);
      Item* item = tree.find(file.item);
      if (!file.writes || !isOwnObject(item, *file.object) ||
          !told.insert(file.object.get()).second)
        continue;
      const ContentState state = withWhatIsKnown(*item, file.object->state());
      if (state.number != 0) tree.setContent(*item, state);
      tree.changedHere(*item);
    }
  });
  for (const OpenFilePtr& each : files) {
    const OpenVolumeFile& file = volumeFile(*each);
    if (told.insert(file.object.get()).second) file.object->tellState();
  }
}

void handOverVolume(const std::vector<OpenFilePtr>& files, Tree& tree, Nodes& nodes,
                    Handover& handover) {
  handover.nextNode = nodes.next();
  handover.nodes.reserve(nodes.count());
  nodes.forEach([&](const Node& node) { handover.nodes.push_back(recordOf(node)); });
  std::map<const FileObject*, std::uint32_t> places;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const OpenVolumeFile& file = volumeFile(*files[i]);
    const auto [place, isNew] =
        places.emplace(file.object.get(), static_cast<std::uint32_t>(handover.objects.size()));
    if (isNew) handover.objects.push_back(recordOf(file, tree));
    Handover::File& record = handover.files.at(i);
    record.item = file.item;
    record.object = place->second;
    record.writes = file.writes;
    record.mayFetch = file.mayFetch;
    record.listedEmpty = file.listedEmpty;
  }
}

void keepWhatIsOpen(const Handover& handover, Volume::Services& services) {
  for (const Handover::Object& object : handover.objects) {
    if (object.isItems) {
      services.openItems.insert(object.item);
    } else if (object.number != 0) {
      services.openContents.insert(object.number);
    }
  }
}

std::vector<OpenFilePtr> takeOverVolume(FileSystem& fileSystem, const Handover& handover) {
  // Held until all is open: what nobody has open may be forgotten.
  std::vector<FileObjectPtr> objects;
  std::vector<OpenFilePtr> files;
  std::set<std::uint32_t> gone;
  fileSystem.volume()->look([&](Tree& tree, Nodes& nodes) {
    for (const Handover::Node& record : handover.nodes) nodes.restore(nodeOf(record), tree);
    nodes.beginAt(handover.nextNode);
    for (const Handover::Object& record : handover.objects) {
      Item* item = tree.find(record.item);
      const bool isItems = record.isItems && item != nullptr && !item->isFolder;
      if (!isItems) gone.insert(static_cast<std::uint32_t>(objects.size()));
      objects.push_back(isItems
                            ? fileSystem.contents()->objectOf(*item)
                            : fileSystem.contents()->objectOfGone(record.item, stateOf(record)));
    }
    for (const Handover::File& record : handover.files)
      files.push_back(openAgain(record, objects.at(record.object), nodes));
  });
  // With the last who has them open they go for good.
  for (const std::uint32_t place : gone) {
    objects[place]->abandon();
    objects[place]->mayGo();
  }
  return files;
}

}  // namespace kestrune::host
