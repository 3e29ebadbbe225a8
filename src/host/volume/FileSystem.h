// A whole mounted folder without a kernel: an extension, its tree, its contents, its changes in both directions, behind the
// Dispatcher's operations.
//
// Call order: constructor · start · (operations | changesSignalled)* · stop. After `stop` waiting operations still answer when the
// extension does, but nothing new is asked of it.
//
// Owns: everything it is made of; the extension is invalidated by `stop`. What the extension still runs keeps the parts
// that it needs alive, so the object may be destroyed at any time after `stop`.
// Threads: every operation may be called from any thread.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "host/front/Dispatcher.h"
#include "host/volume/Activity.h"
#include "host/volume/AnswerGate.h"
#include "host/volume/Auditor.h"
#include "host/volume/Contents.h"
#include "host/volume/ExtensionCalls.h"
#include "host/volume/FetchCauses.h"
#include "host/volume/FolderLister.h"
#include "host/volume/Keeper.h"
#include "host/volume/Refresher.h"
#include "host/volume/Sender.h"
#include "host/volume/SpaceMaker.h"
#include "host/volume/Volume.h"

namespace kestrune::host {

/// How the folder behaves for programs.
struct FileSystemOptions {
  /// Executables for which nothing is fetched, by their file names.
  std::set<std::string> lookersOn;
  /// Whether extended attributes are shown and kept.
  bool showsAttributes = false;
  SpaceLimits limits = {};
};

class FileSystem final : public Dispatcher {
 public:
  /// Throws StoreError if what the store remembers cannot be read.
  FileSystem(Volume::Services services, FileSystemOptions options);
  ~FileSystem() override;

  /// Sends what was left unsent, and asks for what changed since the last mount.
  void start();

  void lookup(NodeId folder, std::string name, Reply<Entry> reply) override;
  void forget(NodeId node, std::uint64_t count) override;
  Answer<Attributes> attributes(NodeId node) override;
  void openFolder(NodeId folder, Reply<Done> reply) override;
  platform::NSErrorPtr readFolder(NodeId folder, std::uint64_t after, bool remember,
                                  FolderSink& sink) override;
  void open(NodeId node, OpenMode mode, Caller caller, Reply<OpenFilePtr> reply) override;
  LocalFilePtr present(const OpenFile& file, std::int64_t offset, std::size_t length) override;
  void read(OpenFilePtr file, std::int64_t offset, std::size_t length,
            Reply<LocalFilePtr> reply) override;
  void release(OpenFilePtr file) override;
  Space space() override;

  void write(OpenFilePtr file, std::int64_t offset, std::span<const std::byte> bytes,
             Reply<Done> reply) override;
  void flush(OpenFilePtr file, Reply<Done> reply) override;
  void sync(OpenFilePtr file, Reply<Done> reply) override;
  void syncFolder(NodeId folder, Reply<Done> reply) override;
  void reserve(OpenFilePtr file, std::int64_t offset, std::int64_t length, bool keepsSize,
               Reply<Done> reply) override;
  void setAttributes(NodeId node, OpenFilePtr file, const AttributeChanges& changes,
                     Reply<Attributes> reply) override;
  void create(NodeId folder, std::string name, bool isExecutable, OpenMode mode, Caller caller,
              Reply<Created> reply) override;
  void makeFolder(NodeId folder, std::string name, Reply<Entry> reply) override;
  void removeFile(NodeId folder, std::string name, Reply<Done> reply) override;
  void removeFolder(NodeId folder, std::string name, Reply<Done> reply) override;
  void rename(NodeId folder, std::string name, NodeId newFolder, std::string newName,
              RenameMode mode, Reply<Done> reply) override;
  Answer<std::string> extendedAttribute(NodeId node, const std::string& name) override;
  Answer<std::vector<std::string>> extendedAttributeNames(NodeId node) override;
  void setExtendedAttribute(NodeId node, std::string name, std::optional<std::string> value,
                            bool mustBeNew, bool mustBeThere, Reply<Done> reply) override;
  void succeed(NodeId node) override;

  /// The remote side may have changed.
  void changesSignalled();
  /// May be called more than once.
  void stop();

  // The parts, for who manages the volume.
  const std::shared_ptr<Volume>& volume() const { return volume_; }
  const std::shared_ptr<Contents>& contents() const { return contents_; }
  const std::shared_ptr<Sender>& sender() const { return sender_; }
  const std::shared_ptr<FolderLister>& lister() const { return lister_; }
  const std::shared_ptr<Refresher>& refresher() const { return refresher_; }
  const std::shared_ptr<ExtensionCalls>& calls() const { return calls_; }
  const std::shared_ptr<Keeper>& keeper() const { return keeper_; }
  const std::shared_ptr<Activity>& activity() const { return activity_; }
  const std::shared_ptr<FetchCauses>& fetchCauses() const { return fetchCauses_; }
  const std::shared_ptr<Auditor>& auditor() const { return auditor_; }
  const SpaceLimits& limits() const { return options_.limits; }

 private:
  /// Who opens a file.
  struct Opener {
    std::string program;
    bool mayFetch = true;
  };
  Answer<OpenFilePtr> openItem(Tree& tree, Nodes& nodes, NodeId node, OpenMode mode,
                               const Opener& opener);
  Opener openerOf(Caller caller) const;
  void resize(OpenFilePtr file, NodeId node, std::int64_t sizeBytes, Reply<Done> reply);
  void wrote(const OpenFile& file);
  /// `work` of this object for an answer that may come after its end: then `reply` gets ENOTCONN.
  template <class T>
  Reply<Done> unlessEnded(const Reply<T>& reply, Reply<Done> work) const {
    return AnswerGate::whileOpen(gate_, reply, std::move(work));
  }
  using KeptAttributes = std::map<std::string, std::string>;
  Answer<KeptAttributes> keptAttributes(NodeId node);
  static const char* stateText(const Item& item);
  static bool isKept(const Item& item);

  const FileSystemOptions options_;
  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<FolderLister> lister_;
  const std::shared_ptr<Refresher> refresher_;
  const std::shared_ptr<ExtensionCalls> calls_;
  std::shared_ptr<Contents> contents_;
  std::shared_ptr<Sender> sender_;
  const std::shared_ptr<Activity> activity_ = std::make_shared<Activity>();
  const std::shared_ptr<FetchCauses> fetchCauses_ = std::make_shared<FetchCauses>();
  std::shared_ptr<Keeper> keeper_;
  std::shared_ptr<SpaceMaker> spaceMaker_;
  std::shared_ptr<Auditor> auditor_;
  std::atomic<bool> stopped_ = false;
  const std::shared_ptr<AnswerGate> gate_ = std::make_shared<AnswerGate>();
};

/// Executables that look at every file without anybody wanting its contents: thumbnailers, indexers, scanners, backups.
std::set<std::string> defaultLookersOn();

}  // namespace kestrune::host
