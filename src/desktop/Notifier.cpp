#include "desktop/Notifier.h"

#include <system_error>
#include <utility>

namespace kestrune::desktop {

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kObject = "/org/freedesktop/Notifications";

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
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
    if (sd_bus_message_is_method_error(answer, nullptr) == 0)
      sd_bus_message_read(answer, "u", &subject.id);
    return 1;
  }

  static int clicked(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto& self = *static_cast<Notifier*>(data);
    std::uint32_t id = 0;
    if (sd_bus_message_read(signal, "u", &id) < 0 || id == 0) return 0;
    try {
      for (const Subject* subject : {&self.conflict_, &self.refusal_, &self.signedOut_}) {
        if (subject->id == id) self.showFolder(*subject);
      }
    } catch (const std::system_error& error) {
      return -error.code().value();
    }
    return 0;
  }
};

Notifier::Notifier(sd_bus* bus, std::string mountPoint)
    : bus_(bus), mountPoint_(std::move(mountPoint)) {
  sd_bus_slot* slot = nullptr;
  check(sd_bus_match_signal_async(bus_, &slot, kService, kObject, kService, "ActionInvoked",
                                  &Handlers::clicked, nullptr, this),
        "listen for clicks");
  clicks_.reset(slot);
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
  if (std::exchange(isSignedOut_, condition.isSignedOut) != condition.isSignedOut && isSignedOut_)
    notify(signedOut_, "Kestrune is signed out",
           "Nothing is sent or fetched before a new token is set with \"kestrune configure\".",
           "/");
  std::set<std::string> refused;
  const host::PendingChange* newest = nullptr;
  for (const host::PendingChange& change : pending.changes) {
    if (!change.isRefused || (change.attempts < kRefusals && !refused_.contains(change.path)))
      continue;
    refused.insert(change.path);
    if (!refused_.contains(change.path)) newest = &change;
  }
  refused_ = std::move(refused);
  // Who is signed out is told that, and not that each of a thousand files is refused.
  if (newest == nullptr || isSignedOut_) return;
  const std::string more =
      refused_.size() == 1 ? "" : " and " + std::to_string(refused_.size() - 1) + " more";
  notify(refusal_, "\"" + nameOf(newest->path) + "\"" + more + " cannot be sent",
         newest->reason + ". It exists on this machine alone until then.", folderOf(newest->path));
}

void Notifier::notify(Subject& subject, const std::string& summary, const std::string& body,
                      std::string path) {
  subject.path = std::move(path);
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(bus_, &made, kService, kObject, kService, "Notify"),
        "begin a notification");
  const MessagePtr call(made);
  check(sd_bus_message_append(call.get(), "susssasa{sv}i", "Kestrune", subject.id, "folder-remote",
                              text(summary).c_str(), escaped(body).c_str(), 2, "default",
                              "Open the folder", 0, -1),
        "fill a notification");
  sd_bus_slot* slot = nullptr;
  check(sd_bus_call_async(bus_, &slot, call.get(), &Handlers::shown, &subject, 0),
        "send a notification");
  subject.slot.reset(slot);
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
