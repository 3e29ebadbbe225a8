#include "host/tree/There.h"

#include <gtest/gtest.h>

#include "host/tree/ItemIndexes.h"

namespace kestrune::host {

namespace {

ThereState stateOf(const std::string& identifier, const std::string& name) {
  ThereState state;
  state.identifier = identifier;
  state.folder = 7;
  state.name = name;
  state.version = {"1795339300-17", "1795339300-17"};
  state.sizeBytes = 17;
  state.modified = platform::Date(std::chrono::seconds(1'795'339'300));
  return state;
}

std::vector<ThereState> states() {
  std::vector<ThereState> states = {ThereState(), stateOf("/a/b/name", "name"),
                                    stateOf("/name", "name"), stateOf("id 4711", "name")};
  states.push_back(stateOf("/a/b/other", "name"));
  states.push_back(stateOf("/a/b/", ""));
  states.push_back(stateOf("/a/b/x/y", "x/y"));
  states.push_back(stateOf("name", "name"));
  states.push_back(stateOf("", "name"));
  states.push_back(stateOf("/a/" + std::string(300, 'n'), std::string(300, 'n')));
  states.push_back(stateOf(std::string(70'000, 'i'), std::string(1, '\0')));
  states.push_back(stateOf("/a/b/name", "name"));
  ThereState& odd = states.back();
  odd.version = {"", std::string(200, 'm')};
  odd.sizeBytes = std::numeric_limits<std::int64_t>::max();
  odd.folder = std::numeric_limits<ItemId>::max();
  odd.modified = platform::Date::min();
  odd.policy = platform::NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
  odd.isProvisional = true;
  states.push_back(odd);
  states.back().isProvisional = false;
  states.back().isHeldDeletion = true;
  return states;
}

}  // namespace

TEST(ThereTest, IsWhatWasSetWhateverTheNameHere) {
  for (const std::string here : {"", "name", "another", "x/y"}) {
    for (const ThereState& state : states()) {
      There there;
      there.setNameHere(here);
      EXPECT_FALSE(there);
      IdentifierPrefixPtr prefix;
      there.set(state, prefix);
      ASSERT_TRUE(there);
      EXPECT_TRUE(ThereState(*there) == state) << state.identifier;
      EXPECT_EQ(there.nameHere(), here);
      there.setNameHere("new");
      EXPECT_TRUE(ThereState(*there) == state) << state.identifier;
      there.reset();
      EXPECT_FALSE(there);
      EXPECT_EQ(there.nameHere(), "new");
    }
  }
}

TEST(ThereTest, EachStateMayFollowEach) {
  IdentifierPrefixPtr prefix;
  There there;
  there.setNameHere("name");
  for (const ThereState& first : states()) {
    for (const ThereState& second : states()) {
      there.set(first, prefix);
      there.set(second, prefix);
      EXPECT_TRUE(ThereState(*there) == second) << first.identifier << ", " << second.identifier;
      EXPECT_EQ(there.nameHere(), "name");
    }
  }
}

TEST(ThereTest, WhatOneMovesAwayFromTheOthersKeep) {
  IdentifierPrefixPtr prefix;
  There a;
  There b;
  a.set(stateOf("/old/a", "a"), prefix);
  b.set(stateOf("/old/b", "b"), prefix);
  EXPECT_EQ(prefix->use_count(), 3U);
  a.set(stateOf("/new/a", "a"), prefix);
  EXPECT_EQ(prefix->text, "/new/");
  EXPECT_EQ(b->identifier, "/old/b");
  EXPECT_EQ(a->identifier, "/new/a");
  prefix = nullptr;
  a.set(stateOf("/old/b", "other"), prefix);  // the same identifier, and not for its name
  EXPECT_EQ(prefix, nullptr);
  EXPECT_TRUE(a->identifier == b->identifier);
}

TEST(ThereTest, APrefixGoesWithTheLastThatUsesIt) {
  IdentifierPrefixPtr prefix;
  {
    There there;
    there.set(stateOf("/old/a", "a"), prefix);
    there.setNameHere("a");
    there.setNameHere("b");
    EXPECT_EQ(prefix->use_count(), 2U);
    there.reset();
    EXPECT_EQ(prefix->use_count(), 1U);
    there.set(stateOf("/old/a", "a"), prefix);
  }
  EXPECT_EQ(prefix->use_count(), 1U);
}

TEST(ThereTest, AnIdentifierIsFoundHoweverItIsDivided) {
  ItemIndex<ByIdentifier> index;
  IdentifierPrefixPtr prefix;
  const std::vector<ThereState> all = states();
  std::vector<std::unique_ptr<Item>> items;
  for (const ThereState& state : all) {
    items.push_back(std::make_unique<Item>(items.size() + 2, false));
    items.back()->there.set(state, prefix);
    const bool isNew = index.find(IdentifierView{state.identifier, {}}) == index.end();
    EXPECT_EQ(index.insert(items.back().get()).second, isNew) << state.identifier;
  }
  for (const ThereState& state : all) {
    const auto found = index.find(IdentifierView{state.identifier, {}});
    ASSERT_NE(found, index.end()) << state.identifier;
    EXPECT_EQ((*found)->there->identifier, state.identifier);
    EXPECT_EQ(index.find((*found)->there->identifier), found);
  }
  EXPECT_EQ(index.find(IdentifierView{"/a/b/nam", {}}), index.end());
  EXPECT_EQ(index.find(IdentifierView{"/a/b/", "nam"}), index.end());
}

}  // namespace kestrune::host
