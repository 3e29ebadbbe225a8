#include "companion/control/ControlText.h"

#include <array>
#include <cstdio>

#include "host/control/ControlRequest.h"
#include "platform/log/Log.h"

namespace kestrune {

using platform::Json;

namespace {

std::uint64_t numberAt(const Json& object, const char* name) {
  return object.value(name, std::uint64_t{0});
}

std::string counted(std::uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string pathLines(const Json& paths, std::uint64_t count, Escaping escaping) {
  std::string text;
  for (const Json& path : paths) text += "  " + pathText(path, escaping) + "\n";
  if (paths.size() < count) text += "  and " + std::to_string(count - paths.size()) + " more\n";
  return text;
}

std::string heldText(const Json& held, Escaping escaping) {
  const std::uint64_t count = numberAt(held, "count");
  if (count == 0) return {};
  const std::string text =
      counted(count, "deletion", "deletions") +
      " at the store not carried out here; decide with kestrune allow-deletions or "
      "kestrune keep-deleted:\n";
  return text + pathLines(held.at("paths"), count, escaping);
}

std::string conflictsText(const Json& conflicts, Escaping escaping) {
  const std::uint64_t count = numberAt(conflicts, "count");
  if (count == 0) return {};
  const std::string text =
      counted(count, "version lies", "versions lie") +
      " beside the store's, changed here and elsewhere; put together what you need, "
      "then remove or rename them:\n";
  return text + pathLines(conflicts.at("paths"), count, escaping);
}

std::string sentenceEnd(const std::string& text) { return text.ends_with('.') ? "\n" : ".\n"; }

std::string confinementText(const Json& confinement, Escaping escaping) {
  std::string missing = confinement.value("whyNoBubblewrap", "");
  for (const Json& what : confinement.at("notEnforced"))
    missing += (missing.empty() ? "" : "; ") + what.get<std::string>();
  if (missing.empty()) return ", confined by bubblewrap, Landlock and a filter of system calls.\n";
  return ".\nIt is not confined as it should be: " + escapedText(missing, escaping) +
         sentenceEnd(missing);
}

// One line of an extension that is well.
std::string extensionText(const Json& extension, Escaping escaping) {
  if (extension.is_null())
    return "The extension runs within the host, without a process of its own.\n";
  const std::uint64_t starts = numberAt(extension, "starts");
  std::string text =
      extension.contains("process")
          ? "The extension runs as process " + std::to_string(numberAt(extension, "process"))
          : "The extension does not run until it is needed";
  if (starts > 0) text += " (started " + counted(starts, "time", "times") + ")";
  text += extension.contains("confinement") ? confinementText(extension["confinement"], escaping)
                                            : ".\n";
  if (const std::uint64_t deaths = numberAt(extension, "deaths"); deaths > 0) {
    const std::string last = extension.value("lastDeath", "");
    text += "It died " + counted(deaths, "time", "times") + ", the last time by " +
            escapedText(last, escaping) + "; kestrune report tells more.\n";
  }
  if (const std::string refusal = extension.value("refusal", ""); !refusal.empty())
    text += "It was not started when it was last needed: " + escapedText(refusal, escaping) +
            sentenceEnd(refusal);
  return text;
}

std::string changesText(const Json& status) {
  const std::uint64_t count = numberAt(status, "pendingChanges");
  if (count == 0) return "Everything that was changed here is at the store.\n";
  std::string text = counted(count, "change is", "changes are") + " not at the store yet";
  if (const std::uint64_t failing = numberAt(status, "failingChanges"); failing > 0) {
    text += ", " + std::to_string(failing) + " failed so far";
  }
  return text + "; kestrune pending shows them.\n";
}

std::string changeText(const Json& change, Escaping escaping) {
  std::string text = change.at("change").get<std::string>();
  text.resize(6, ' ');
  text +=
      "  " + change.at("since").get<std::string>() + "  " + pathText(change.at("path"), escaping);
  if (const std::uint64_t bytes = numberAt(change, "bytes"); bytes > 0) {
    text += "  (" + sizeText(bytes) + ")";
  }
  if (change.value("underWay", false)) text += "  under way";
  text += "\n";
  if (const std::string reason = change.value("reason", ""); !reason.empty()) {
    text += "        failed " + counted(numberAt(change, "attempts"), "time", "times");
    if (change.contains("nextAttemptSeconds")) {
      text += ", again in " + std::to_string(numberAt(change, "nextAttemptSeconds")) + " s";
    }
    text += ": " + escapedText(reason, escaping) + "\n";
  }
  return text;
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
  constexpr std::uint64_t kStep = 1024;
  if (bytes < kStep) return counted(bytes, "byte", "bytes");
  constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  std::size_t unit = 0;
  auto value = static_cast<double>(bytes) / kStep;
  for (; value >= kStep && unit + 1 < kUnits.size(); ++unit) value /= kStep;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits.at(unit));
  return text.data();
}

std::string escapedText(const std::string& text, Escaping escaping) {
  return escaping == Escaping::forTerminal ? platform::escapeForDisplay(text) : text;
}

std::string pathText(const Json& path, Escaping escaping) {
  return escapedText(host::pathFromJson(path), escaping);
}

std::string statusText(const Json& status, Escaping escaping) {
  std::string text = "Mounted at " + pathText(status.at("mountPoint"), escaping) + ", domain " +
                     pathText(status.at("domain"), escaping) + ", process " +
                     std::to_string(numberAt(status, "process")) + ".\n";
  const Json& reachable = status.at("storeReachable");
  if (reachable.is_null()) {
    text += "The store was not asked for anything yet.\n";
  } else if (reachable.get<bool>()) {
    text += "The store answers.\n";
  } else {
    text += "The last request to the store failed: " +
            escapedText(status.value("storeError", ""), escaping) + "\n";
  }
  if (status.contains("extension")) text += extensionText(status["extension"], escaping);
  text += changesText(status);
  text += std::to_string(numberAt(status, "uploads")) + " uploads and " +
          std::to_string(numberAt(status, "downloads")) + " downloads under way.\n";
  text += counted(numberAt(status, "knownItems"), "item", "items") + " known, " +
          std::to_string(numberAt(status, "itemsHere")) +
          " with contents here: " + sizeText(numberAt(status, "bytesHere"));
  if (status.contains("cacheLimitBytes")) {
    text += " of at most " + sizeText(numberAt(status, "cacheLimitBytes"));
  }
  text += ".\n" + heldText(status.at("heldDeletions"), escaping);
  if (status.contains("conflicts")) text += conflictsText(status["conflicts"], escaping);
  if (status.contains("lastAudit")) {
    const Json& audit = status["lastAudit"];
    text += "Last audit: " + audit.at("at").get<std::string>() + ", " +
            pathText(audit.at("path"), escaping) + ", " +
            counted(numberAt(audit, "differences"), "difference", "differences") +
            " repaired; in all " + counted(numberAt(audit, "comparedInAll"), "folder", "folders") +
            " compared, " +
            counted(numberAt(audit, "differencesInAll"), "difference", "differences") +
            " repaired.\n";
  }
  if (status.contains("lastSignal")) {
    text += "Last told of changes at the store: " + status["lastSignal"].get<std::string>() + ".\n";
  }
  text += status.value("passthrough", false) ? "Whole files are read by the kernel itself.\n"
                                             : "All reading goes through the host.\n";
  return text;
}

std::string pendingText(const Json& pending, Escaping escaping) {
  const std::uint64_t count = numberAt(pending, "count");
  if (count == 0) return "Everything is at the store.\n";
  std::string text;
  const Json& changes = pending.at("changes");
  for (const Json& change : changes) text += changeText(change, escaping);
  if (changes.size() < count) text += "and " + std::to_string(count - changes.size()) + " more\n";
  return text;
}

std::string stateText(const Json& state, Escaping escaping) {
  std::string text;
  const std::uint64_t size = numberAt(state, "sizeBytes");
  const std::uint64_t here = numberAt(state, "bytesHere");
  if (state.value("folder", false)) {
    text = "a folder";
  } else if (here == 0 && size > 0) {
    text = sizeText(size) + ", not here";
  } else if (here < size) {
    text = sizeText(here) + " of " + sizeText(size) + " here";
  } else {
    text = sizeText(size) + ", here";
  }
  if (state.value("pinned", false)) text += ", pinned";
  if (state.contains("pending")) {
    const Json& change = state["pending"];
    text += ", not at the store yet (" + change.at("change").get<std::string>() + ")";
    if (const std::string reason = change.value("reason", ""); !reason.empty()) {
      text += ": " + escapedText(reason, escaping);
    }
  }
  return text;
}

namespace {

std::string presenceText(const Json& reasons) {
  const std::uint64_t size = numberAt(reasons, "sizeBytes");
  const std::uint64_t here = numberAt(reasons, "bytesHere");
  if (here == 0 && size > 0) {
    return "  Nothing has read it since it was listed, or its contents made room. They "
           "come when a program reads them, or with kestrune download.\n";
  }
  std::string text =
      here < size ? "  In part here: what programs have read of it, and some ahead of that.\n"
                  : std::string("  All of it is here.\n");
  if (!reasons.contains("cause")) {
    return text +
           "  Why it came is not known: it was written here, or fetched before the host was "
           "started, or longer ago than the last 1000 downloads.\n";
  }
  return text;
}

std::string causeText(const Json& cause, Escaping escaping) {
  const std::string at = cause.at("at").get<std::string>();
  if (cause.at("kind") == "command") return "  kestrune download fetched it, " + at + ".\n";
  const std::string program = cause.value("program", "");
  if (program.empty())
    return "  A program read it when nothing of it was here, " + at +
           "; which one could not be told.\n";
  return "  " + escapedText(program, escaping) + " read it when nothing of it was here, " + at +
         ".\n";
}

std::string waitText(const Json& change, const std::string& storeError, Escaping escaping) {
  std::string text = "  Not at the store yet (" + change.at("change").get<std::string>() +
                     "), since " + change.at("since").get<std::string>() + ": ";
  const std::uint64_t attempts = numberAt(change, "attempts");
  if (change.value("underWay", false)) return text + "it is being sent now.\n";
  const std::string reason = change.value("reason", "");
  if (reason.empty() && !storeError.empty())
    return text +
           "it waits for the store, which did not answer: " + escapedText(storeError, escaping) +
           (storeError.ends_with('.') ? "\n" : ".\n");
  if (attempts == 0 || reason.empty())
    return text + "it waits for its turn, or for a program to close it.\n";
  text += "failed " + counted(attempts, "time", "times") +
          ", the last time with: " + escapedText(reason, escaping) +
          (reason.ends_with('.') ? "" : ".");
  if (change.contains("nextAttemptSeconds"))
    text += " Tried again in " + std::to_string(numberAt(change, "nextAttemptSeconds")) + " s";
  return text + (change.contains("nextAttemptSeconds") ? ", or at once with kestrune sync.\n"
                                                       : " Tried again with kestrune sync.\n");
}

}  // namespace

std::string reasonsText(const Json& reasons, Escaping escaping) {
  if (reasons.value("folder", false)) {
    return std::string("  A folder: ") +
           (reasons.value("atStore", false) ? "it is at the store.\n"
                                            : "it is not at the store yet.\n") +
           "  What holds for the files in it, kestrune why tells of each.\n";
  }
  std::string text = "  " +
                     stateText({{"sizeBytes", numberAt(reasons, "sizeBytes")},
                                {"bytesHere", numberAt(reasons, "bytesHere")},
                                {"pinned", reasons.value("pinned", false)}},
                               escaping) +
                     ".\n" + presenceText(reasons);
  if (reasons.contains("cause")) text += causeText(reasons["cause"], escaping);
  if (reasons.contains("lastUsed"))
    text += "  Last used " + reasons["lastUsed"].get<std::string>() +
            " (to a minute); what was not used for the longest time makes room first.\n";
  if (reasons.value("pinned", false)) {
    text +=
        "  Pinned: it is fetched again when it changes and never makes room for others; "
        "kestrune unpin ends that.\n";
  }
  if (const std::string why = reasons.value("whyNotEvictable", ""); !why.empty()) {
    text += "  Its contents cannot go now: " + escapedText(why, escaping) + sentenceEnd(why);
  } else if (numberAt(reasons, "bytesHere") > 0) {
    text += "  Its contents may go: kestrune evict.\n";
  }
  if (reasons.contains("pending"))
    text += waitText(reasons["pending"], reasons.value("storeError", ""), escaping);
  return text;
}

}  // namespace kestrune
