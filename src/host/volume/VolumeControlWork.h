// What VolumeControl does over time, as tasks.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "host/volume/VolumeControl.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

class VolumeControl::Work : public std::enable_shared_from_this<Work> {
 public:
  template <class T>
  using Task = platform::Task<T>;

  Work(const FileSystem& fileSystem, Outside outside);

  static Task<void> act(std::shared_ptr<Work> self, ItemAction action,
                        std::vector<std::string> paths, Reply<Each<Done>> reply);
  void beginLinks(std::vector<std::string> paths, Reply<Each<std::string>> reply);
  static Task<void> states(std::shared_ptr<Work> self, std::vector<std::string> paths,
                           Reply<Each<ItemState>> reply);
  static Task<void> reasons(std::shared_ptr<Work> self, std::vector<std::string> paths,
                            Reply<Each<ItemReasons>> reply);
  static Task<void> folderStates(std::shared_ptr<Work> self, std::string folder,
                                 Reply<std::vector<EntryState>> reply);
  HostStatus status();
  HostCondition condition();
  PendingChanges pending(const std::string& path, std::size_t most);

  const std::shared_ptr<Volume> volume;
  const std::shared_ptr<Contents> contents;
  const std::shared_ptr<FolderLister> lister;
  const std::shared_ptr<Sender> sender;
  const std::shared_ptr<ExtensionCalls> calls;
  const std::shared_ptr<Keeper> keeper;
  const std::shared_ptr<Activity> activity;
  const std::shared_ptr<Auditor> auditor;
  const std::shared_ptr<FetchCauses> fetchCauses;
  const SpaceLimits limits;
  const Outside outside;

 private:
  Task<Answer<ItemId>> find(std::string path);
  Task<Answer<Done>> listBelow(ItemId item);
  Task<Answer<Done>> actOn(ItemAction action, std::string path);
  Task<Answer<Done>> perform(std::string action, std::vector<ItemId> items);
  bool isAnyHere(ItemId file);
  Task<Answer<Done>> download(std::vector<ItemId> files);
  Task<void> askPolicies(std::vector<ItemId> items);
  Task<Answer<std::string>> linkOf(ItemId item);
  Task<Each<std::string>> linksOf(std::vector<std::string> paths);
  Task<Answer<ItemState>> stateOf(std::string path);
  Task<Answer<ItemReasons>> reasonsOf(std::string path);
  Task<Answer<std::vector<EntryState>>> entriesOf(std::string folder);
  static Task<void> links(std::shared_ptr<Work> self);

  struct LinkRequest {
    std::vector<std::string> paths;
    Reply<Each<std::string>> reply;
  };
  platform::Mutex linkMutex_;
  bool makesLinks_ GUARDED_BY(linkMutex_) = false;
  std::deque<LinkRequest> linkRequests_ GUARDED_BY(linkMutex_);
};

}  // namespace kestrune::host
