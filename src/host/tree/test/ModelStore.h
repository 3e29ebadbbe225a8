// A strict store in memory for the model test of the tree: names are unique, what is not there is not there. Its identifiers are
// numbers that stay, or paths, which change for all that is in a folder when that is moved.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/in/ItemRecord.h"

namespace kestrune::host {

/// Stands for the contents of a file; its size in bytes too, so that no two are alike.
using Token = std::uint64_t;

class ModelStore {
 public:
  enum class Identifiers { numbers, paths };
  using Key = std::uint64_t;
  static constexpr Key kRoot = 0;

  struct Node {
    Key parent = kRoot;
    std::string name;
    bool isFolder = false;
    Token token = 0;
    std::string version;
    platform::Date modified{};
  };

  explicit ModelStore(Identifiers identifiers) : identifiers_(identifiers) {}

  const std::map<Key, Node>& nodes() const { return nodes_; }
  platform::NSFileProviderItemIdentifier identifier(Key key) const;
  std::optional<Key> find(const platform::NSFileProviderItemIdentifier& identifier) const;
  std::optional<Key> child(Key parent, const std::string& name) const;
  bool isWithin(Key key, Key folder) const;
  /// The node and all below it, folders first.
  std::vector<Key> tree(Key key) const;
  std::string path(Key key) const;

  // REQUIRE: the name is free; a folder does not go into itself.
  Key create(Key parent, const std::string& name, bool isFolder, Token token, platform::Date now);
  void write(Key key, Token token, platform::Date now);
  void move(Key key, Key parent, const std::string& name);
  void remove(Key key);

  ItemRecord record(Key key) const;
  std::vector<ItemRecord> list(Key folder) const;
  std::string anchor() const { return std::to_string(log_.size()); }
  std::vector<ReportedChange> changes(Key folder, const std::string& anchor) const;
  /// A version that the store never gives, as an answer may guess it.
  std::string guess(Token token);
  /// Which contents a version, guessed or not, stands for.
  Token tokenOf(const std::string& version) const { return versions_.at(version); }

 private:
  struct Event {
    std::string folder;
    bool isDeletion;
    std::string identifier;
    Key key;
  };
  std::string newVersion(const char* kind, Token token);
  void tellComing(Key key);
  void tellGoing(Key key);

  const Identifiers identifiers_;
  Key last_ = kRoot;
  std::map<Key, Node> nodes_;
  std::vector<Event> log_;
  std::map<std::string, Token> versions_{{"", 0}};
};

}  // namespace kestrune::host
