#include "host/control/ControlAnswer.h"

#include <utility>

#include "host/control/ControlRequest.h"
#include "platform/log/Log.h"
#include "platform/values/UTF8.h"

namespace kestrune::host {

using platform::Json;

namespace {

// Reasons may quote file names, and those are bytes.
std::string text(const std::string& any) {
  return platform::isValidUTF8(any) ? any : platform::escapeForDisplay(any);
}

const char* nameOf(PendingChange::Kind kind) {
  switch (kind) {
    case PendingChange::Kind::create:
      return "create";
    case PendingChange::Kind::move:
      return "move";
    case PendingChange::Kind::send:
      return "send";
    case PendingChange::Kind::remove:
      return "remove";
  }
}

Json toJson(const PendingChange& change) {
  Json json{{"path", pathToJson(change.path)}, {"change", nameOf(change.kind)},
            {"underWay", change.isUnderWay},   {"since", platform::formatISO8601(change.since)},
            {"attempts", change.attempts},     {"bytes", change.bytes}};
  if (!change.reason.empty()) json["reason"] = text(change.reason);
  if (change.nextAttempt) json["nextAttemptSeconds"] = change.nextAttempt->count();
  return json;
}

Json toJson(const std::string& result) { return text(result); }
Json toJson(const Done&) { return Json::object(); }

Json toJson(const ExtensionStatus& extension) {
  Json json{{"starts", extension.starts}, {"deaths", extension.deaths}};
  if (extension.pid != 0) json["process"] = extension.pid;
  if (!extension.lastDeath.empty()) json["lastDeath"] = text(extension.lastDeath);
  if (!extension.refusal.empty()) json["refusal"] = text(extension.refusal);
  if (extension.confinement) {
    Json notEnforced = Json::array();
    for (const std::string& what : extension.confinement->notEnforced)
      notEnforced.push_back(text(what));
    Json confinement{{"notEnforced", std::move(notEnforced)}};
    if (const auto& why = extension.confinement->whyNoBubblewrap)
      confinement["whyNoBubblewrap"] = text(*why);
    json["confinement"] = std::move(confinement);
  }
  return json;
}

template <class T>
Json eachToJson(const std::vector<std::string>& paths, const Each<T>& answers) {
  Json all = Json::array();
  for (std::size_t i = 0; i < paths.size(); ++i) {
    Json one{{"path", pathToJson(paths[i])}};
    if (i >= answers.size()) {
      one["error"] = "the host gave no answer for this path";
    } else if (answers[i].ok()) {
      one["result"] = toJson(answers[i].value());
    } else {
      one["error"] = text(answers[i].error()->localizedDescription());
    }
    all.push_back(std::move(one));
  }
  return all;
}

// The first paths of so many items.
Json countedPaths(std::uint64_t count, const std::vector<std::string>& paths, std::size_t most) {
  Json list = Json::array();
  for (std::size_t i = 0; i < paths.size() && i < most; ++i) list.push_back(pathToJson(paths[i]));
  return {{"count", count}, {"paths", std::move(list)}};
}

std::string line(const Json& json) { return platform::encodeJson(json) + "\n"; }

}  // namespace

Json toJson(const HostStatus& status) {
  Json json{{"passthrough", status.usesPassthrough},
            {"knownItems", status.knownItems},
            {"itemsHere", status.itemsHere},
            {"bytesHere", status.bytesHere},
            {"pendingChanges", status.pendingChanges},
            {"failingChanges", status.failingChanges},
            {"uploads", status.uploads},
            {"downloads", status.downloads},
            {"heldDeletions", countedPaths(status.heldDeletionCount, status.heldDeletions,
                                           HostStatus::kMostHeldPaths)},
            {"conflicts",
             countedPaths(status.conflictCount, status.conflicts, HostStatus::kMostConflictPaths)},
            {"storeReachable", nullptr}};
  if (status.isStoreReachable) json["storeReachable"] = *status.isStoreReachable;
  if (status.cacheLimitBytes) json["cacheLimitBytes"] = *status.cacheLimitBytes;
  if (!status.isStoreReachable.value_or(true)) json["storeError"] = text(status.storeError);
  if (status.lastAudit) {
    json["lastAudit"] = {{"at", platform::formatISO8601(status.lastAudit->at)},
                         {"path", pathToJson(status.lastAudit->path)},
                         {"differences", status.lastAudit->differences},
                         {"comparedInAll", status.lastAudit->comparedInAll},
                         {"differencesInAll", status.lastAudit->differencesInAll}};
  }
  json["extension"] = status.extension ? toJson(*status.extension) : Json();
  if (status.lastSignal) json["lastSignal"] = platform::formatISO8601(*status.lastSignal);
  return json;
}

Json toJson(const PendingChanges& changes) {
  Json list = Json::array();
  for (const PendingChange& change : changes.changes) list.push_back(toJson(change));
  return {{"count", changes.count}, {"changes", std::move(list)}};
}

Json toJson(const ItemState& state) {
  Json json{{"folder", state.isFolder},
            {"sizeBytes", state.sizeBytes},
            {"bytesHere", state.bytesHere},
            {"pinned", state.isPinned}};
  if (state.pending) json["pending"] = toJson(*state.pending);
  return json;
}

Json toJson(const ItemReasons& reasons) {
  Json json = toJson(reasons.state);
  json["atStore"] = reasons.isAtStore;
  if (reasons.cause) {
    const bool isProgram = reasons.cause->kind == DownloadCause::Kind::program;
    json["cause"] = {{"kind", isProgram ? "program" : "command"},
                     {"at", platform::formatISO8601(reasons.cause->at)}};
    if (!reasons.cause->program.empty()) json["cause"]["program"] = text(reasons.cause->program);
  }
  if (!reasons.whyNotEvictable.empty()) json["whyNotEvictable"] = text(reasons.whyNotEvictable);
  if (!reasons.storeError.empty()) json["storeError"] = text(reasons.storeError);
  if (reasons.lastUsed) json["lastUsed"] = platform::formatISO8601(*reasons.lastUsed);
  return json;
}

Json logToJson(const std::vector<std::string>& lines) {
  Json list = Json::array();
  for (const std::string& each : lines) list.push_back(text(each));
  return {{"lines", std::move(list)}};
}

Json toJson(const std::vector<std::string>& paths, const Each<Done>& answers) {
  return eachToJson(paths, answers);
}
Json toJson(const std::vector<std::string>& paths, const Each<std::string>& answers) {
  return eachToJson(paths, answers);
}
Json toJson(const std::vector<std::string>& paths, const Each<ItemState>& answers) {
  return eachToJson(paths, answers);
}
Json toJson(const std::vector<std::string>& paths, const Each<ItemReasons>& answers) {
  return eachToJson(paths, answers);
}

std::string resultLine(Json result) {
  return line({{"done", true}, {"result", std::move(result)}});
}
std::string errorLine(const std::string& reason) {
  return line({{"done", true}, {"error", text(reason)}});
}
std::string progressLine(std::uint64_t left) { return line({{"left", left}}); }

}  // namespace kestrune::host
