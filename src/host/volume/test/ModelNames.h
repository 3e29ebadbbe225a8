// A file system in memory that is nothing but names and bytes: what a mounted folder must look like while nobody else changes
// anything.
//
// Threads: a value.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/basics/FileTime.h"
#include "host/basics/NodeId.h"
#include "host/front/Dispatcher.h"

namespace kestrune::host::test {

struct ModelNode;
using ModelNodePtr = std::shared_ptr<ModelNode>;

struct ModelNode {
  bool isFolder = false;
  std::string bytes;
  std::map<std::string, ModelNodePtr> children;
  /// 0 until it was seen.
  InodeNumber inode = 0;
  /// As set here.
  std::optional<FileTime> modified;
};

class ModelNames {
 public:
  /// By path; folders have no contents.
  using Paths = std::map<std::string, std::optional<std::string>>;

  ModelNames() : root_(folder()) {}
  explicit ModelNames(const Paths& paths);

  const ModelNodePtr& root() const { return root_; }
  /// Null if there is none; then `error` says why.
  ModelNodePtr find(const std::string& path, int& error) const;
  ModelNodePtr find(const std::string& path) const;
  Paths paths() const;
  std::vector<std::string> folders() const;

  // These return the errno, and do nothing unless it is 0.
  int make(const std::string& path, bool isFolder);
  int removeFile(const std::string& path);
  int removeFolder(const std::string& path);
  int rename(const std::string& from, const std::string& to, RenameMode mode);

 private:
  static ModelNodePtr folder();

  ModelNodePtr root_;
};

/// Text for people: the beginning and the length of what is long.
std::string shortened(const std::string& text);
std::string described(const ModelNames::Paths& paths);

}  // namespace kestrune::host::test
