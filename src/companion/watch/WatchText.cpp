#include "companion/watch/WatchText.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "companion/terminal/TerminalText.h"
#include "host/control/ControlRequest.h"

namespace kestrune {

using platform::Json;

namespace {

constexpr std::size_t kBar = 12;
constexpr std::size_t kRate = 12;
constexpr std::size_t kLeft = 8;
// What conflicts get of a page that changes which wait would fill: a blank line, the heading, and so many of them.
constexpr std::size_t kConflictsKept = 3;
constexpr std::size_t kHeading = 2;

std::uint64_t numberAt(const Json& object, const char* name) {
  return object.is_object() ? object.value(name, std::uint64_t{0}) : 0;
}

const char* nameOf(SyncTransfer::Direction direction) {
  return direction == SyncTransfer::Direction::upload ? "upload" : "download";
}

std::uint64_t unsignedOf(std::int64_t bytes) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0));
}

std::string storeText(const Json& status) {
  if (!status.contains("storeReachable") || status["storeReachable"].is_null())
    return "store not asked yet";
  if (status["storeReachable"].get<bool>()) return "store reachable";
  return "store not reachable: " + status.value("storeError", "");
}

std::string sentText(const Json& status) {
  const std::uint64_t pending = numberAt(status, "pendingChanges");
  if (pending == 0) return "everything is at the store";
  std::string text =
      std::to_string(pending) + (pending == 1 ? " change" : " changes") + " not at the store";
  if (const auto failing = numberAt(status, "failingChanges"); failing > 0)
    text += ", " + std::to_string(failing) + " failing";
  return text;
}

std::string heldText(const Json& status) {
  const std::uint64_t held =
      status.contains("heldDeletions") ? numberAt(status["heldDeletions"], "count") : 0;
  if (held == 0) return {};
  return std::to_string(held) + (held == 1 ? " deletion" : " deletions") +
         " held back: kestrune allow-deletions or keep-deleted";
}

// What waits, and why.
std::string waitText(const Json& change) {
  if (change.value("underWay", false)) return "under way";
  const std::string reason = change.value("reason", "");
  if (reason.empty()) return "waits";
  std::string text = "failed";
  if (change.contains("nextAttemptSeconds"))
    text += ", again in " + std::to_string(numberAt(change, "nextAttemptSeconds")) + " s";
  return text + ": " + reason;
}

class Page {
 public:
  Page(ScreenSize size, bool withColor) : size_(size), withColor_(withColor) {}
  void line(const std::string& text) {
    std::string shown = fitted(text, size_.columns);
    shown.erase(shown.find_last_not_of(' ') + 1);
    if (lines_.size() < size_.lines) lines_.push_back(std::move(shown));
  }
  void heading(const std::string& text) {
    if (lines_.size() + 1 >= size_.lines) return;
    lines_.emplace_back();
    line(text);
    if (withColor_) lines_.back() = "\033[1m" + lines_.back() + "\033[0m";
  }
  std::size_t columns() const { return size_.columns; }
  std::size_t room() const { return size_.lines - lines_.size(); }
  std::vector<std::string> take() { return std::move(lines_); }

 private:
  const ScreenSize size_;
  const bool withColor_;
  std::vector<std::string> lines_;
};

std::string cacheText(const Json& status, std::size_t columns) {
  const std::uint64_t here = numberAt(status, "bytesHere");
  const std::string counts = std::to_string(numberAt(status, "itemsHere")) + " of " +
                             std::to_string(numberAt(status, "knownItems")) + " items here";
  if (!status.contains("cacheLimitBytes")) return "Cache  " + sizeText(here) + ", " + counts;
  const std::uint64_t limit = numberAt(status, "cacheLimitBytes");
  return "Cache  " + barText(here, limit, std::min<std::size_t>(columns / 4, 2 * kBar)) + " " +
         sizeText(here) + " of " + sizeText(limit) + ", " + counts;
}

std::string transferText(const SyncTransfer& transfer, const TransferRates& rates,
                         std::size_t columns) {
  constexpr std::size_t kDirection = 5;
  const auto done = unsignedOf(transfer.bytesTransferred);
  const auto total = unsignedOf(transfer.totalBytes);
  const auto rate = rates.rateOf(transfer.id);
  const auto left = rates.secondsLeft(transfer);
  const std::string rateText =
      rate ? sizeText(static_cast<std::uint64_t>(std::max(*rate, 0.0))) + "/s" : "";
  std::string percent = total == 0 ? "" : std::to_string(std::min(done, total) * 100 / total) + "%";
  percent.insert(0, 5 - std::min<std::size_t>(percent.size(), 5), ' ');
  constexpr std::size_t kFixed = kDirection + 1 + kBar + 5 + 1 + kRate + 1 + kLeft;
  const std::size_t forName = columns > kFixed + 8 ? columns - kFixed : 8;
  return fitted(transfer.direction == SyncTransfer::Direction::upload ? "up" : "down", kDirection) +
         fittedEnd(transfer.path, forName) + " " + barText(done, total, kBar) + percent + " " +
         fitted(rateText, kRate) + " " + fitted(left ? durationText(*left) : "", kLeft);
}

void addTransfers(Page& page, const WatchFacts& facts, const TransferRates& rates) {
  page.heading("Transfers (" + std::to_string(facts.transfers.size()) + ")");
  auto transfers = facts.transfers;
  std::sort(transfers.begin(), transfers.end(), [](const auto& a, const auto& b) {
    return a.startedAt != b.startedAt ? a.startedAt < b.startedAt : a.id < b.id;
  });
  // At least half of what is left stays for what waits.
  const std::size_t most = std::max<std::size_t>(page.room() / 2, 1);
  for (std::size_t i = 0; i < std::min(most, transfers.size()); ++i)
    page.line(transferText(transfers[i], rates, page.columns()));
  if (transfers.size() > most)
    page.line("and " + std::to_string(transfers.size() - most) + " more");
}

std::uint64_t conflictsOf(const Json& status) {
  return status.contains("conflicts") ? numberAt(status["conflicts"], "count") : 0;
}

std::size_t linesForConflicts(const Page& page, std::uint64_t count) {
  if (count == 0) return 0;
  return std::min<std::size_t>(kHeading + std::min<std::uint64_t>(count, kConflictsKept),
                               page.room() / 2);
}

void addConflicts(Page& page, const Json& status) {
  const std::uint64_t count = conflictsOf(status);
  if (count == 0 || page.room() <= kHeading) return;
  page.heading("Changed here and elsewhere (" + std::to_string(count) + ")");
  const Json& paths = status["conflicts"].at("paths");
  const std::size_t fitting = page.room() >= count ? paths.size() : page.room() - 1;
  const std::size_t shown = std::min(fitting, paths.size());
  for (std::size_t i = 0; i < shown; ++i)
    page.line(fittedEnd(host::pathFromJson(paths[i]), page.columns()));
  if (shown < count) page.line("and " + std::to_string(count - shown) + " more");
}

void addPending(Page& page, const Json& pending, std::size_t leave) {
  const std::uint64_t count = numberAt(pending, "count");
  if (count == 0 || page.room() <= kHeading + leave) return;
  page.heading("Not at the store (" + std::to_string(count) + ")");
  constexpr std::size_t kKind = 7;
  const std::size_t forPath = page.columns() / 3;
  for (const Json& change : pending.at("changes")) {
    if (page.room() <= leave) return;
    page.line(fitted(change.at("change").get<std::string>(), kKind) +
              fittedEnd(host::pathFromJson(change.at("path")), forPath) + " " + waitText(change));
  }
}

}  // namespace

std::vector<std::string> watchPage(const WatchFacts& facts, const TransferRates& rates,
                                   ScreenSize size, bool withColor) {
  Page page(size, withColor);
  if (facts.status.is_null()) {
    page.line("No host answers. It is waited for; Ctrl-C or q ends this.");
    return page.take();
  }
  const Json& status = facts.status;
  page.line("Kestrune  " + host::pathFromJson(status.value("mountPoint", Json(""))));
  std::string state = storeText(status) + "; " + sentText(status);
  state[0] = 'S';
  page.line(state);
  if (const std::string held = heldText(status); !held.empty()) page.line(held);
  page.line(cacheText(status, page.columns()));
  addTransfers(page, facts, rates);
  addPending(page, facts.pending, linesForConflicts(page, conflictsOf(status)));
  addConflicts(page, status);
  return page.take();
}

std::vector<std::string> watchLines(const WatchFacts& facts, Escaping escaping) {
  if (facts.status.is_null()) return {"no host answers"};
  std::vector<std::string> lines{escapedText(storeText(facts.status), escaping),
                                 sentText(facts.status)};
  if (std::string held = heldText(facts.status); !held.empty()) lines.push_back(std::move(held));
  for (const SyncTransfer& transfer : facts.transfers) {
    lines.push_back(
        std::string(nameOf(transfer.direction)) + " of " + escapedText(transfer.path, escaping) +
        (transfer.totalBytes > 0 ? ", " + sizeText(unsignedOf(transfer.totalBytes)) : ""));
  }
  if (const std::uint64_t conflicts = conflictsOf(facts.status); conflicts > 0) {
    const Json& paths = facts.status["conflicts"].at("paths");
    for (const Json& path : paths) lines.push_back("conflict at " + pathText(path, escaping));
    if (conflicts > paths.size())
      lines.push_back("and " + std::to_string(conflicts - paths.size()) + " more conflicts");
  }
  if (!facts.pending.is_object()) return lines;
  for (const Json& change : facts.pending.at("changes")) {
    const std::string reason = change.value("reason", "");
    if (reason.empty()) continue;
    lines.push_back(change.at("change").get<std::string>() + " of " +
                    pathText(change.at("path"), escaping) +
                    " failed: " + escapedText(reason, escaping));
  }
  return lines;
}

Json watchJson(const WatchFacts& facts) {
  Json transfers = Json::array();
  for (const SyncTransfer& transfer : facts.transfers) {
    transfers.push_back({{"path", transfer.path},
                         {"direction", nameOf(transfer.direction)},
                         {"bytesTransferred", transfer.bytesTransferred},
                         {"totalBytes", transfer.totalBytes},
                         {"startedAt", platform::formatISO8601(transfer.startedAt)}});
  }
  return {
      {"status", facts.status}, {"pending", facts.pending}, {"transfers", std::move(transfers)}};
}

}  // namespace kestrune
