// How each kind of change goes out: look, begin, call, settle. Between two of these anything may have happened, so each step asks
// the tree again.
#include <cerrno>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "host/volume/AwaitReply.h"
#include "host/volume/Sender.h"
#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::host {

namespace {

using platform::NSError;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSFileProviderItemFields;
using platform::Task;

// The extension will never take such an item: clutter that belongs to one machine.
bool isRefusal(const NSError& error) {
  return error.domain() == platform::kNSFileProviderErrorDomain &&
         (error.code() == NSFileProviderError::noSuchItem ||
          error.code() == NSFileProviderError::excludedFromSync);
}

// So nothing was made there. A name that was free when the folder was listed has been given by others since.
bool isCollision(const NSError& error) {
  return error.domain() == platform::kNSFileProviderErrorDomain &&
         error.code() == NSFileProviderError::filenameCollision;
}

// What a call needs to know of an item, taken at one moment.
struct Facts {
  OutgoingTemplate outgoing;
  platform::NSFileProviderItemVersion base;
};

}  // namespace

Task<Answer<Done>> Sender::fill(FileObjectPtr object) {
  auto start = [object](Reply<Done> reply) { object->fill(std::move(reply)); };
  co_return co_await awaitReply<Done>(start);
}

Task<Answer<Done>> Sender::settle(std::function<void(Tree&)> work) {
  auto start = [this, work](const Reply<Done>& reply) {
    auto under = [&work](Tree& tree, Nodes&) -> NSErrorPtr {
      work(tree);
      return nullptr;
    };
    volume_->change(under, Volume::Survives::processEnd, reply);
  };
  co_return co_await awaitReply<Done>(start);
}

// REQUIRES: the volume's lock.
bool Sender::isStillWanted(const Tree& tree, const Change& change) {
  const Item* item = tree.find(change.id);
  if (item == nullptr || item->staysHere || item->awaited()) return false;
  const OutgoingItem outgoing = Tree::outgoingItem(*item);
  const auto isOpenFolder = [&](ItemId id) {
    const Item* folder = tree.find(id);
    return folder != nullptr && folder->there && folder->isLinked() &&
           !folder->part()->listing.hasStaleIdentifiers && tree.isSure(*folder);
  };
  if (item->there && !tree.isSure(*item)) return false;
  const auto isFree = [&] {
    const Item* claimant = tree.claimant(change.to);
    return claimant == nullptr || claimant == item;
  };
  switch (change.kind) {
    case Change::Kind::create:
      return outgoing.isToBeCreated() && outgoing.here == change.to &&
             isOpenFolder(change.to.folder) && isFree();
    case Change::Kind::move:
      return outgoing.isToBeMoved() && outgoing.here == change.to &&
             isOpenFolder(change.to.folder) && isFree();
    case Change::Kind::moveAside:
      return item->there && isFree();
    case Change::Kind::send:
      return outgoing.isToBeSent();
    case Change::Kind::remove:
      return outgoing.isToBeRemoved();
  }
  return false;
}

Sender::Work Sender::perform(Change change) {
  if (const auto found = co_await findOut(change.id); !found.ok()) co_return Outcome{found.error()};
  switch (change.kind) {
    case Change::Kind::create: {
      const bool isFolder = volume_->look([&](Tree& tree, Nodes&) {
        const Item* item = tree.find(change.id);
        return item != nullptr && item->isFolder;
      });
      co_return co_await (isFolder ? createFolder(change) : createFile(change));
    }
    case Change::Kind::move:
    case Change::Kind::moveAside:
      co_return co_await move(change);
    case Change::Kind::send:
      co_return co_await sendContents(change);
    case Change::Kind::remove:
      co_return co_await remove(change);
  }
  co_return Outcome();
}

// ------------------------------------------------------------------------------------------- creating

Sender::Work Sender::createFolder(Change change) {
  // The name may have been given by others since.
  if (const auto listed = co_await listFolder(change.to.folder, true); !listed.ok())
    co_return Outcome{listed.error()};
  OutgoingTemplate outgoing;
  bool begun = false;
  const auto committed = co_await settle([&](Tree& tree) {
    if (!isStillWanted(tree, change)) return;
    Item& item = *tree.find(change.id);
    outgoing = {"",
                tree.find(change.to.folder)->there->identifier,
                change.to.name,
                true,
                0,
                item.modified().date()};
    tree.beginChange(item, change.to);
    begun = true;
  });
  if (!begun) co_return Outcome{nullptr, true};
  if (!committed.ok()) co_return Outcome{committed.error()};
  const platform::Date began = volume_->services().clock->now();
  const auto answer = co_await calls_->create(outgoing, std::nullopt);
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(change.id);
    if (item == nullptr) return;
    if (answer.ok()) {
      tree.created(*item, change.to, answer.value(), 0, began);
    } else if (isRefusal(*answer.error())) {
      tree.refused(*item);
    }
    if (Item* left = tree.find(change.id)) tree.endChange(*left);
  });
  if (!answer.ok() && !isRefusal(*answer.error())) co_return Outcome{answer.error()};
  if (answer.ok()) lister_->madeHere(change.id);
  co_return Outcome();
}

// The file's contents as a snapshot; an error that says "not now" is no failure.
Task<Answer<FileObject::Snapshot>> Sender::takeSnapshot(FileObjectPtr object) {
  if (const auto filled = co_await fill(object); !filled.ok()) co_return filled.error();
  co_return object->snapshot();
}

namespace {

bool isNotNow(const NSError& error) {
  return error.domain() == platform::kNSPOSIXErrorDomain &&
         (error.code() == EAGAIN || error.code() == EBUSY);
}

}  // namespace

Sender::Work Sender::createFile(Change change) {
  if (const auto listed = co_await listFolder(change.to.folder, true); !listed.ok())
    co_return Outcome{listed.error()};
  const FileObjectPtr object = volume_->look([&](Tree& tree, Nodes&) {
    return isStillWanted(tree, change) ? contents_->objectOf(*tree.find(change.id)) : nullptr;
  });
  if (!object) co_return Outcome{nullptr, true};
  const auto snapshot = co_await takeSnapshot(object);
  if (!snapshot.ok())
    co_return isNotNow(*snapshot.error()) ? Outcome{nullptr, true} : Outcome{snapshot.error()};
  OutgoingTemplate outgoing;
  const platform::Date began = volume_->services().clock->now();
  bool begun = false;
  // Remembered before anything is sent: after a crash the store is looked at before it is sent again.
  const auto committed = co_await settle([&](Tree& tree) {
    if (!isStillWanted(tree, change)) return;
    Item& item = *tree.find(change.id);
    outgoing = {"",
                tree.find(change.to.folder)->there->identifier,
                change.to.name,
                false,
                snapshot.value().sizeBytes,
                item.modified().date()};
    tree.beginSending(item, snapshot.value().sizeBytes, snapshot.value().edits, change.to);
    begun = true;
  });
  if (!begun || !committed.ok()) {
    object->giveBack(snapshot.value());
    co_return begun ? Outcome{committed.error()} : Outcome{nullptr, true};
  }
  if (sending_) sending_(change.id, +1);
  const auto answer = co_await calls_->create(outgoing, snapshot.value().path);
  if (sending_) sending_(change.id, -1);
  object->giveBack(snapshot.value());
  std::string version;
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(change.id);
    if (item == nullptr) return;
    if (answer.ok()) {
      tree.created(*item, change.to, answer.value(), snapshot.value().edits, began);
      item = tree.find(change.id);
      if (item != nullptr && item->there) version = item->there->version.contentVersion;
    } else if (isRefusal(*answer.error())) {
      tree.refused(*item);
    } else if (isCollision(*answer.error())) {
      tree.nameIsTaken(*item);
    }
    if (Item* left = tree.find(change.id)) tree.endChange(*left);
  });
  if (answer.ok()) {
    // Empty: meanwhile another item turned out to be at its place, and it is still to be made.
    if (!version.empty()) object->sent(snapshot.value().edits, version);
    verifyLater(change.id);
    co_return Outcome();
  }
  if (isRefusal(*answer.error())) co_return Outcome();
  co_return Outcome{answer.error()};
}

// ------------------------------------------------------------------------------------------- contents

// Null if there is nothing to be sent any more, or both sides have changed: then both are kept.
FileObjectPtr Sender::contentsToSend(const Change& change) {
  FileObjectPtr object;
  volume_->change([&](Tree& tree, Nodes&) {
    if (!isStillWanted(tree, change)) return;
    Item& item = *tree.find(change.id);
    if (item.there->version.contentVersion == item.content()->base) {
      object = contents_->objectOf(item);
      return;
    }
    const std::string path = tree.path(item);
    tree.keepBoth(item);
    volume_->services().log->note(
        "conflict",
        "'" + path + "' was changed here and at the store: both are kept, the one from here as '" +
            tree.path(item) + "'");
  });
  return object;
}

Sender::Work Sender::sendContents(Change change) {
  if (const auto looked = co_await lookAt(change.id); !looked.ok())
    co_return Outcome{looked.error()};
  const FileObjectPtr object = contentsToSend(change);
  if (!object) co_return Outcome{nullptr, true};
  const auto snapshot = co_await takeSnapshot(object);
  if (!snapshot.ok())
    co_return isNotNow(*snapshot.error()) ? Outcome{nullptr, true} : Outcome{snapshot.error()};
  Facts facts;
  const platform::Date began = volume_->services().clock->now();
  bool begun = false;
  const auto committed = co_await settle([&](Tree& tree) {
    if (!isStillWanted(tree, change)) return;
    Item& item = *tree.find(change.id);
    if (item.there->version.contentVersion != item.content()->base) return;
    facts.outgoing = {item.there->identifier,     tree.find(item.there->folder)->there->identifier,
                      item.there->name,           false,
                      snapshot.value().sizeBytes, item.modified().date()};
    facts.base = item.there->version;
    tree.beginSending(item, snapshot.value().sizeBytes, snapshot.value().edits);
    begun = true;
  });
  if (!begun || !committed.ok()) {
    object->giveBack(snapshot.value());
    co_return begun ? Outcome{committed.error()} : Outcome{nullptr, true};
  }
  const auto fields =
      NSFileProviderItemFields::contents | NSFileProviderItemFields::contentModificationDate;
  if (sending_) sending_(change.id, +1);
  const auto answer =
      co_await calls_->modify(facts.outgoing, facts.base, fields, snapshot.value().path);
  if (sending_) sending_(change.id, -1);
  object->giveBack(snapshot.value());
  std::string version;
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(change.id);
    if (item == nullptr) return;
    if (answer.ok() && item->there && item->content()) {
      tree.sent(*item, answer.value(), snapshot.value().edits, began);
      version = item->there->version.contentVersion;
    }
    tree.endChange(*item);
  });
  if (!answer.ok()) {
    lister_->doubt(change.id);
    co_return Outcome{answer.error()};
  }
  if (!version.empty()) object->sent(snapshot.value().edits, version);
  verifyLater(change.id);
  co_return Outcome();
}

// ------------------------------------------------------------------------------------------- moving and removing

Sender::Work Sender::move(Change change) {
  if (const auto listed = co_await listFolder(change.to.folder, true); !listed.ok())
    co_return Outcome{listed.error()};
  Facts facts;
  ItemId oldFolder = 0;
  bool begun = false;
  const auto committed = co_await settle([&](Tree& tree) {
    if (!isStillWanted(tree, change)) return;
    Item& item = *tree.find(change.id);
    facts.outgoing = {item.there->identifier, tree.find(change.to.folder)->there->identifier,
                      change.to.name,         item.isFolder,
                      item.there->sizeBytes,  item.modified().date()};
    facts.base = item.there->version;
    oldFolder = item.there->folder;
    tree.beginChange(item, change.to);
    begun = true;
  });
  if (!begun) co_return Outcome{nullptr, true};
  if (!committed.ok()) co_return Outcome{committed.error()};
  const auto fields =
      NSFileProviderItemFields::filename | NSFileProviderItemFields::parentItemIdentifier;
  const auto answer = co_await calls_->modify(facts.outgoing, facts.base, fields, std::nullopt);
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(change.id);
    if (item == nullptr) return;
    if (answer.ok() && item->there) tree.moved(*item, change.to, answer.value());
    if (Item* left = tree.find(change.id)) tree.endChange(*left);
  });
  if (answer.ok()) co_return Outcome();
  co_await relist(oldFolder);  // it may be gone
  co_return Outcome{answer.error()};
}

Sender::Work Sender::remove(Change change) {
  const bool isFolder = volume_->look([&](Tree& tree, Nodes&) {
    const Item* item = tree.find(change.id);
    return item != nullptr && item->isFolder;
  });
  if (isFolder) {
    // One that cannot be found may be something else by now.
    const auto listed = co_await lookBelow(change.id);
    if (!listed.ok() && errnoFor(*listed.error()) == ENOENT) {
      if (const auto looked = co_await lookAt(change.id); !looked.ok())
        co_return Outcome{looked.error()};
    }
    const bool isWanted =
        volume_->look([&](Tree& tree, Nodes&) { return isStillWanted(tree, change); });
    if (!isWanted) co_return Outcome{nullptr, true};
    if (!listed.ok()) co_return Outcome{listed.error()};
  } else if (const auto looked = co_await lookAt(change.id); !looked.ok()) {
    co_return Outcome{looked.error()};
  }
  Facts facts;
  const bool begun = volume_->look([&](Tree& tree, Nodes&) {
    if (!isStillWanted(tree, change)) return false;
    Item& item = *tree.find(change.id);
    facts.outgoing.identifier = item.there->identifier;
    facts.base = item.there->version;
    tree.beginChange(item);
    return true;
  });
  if (!begun) co_return Outcome{nullptr, true};
  const auto answer = co_await calls_->remove(facts.outgoing.identifier, facts.base);
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(change.id);
    if (item == nullptr) return;
    if (answer.ok()) tree.removedThere(*item);
    if (Item* left = tree.find(change.id)) tree.endChange(*left);
  });
  co_return answer.ok() ? Outcome() : Outcome{answer.error()};
}

}  // namespace kestrune::host
