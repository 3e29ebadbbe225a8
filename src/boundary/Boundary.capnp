@0xb7f3a1c65d2e9048;
# What the host and the extension's program say to each other. The interfaces mirror platform/file_provider; whoever changes them
# changes kProtocolVersion (Protocol.h) too.
#
# Bytes of names and identifiers are Data, because a remote side's names need not be text. A pointer that is not there stands for an
# optional value that is none.

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("kestrune::boundary::wire");

struct Entry {
  key @0 :Data;
  value @1 :Data;
}

struct Error {
  domain @0 :Data;
  code @1 :Int64;
  description @2 :Data;
  userInfo @3 :List(Entry);
}

struct Version {
  content @0 :Data;
  metadata @1 :Data;
}

struct Range {
  location @0 :Int64;
  length @1 :Int64;
}

struct Request {
  isSystemRequest @0 :Bool;
  isFileViewerRequest @1 :Bool;
  requestingExecutable @2 :Data;
}

# An item as it was when it was handed over: properties are not asked for one by one. But for the policy of items that come in
# lists, which costs more to read than a listing may wait for.
struct Item {
  identifier @0 :Data;
  parentIdentifier @1 :Data;
  filename @2 :Data;
  contentType @3 :Data;
  capabilities @4 :UInt32;
  hasCapabilities @5 :Bool;
  hasSize @6 :Bool;
  hasModified @7 :Bool;
  hasCreated @8 :Bool;
  size @9 :Int64;
  modified @10 :Int64;  # microseconds since 1970
  created @11 :Int64;
  contentPolicy @12 :Int64;
  version @13 :Version;
}

struct ItemList {
  items @0 :List(Item);
}

# The content policies of a list's items, in their order, read when they are asked for.
interface Policies {
  read @0 () -> (policies :List(Int64));
}

# What an operation's completion handler is called with; each operation fills in what its handler takes.
struct Answer {
  dropped @7 :Bool;  # nothing: the handler is gone and was never called
  error @0 :Error;
  item @1 :Item;
  url @2 :Data;
  range @3 :Range;
  flags @4 :UInt32;
  pendingFields @5 :UInt32;
  shouldFetchContent @6 :Bool;
  total @8 :Int64;  # the progress when the handler was called; both 0: as it was told last
  completed @9 :Int64;
}

# Takes a stream's bytes. They stand in `memory` at `position`, and may be overwritten when the call has been answered.
interface Taker {
  take @0 (offset :Int64, position :UInt64, length :UInt32) -> (wanted :Bool);
}

# Memory that both sides have mapped: a capability with a descriptor.
interface Memory {
}

# `list` is a message with an ItemList.
interface ItemObserver {
  items @0 (list :Data, policies :Policies) -> stream;
  finish @1 (nextPage :Data);
  fail @2 (error :Error);
  dropped @3 ();
}

interface ChangeObserver {
  updated @0 (list :Data, policies :Policies) -> stream;
  deleted @1 (identifiers :List(Data)) -> stream;
  finish @2 (anchor :Data, moreComing :Bool);
  fail @3 (error :Error);
  dropped @4 ();
}

interface Enumerator {
  enumerateItems @0 (page :Data, observer :ItemObserver);
  enumerateChanges @1 (anchor :Data, observer :ChangeObserver);
  currentSyncAnchor @2 () -> (anchor :Data);
  invalidate @3 ();
}

# The host, as the extension sees it: its manager, the session's pasteboard, and who watches the progress of its operations. No error:
# it was done.
interface Host {
  evictItem @0 (identifier :Data) -> (error :Error);
  requestDownload @1 (identifier :Data, range :Range) -> (error :Error);
  signalEnumerator @2 (container :Data) -> (error :Error);
  copyText @3 (text :Data) -> (error :Error);
  # Of an operation that is not answered yet: one of one unit begins without being told, and the last counts come with the answer.
  # Most operations are so short that this is all.
  progressed @4 (operation :UInt64, total :Int64, completed :Int64);
}

interface Extension {
  # Before all else, once. `notEnforced`: what of its confinement the program could not have, in words for people.
  greet @0 (version :UInt32, domainIdentifier :Data, domainName :Data, host :Host)
      -> (version :UInt32, partialContents :Bool, streams :Bool, actions :Bool, notEnforced :List(Data));

  # Operations end with their answers. Each has a number of its own, by which it can be cancelled and its progress is told.
  item @1 (operation :UInt64, identifier :Data, request :Request) -> (answer :Answer);
  fetchContents @2 (operation :UInt64, identifier :Data, version :Version, request :Request) -> (answer :Answer);
  fetchPartialContents @3 (operation :UInt64, identifier :Data, version :Version, request :Request, range :Range, alignment :Int64,
      options :UInt32) -> (answer :Answer);
  streamContents @4 (operation :UInt64, identifier :Data, version :Version, request :Request, range :Range, memory :Memory,
      taker :Taker) -> (answer :Answer);
  createItem @5 (operation :UInt64, item :Item, fields :UInt32, url :Data, options :UInt32, request :Request)
      -> (answer :Answer);
  modifyItem @6 (operation :UInt64, item :Item, version :Version, fields :UInt32, url :Data, options :UInt32, request :Request)
      -> (answer :Answer);
  deleteItem @7 (operation :UInt64, identifier :Data, version :Version, options :UInt32, request :Request)
      -> (answer :Answer);
  performAction @8 (operation :UInt64, action :Data, identifiers :List(Data)) -> (answer :Answer);

  enumerator @9 (container :Data, request :Request) -> (enumerator :Enumerator, error :Error);
  invalidate @10 ();
  cancel @11 (operation :UInt64);
}
