// Runs one extension as a mounted folder until somebody ends it: the whole host of one domain in one call.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/basics/ExtensionStatus.h"
#include "host/control/HostControl.h"
#include "host/front/InheritedMount.h"
#include "host/volume/FileSystem.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::host {

/// Makes the extension of a domain. Called once, after the temporary directory of the process has been set.
using ExtensionFactory = std::function<std::shared_ptr<platform::NSFileProviderReplicatedExtension>(
    platform::NSFileProviderDomainPtr domain)>;

struct HostOptions {
  /// An empty folder. A mount of ours that lost its host there is cleared.
  std::filesystem::path mountPoint;
  /// Where contents are kept while the host runs, private to it. Made if missing; not below the mount point.
  std::filesystem::path replicaDirectory;
  /// Written by somebody whenever the remote side may have changed; it need not exist yet.
  std::filesystem::path signalFile;
  std::string domainIdentifier = "main";
  std::string domainDisplayName = "Kestrune";
  bool allowOtherUsers = false;
  /// Whether files show and keep extended attributes, which makes listings slower.
  bool extendedAttributes = false;
  /// Executables for which nothing is fetched, by their file names.
  std::set<std::string> lookersOn = defaultLookersOn();
  /// How much contents may take.
  SpaceLimits limits;
  /// Where the host takes requests (ControlServer.h): at the first of these at which no other one does; empty: nowhere. Where it
  /// cannot listen it works without.
  std::vector<std::filesystem::path> controlSockets;
  /// Ends that the extension has an item kept here.
  std::function<void(const platform::NSFileProviderItemIdentifier& identifier)> unpin;
  /// What the extension's process is doing; null: it has none of its own. Called on any thread, once the extension was made.
  std::function<ExtensionStatus()> extensionStatus;
  /// The latest log lines of this process, the oldest first; null: none are kept. Called on any thread.
  std::function<std::vector<std::string>()> recentLog;
  /// Called when the folder can be used.
  std::function<void()> mounted;
  /// Makes what else speaks for the host while it serves; it lives until shortly before `control` goes. Null: nothing.
  std::function<std::shared_ptr<void>(HostControl& control)> beside;
  /// Told to who asks.
  std::string version = {};
  /// How to execute the program that takes this one's place when somebody asks for that; unknown: nobody can.
  ProgramStart program = {};
  /// If it exists, that mount is served instead of a new one. Null: there is none.
  InheritedMount* inherited = nullptr;
};

/// Mounts, serves until SIGINT, SIGTERM, SIGHUP or an unmount from outside, unmounts, and returns. Programs that wait in
/// the mount are answered, not left.
///
/// REQUIRES: called on the main thread before any other thread runs, since it blocks those signals for all threads to
/// come. Sets the process's temporary directory to one in the replica. Throws NSError if the mount cannot be made.
/// May execute another program in the place of this one; `mounted` is called there then.
void runMountHost(const HostOptions& options, const ExtensionFactory& makeExtension);

}  // namespace kestrune::host
