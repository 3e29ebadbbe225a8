#include "desktop/Notifier.h"

#include <system_error>
#include <utility>

#include "desktop/ConditionText.h"

namespace kestrune::desktop {

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kObject = "/org/freedesktop/Notifications";
// What a click on the notification itself means.
constexpr const char* kOpen = "default";
constexpr const char* kStatus = "status";
constexpr const char* kTryAgain = "try-again";

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string sentence(const std::string& words) {
  return words.ends_with('.') ? words : words + ".";
}

/// Some services read bodies as marked-up text.
std::string escaped(const std::string& plain) {
  std::string marked;
  for (const char byte : text(plain)) {
    if (byte == '&') {
      marked += "&amp;";
    } else if (byte == '<') {
      marked += "&lt;";
    } else if (byte == '>') {
      marked += "&gt;";
    } else {
      marked += byte;
    }
  }
  return marked;
}

/// Of any bytes, which the address of a file may hold and a text may not.
std::string fileAddress(const std::string& path) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  std::string address = "file://";
  for (const char byte : path) {
    const auto value = static_cast<unsigned char>(byte);
    if (kPlain.find(byte) != std::string_view::npos) {
      address += byte;
    } else {
      address += {'%', kDigits[value >> 4U], kDigits[value & 15U]};
    }
  }
  return address;
}

}  // namespace

struct Notifier::Handlers {
  static int shown(sd_bus_message* answer, void* data, sd_bus_error*) {
    auto& subject = *static_cast<Subject*>(data);
    subject.isMissed = sd_bus_message_is_method_error(answer, nullptr) > 0;
    if (!subject.isMissed) sd_bus_message_read(answer, "u", &subject.id);
    return 1;
  }

  static int clicked(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto& self = *static_cast<Notifier*>(data);
    std::uint32_t id = 0;
    const char* action = nullptr;
    if (sd_bus_message_read(signal, "us", &id, &action) < 0 || id == 0) return 0;
    return guarded([&] {
      for (const Subject* subject : self.subjects()) {
        if (subject->id == id) self.act(*subject, action);
      }
    });
  }

  // At a login the one who shows notifications may come later than the mount.
  static int served(sd_bus_message* signal, void* data, sd_bus_error*) {
    if (!hasOwner(signal)) return 0;
    auto& self = *static_cast<Notifier*>(data);
    return guarded([&] {
      for (Subject* subject : self.subjects()) {
        subject->id = 0;  // the numbers were another one's
        if (subject->isMissed) self.show(*subject);
      }
    });
  }

  // Only a connection that has gone throws here; its end is seen by who serves it.
  template <class Work>
  static int guarded(Work&& work) {
    try {
      work();
      return 0;
    } catch (const std::system_error& error) {
      return -error.code().value();
    }
  }
};

Notifier::Notifier(sd_bus* bus, std::string mountPoint, Deeds deeds)
    : bus_(bus), mountPoint_(std::move(mountPoint)), deeds_(std::move(deeds)) {
  sd_bus_slot* slot = nullptr;
  check(sd_bus_match_signal_async(bus_, &slot, kService, kObject, kService, "ActionInvoked",
                                  &Handlers::clicked, nullptr, this),
        "listen for clicks");
  clicks_.reset(slot);
  services_ = listenForOwners(bus_, kService, &Handlers::served, this);
}

void Notifier::conflicts(const std::vector<std::string>& paths) {
  std::string newest;
  for (const std::string& path : paths) {
    if (conflicts_.insert(path).second) newest = path;
  }
  if (newest.empty()) return;
  const std::string more =
      conflicts_.size() == 1 ? "" : " (" + std::to_string(conflicts_.size()) + " so far)";
  notify(conflict_, "Changed here and elsewhere" + more,
         "Both versions were kept. Yours is now called \"" + nameOf(newest) + "\".",
         folderOf(newest));
}

void Notifier::overview(const host::HostCondition& condition, const host::PendingChanges& pending) {
  if (!std::exchange(hasSeenOverview_, true)) tellStandingConflicts(condition);
  if (condition.conflictCount == 0) conflict_.isMissed = false;
  tellSignedOut(condition.isSignedOut);
  tellRefused(pending);
  if (std::exchange(isStatusWanted_, false))
    notify(status_, "Kestrune: " + mountPoint_, conditionText(condition, pending), "/");
}

// Those that nobody has settled since an earlier mount, or a session that is over.
void Notifier::tellStandingConflicts(const host::HostCondition& condition) {
  std::string one;
  for (const std::string& path : condition.conflicts) {
    if (conflicts_.insert(path).second) one = path;
  }
  if (one.empty()) return;
  const std::uint64_t others = condition.conflictCount - 1;
  notify(conflict_, "Changed here and elsewhere, and not settled",
         "\"" + nameOf(one) + "\"" +
             (others == 0 ? " lies" : " and " + std::to_string(others) + " more lie") +
             " beside the store's version. Put together what you need, then remove or rename it.",
         folderOf(one));
}

void Notifier::tellSignedOut(bool isSignedOut) {
  if (!isSignedOut) signedOut_.isMissed = false;
  if (std::exchange(isSignedOut_, isSignedOut) == isSignedOut || !isSignedOut) return;
  notify(signedOut_, "Kestrune is signed out",
         "Nothing is sent or fetched before a new token is set with \"kestrune configure\".", "/");
}

void Notifier::tellRefused(const host::PendingChanges& pending) {
  std::set<std::string> refused;
  const host::PendingChange* newest = nullptr;
  for (const host::PendingChange& change : pending.changes) {
    if (!change.isRefused || (change.attempts < kRefusals && !refused_.contains(change.path)))
      continue;
    refused.insert(change.path);
    if (!refused_.contains(change.path)) newest = &change;
  }
  refused_ = std::move(refused);
  if (refused_.empty()) refusal_.isMissed = false;
  // Who is signed out is told that, and not that each of a thousand files is refused.
  if (newest == nullptr || isSignedOut_) return;
  const std::string more =
      refused_.size() == 1 ? "" : " and " + std::to_string(refused_.size() - 1) + " more";
  const std::string advice = newest->isForbidden
                                 ? " You may not change this at the store: ask for the right to, "
                                   "or move it to a folder where you may."
                                 : "";
  notify(refusal_, "\"" + nameOf(newest->path) + "\"" + more + " cannot be sent",
         sentence(newest->reason) + advice + " It exists on this machine alone until then.",
         folderOf(newest->path));
}

void Notifier::notify(Subject& subject, std::string summary, std::string body, std::string path) {
  subject.summary = std::move(summary);
  subject.body = std::move(body);
  subject.path = std::move(path);
  show(subject);
}

void Notifier::show(Subject& subject) {
  subject.isMissed = false;
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(bus_, &made, kService, kObject, kService, "Notify"),
        "begin a notification");
  const MessagePtr call(made);
  check(sd_bus_message_append(call.get(), "susss", "Kestrune", subject.id, "folder-remote",
                              text(subject.summary).c_str(), escaped(subject.body).c_str()),
        "fill a notification");
  check(sd_bus_message_open_container(call.get(), 'a', "s"), "fill a notification");
  const auto offer = [&call](const char* action, const char* label) {
    check(sd_bus_message_append(call.get(), "ss", action, label), "fill a notification");
  };
  offer(kOpen, "Open the folder");
  if (subject.mayTryAgain) offer(kTryAgain, "Try again");
  if (&subject != &status_) offer(kStatus, "Show status");
  check(sd_bus_message_close_container(call.get()), "fill a notification");
  check(sd_bus_message_append(call.get(), "a{sv}i", 0, -1), "fill a notification");
  sd_bus_slot* slot = nullptr;
  check(sd_bus_call_async(bus_, &slot, call.get(), &Handlers::shown, &subject, 0),
        "send a notification");
  subject.slot.reset(slot);
}

void Notifier::act(const Subject& subject, const std::string& action) {
  if (action == kOpen) return showFolder(subject);
  if (action == kTryAgain) return deeds_.tryNow();
  if (action != kStatus) return;
  isStatusWanted_ = true;
  deeds_.look();
}

void Notifier::showFolder(const Subject& subject) {
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(bus_, &made, "org.freedesktop.FileManager1",
                                       "/org/freedesktop/FileManager1",
                                       "org.freedesktop.FileManager1", "ShowFolders"),
        "begin a call");
  const MessagePtr call(made);
  const std::string folder = subject.path == "/" ? mountPoint_ : mountPoint_ + subject.path;
  check(sd_bus_message_append(call.get(), "ass", 1, fileAddress(folder).c_str(), ""),
        "fill a call");
  check(sd_bus_message_set_expect_reply(call.get(), 0), "fill a call");
  send(call.get());
}

}  // namespace kestrune::desktop
