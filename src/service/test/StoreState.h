// What a store holds, as a value: to say what a change leads to, and to compare that with the disk.
//
// Threads: plain values; contents are shared and never change.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>

namespace kestrune::service {

/// The bytes of a file.
using Contents = std::shared_ptr<const std::string>;

struct StoreState {
  /// Files and folders by their path; a folder has null for its contents.
  std::map<std::string, Contents> tree;
  /// Complete uploads that nobody has imported, by their key.
  std::map<std::string, Contents> objects;

  /// Takes the item at `source`, with all that is below it, to `destination`.
  void move(const std::string& source, const std::string& destination);
  /// Takes the item away, with all that is below it.
  void remove(const std::string& path);
  /// The object becomes the file at `path`.
  void import(const std::string& key, const std::string& path);

  /// What really lies in a root and in a staging directory. What is neither a file nor a folder
  /// throws.
  static StoreState onDisk(const std::filesystem::path& root, const std::filesystem::path& staging);

  /// One line for each item that only one of the two has or whose contents differ; empty if they
  /// are equal.
  std::string differenceFrom(const StoreState& other) const;
};

/// Whether `path` is `folder` or lies below it.
bool isWithin(const std::string& path, const std::string& folder);

}  // namespace kestrune::service
