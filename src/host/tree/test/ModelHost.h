// A host around a tree, without threads, files or a kernel: a person who changes things here, others who change things at the
// store, answers that come late, changes that fail or whose answers are lost, and restarts. What happens next is drawn
// from the seed.
#pragma once

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/tree/Tree.h"
#include "host/tree/test/ModelStore.h"
#include "host/tree/test/TreeCheck.h"

namespace kestrune::host {

class ModelHost {
 public:
  ModelHost(ModelStore::Identifiers identifiers, std::uint64_t seed);

  void step();
  /// Without any more changes by people everything comes to rest, and both sides are the same.
  void settle();

 private:
  using Key = ModelStore::Key;
  struct Begun {
    Change change;
    std::uint64_t edits = 0;
    Token token = 0;
    platform::Date began{};
    bool isApplied = false;
    bool isAnswered = false;
    ItemRecord answer;
  };
  struct Ask {
    std::uint64_t asOf = 0;
    std::string identifier;
    std::optional<std::string> anchor;
    bool isTaken = false;
    bool isMissing = false;
    std::vector<ItemRecord> items;
    std::vector<ReportedChange> changes;
    std::string next;
  };

  std::size_t below(std::size_t bound);
  bool percent(std::size_t chance) { return below(100) < chance; }
  platform::Date now() const { return platform::Date(std::chrono::seconds(seconds_)); }
  void start(std::vector<ItemRow> rows, ItemId nextItem);
  void takeEffects();
  void restart();

  // The person here.
  void changeHere();
  void createHere();
  void edit(Item& item);
  void removeHere(Item& item);
  void moveHere(Item& item, Item& folder, const std::string& name);
  void save(Item& item);
  void readOrDrop(Item& item);
  Item* someItem();
  Item* someFolder();
  std::string someName();
  Token visible(const Item& item) const;
  void setBytes(Item& item, Token token, bool isEdit);
  void forgetToken(Token token) { precious_.erase(token); }
  void follow(Token token, Token before) { parents_[token].insert(before); }
  bool comesFrom(Token token, Token before) const;
  void mayGo(const Item& item);

  // Others.
  void changeThere();
  std::optional<Key> someKey(bool folder);

  // What goes out.
  void begin(bool isReliable);
  bool mayBegin(const Change& change) const;
  void lookAt(Item& item);
  void beginRemoval(const Change& change, bool isReliable);
  void apply(Begun& begun, bool isReliable);
  void create(Begun& begun, Item& item);
  void move(Begun& begun, Item& item);
  void send(Begun& begun, Item& item);
  void answer(const Begun& begun, bool isLost);
  void goOn(bool isReliable);
  std::optional<Key> look(Begun& begun, Item& item);

  // What comes in.
  void ask(Item& folder);
  void take(Ask& ask);
  bool deliver(ItemId id, Ask ask);
  bool listNow(Item& folder);
  void listAll();

  void compare();
  /// What the person sees: paths and contents.
  std::map<std::string, Token> seen();
  void expectSeen(const std::map<std::string, Token>& before);

  std::mt19937_64 random_;
  ModelStore store_;
  const bool hasAnchors_;
  /// Nobody else changes anything: then what the person sees is what the person did.
  const bool isAlone_;
  std::int64_t seconds_ = 1'000'000;
  std::unique_ptr<Tree> tree_;
  TreeCheck check_;
  std::map<ItemId, Ask> asks_;
  std::set<ItemId> doubtful_;
  std::vector<Begun> underWay_;
  std::map<ContentNumber, Token> bytes_;
  ContentNumber lastNumber_ = 0;
  Token lastToken_ = 0;
  NodeId lastNode_ = kRootNode;
  /// Written here last, and not removed or replaced by anybody who knew.
  std::set<Token> precious_;
  std::map<Token, std::set<Token>> parents_;
  /// What was removed here: the store's copy may go.
  std::set<Token> mayGo_;
};

}  // namespace kestrune::host
