#include "nautilus/MountedFolders.h"

#include <cstring>
#include <utility>

namespace kestrune::nautilus {

namespace {

constexpr const char* kBusName = "com.orvanta.Kestrune1";
constexpr const char* kHostPrefix = "com.orvanta.Kestrune1.m";
constexpr const char* kObject = "/com/orvanta/Kestrune1/mount";
constexpr const char* kInterface = "com.orvanta.Kestrune1.Mount";
constexpr int kPatienceMilliseconds = 5'000;

struct VariantEnd {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantEnd>;

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// A question on its way, and what becomes of its answer; nothing where the asking object has gone.
using Answered = std::function<void(GVariant* answer, const GError* error)>;

void finished(GObject* source, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<Answered> answered(static_cast<Answered*>(data));
  GError* error = nullptr;
  const VariantPtr answer(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
  if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) (*answered)(answer.get(), error);
  g_clear_error(&error);
}

}  // namespace

struct MountedFolders::Callbacks {
  static void connected(GObject*, GAsyncResult* result, gpointer data) {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_finish(result, &error);
    const bool isEnded = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE;
    g_clear_error(&error);
    if (!isEnded) static_cast<MountedFolders*>(data)->connected(bus);
  }

  static void owned(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                    GVariant* arguments, gpointer data) {
    const char* name = nullptr;
    const char* old = nullptr;
    const char* now = nullptr;
    g_variant_get(arguments, "(&s&s&s)", &name, &old, &now);
    if (!g_str_has_prefix(name, kHostPrefix)) return;
    auto& self = *static_cast<MountedFolders*>(data);
    if (*now != '\0') return self.askWhere(name);
    self.hostEnded(name);
  }

  static void statesChanged(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                            const gchar*, GVariant* arguments, gpointer data) {
    auto& self = *static_cast<MountedFolders*>(data);
    const char* folder = nullptr;
    g_variant_get(arguments, "(^&ay)", &folder);
    // Signals come from the connection, whose name hosts make theirs of.
    std::string host = std::string(kHostPrefix) + (sender + 1);
    for (char& byte : host) {
      if (&byte - host.data() >= static_cast<std::ptrdiff_t>(strlen(kHostPrefix)) && byte == '.')
        byte = '_';
    }
    const auto mount = self.mounts_.find(host);
    if (mount == self.mounts_.end()) return;
    const auto found = mount->second.folders.find(folder);
    if (found == mount->second.folders.end()) return;
    found->second.isStale = true;
    self.askFolder(host, folder);
  }
};

MountedFolders::MountedFolders(std::function<void(const std::string& path)> changed)
    : changed_(std::move(changed)), ended_(g_cancellable_new()) {
  g_bus_get(G_BUS_TYPE_SESSION, ended_, &Callbacks::connected, this);
}

MountedFolders::~MountedFolders() {
  g_cancellable_cancel(ended_);
  for (const guint subscription : subscriptions_)
    g_dbus_connection_signal_unsubscribe(bus_, subscription);
  g_clear_object(&bus_);
  g_object_unref(ended_);
}

// ------------------------------------------------------------------------------------------ mounts

void MountedFolders::connected(GDBusConnection* bus) {
  --unanswered_;
  bus_ = bus;
  if (bus_ == nullptr) return answerWaiting();
  subscriptions_.push_back(g_dbus_connection_signal_subscribe(
      bus_, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", nullptr, kBusName,
      G_DBUS_SIGNAL_FLAGS_MATCH_ARG0_NAMESPACE, &Callbacks::owned, this, nullptr));
  subscriptions_.push_back(g_dbus_connection_signal_subscribe(
      bus_, nullptr, kInterface, "StatesChanged", kObject, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      &Callbacks::statesChanged, this, nullptr));
  ++unanswered_;
  auto* answered = new Answered([this](GVariant* answer, const GError*) {
    --unanswered_;
    if (answer != nullptr) {
      GVariantIter* names = nullptr;
      const char* name = nullptr;
      g_variant_get(answer, "(as)", &names);
      while (g_variant_iter_next(names, "&s", &name) != FALSE) {
        if (g_str_has_prefix(name, kHostPrefix)) askWhere(name);
      }
      g_variant_iter_free(names);
    }
    answerWaiting();
  });
  g_dbus_connection_call(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "ListNames", nullptr, G_VARIANT_TYPE("(as)"),
                         G_DBUS_CALL_FLAGS_NONE, kPatienceMilliseconds, ended_, &finished,
                         answered);
}

void MountedFolders::askWhere(const std::string& host) {
  ++unanswered_;
  auto* answered = new Answered([this, host](GVariant* answer, const GError*) {
    --unanswered_;
    if (answer != nullptr) {
      GVariant* inner = nullptr;
      g_variant_get(answer, "(v)", &inner);
      const VariantPtr value(inner);
      if (g_variant_is_of_type(inner, G_VARIANT_TYPE_BYTESTRING) != FALSE)
        mountIs(host, g_variant_get_bytestring(inner));
    }
    answerWaiting();
  });
  g_dbus_connection_call(bus_, host.c_str(), kObject, "org.freedesktop.DBus.Properties", "Get",
                         g_variant_new("(ss)", kInterface, "MountPoint"), G_VARIANT_TYPE("(v)"),
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, kPatienceMilliseconds, ended_, &finished,
                         answered);
}

void MountedFolders::mountIs(const std::string& host, std::string mountPoint) {
  mounts_[host] = {std::move(mountPoint), {}};
}

void MountedFolders::hostEnded(const std::string& host) {
  mounts_.erase(host);
  answerWaiting();
}

std::optional<Place> MountedFolders::find(const std::string& path) const {
  for (const auto& [host, mount] : mounts_) {
    const std::string& point = mount.mountPoint;
    if (path == point) return Place{host, "/"};
    if (path.size() > point.size() && path.starts_with(point) && path[point.size()] == '/')
      return Place{host, path.substr(point.size())};
  }
  return std::nullopt;
}

// ----------------------------------------------------------------------------------------- folders

const EntryState* MountedFolders::known(const std::string& path) const {
  const auto place = find(path);
  if (!place || place->path == "/") return nullptr;
  const auto& folders = mounts_.at(place->host).folders;
  const auto folder = folders.find(folderOf(place->path));
  if (folder == folders.end()) return nullptr;
  const auto& told = folder->second.states;
  if (!told) return nullptr;
  const FolderStates& states = *told;
  const auto entry = states.find(nameOf(path));
  return entry == states.end() ? nullptr : &entry->second;
}

MountedFolders::Token MountedFolders::ask(const std::string& path,
                                          std::function<void(const EntryState* state)> reply) {
  const auto place = find(path);
  const bool isNobodys = !place && unanswered_ == 0;
  if (isNobodys || (place && place->path == "/") || known(path) != nullptr) {
    reply(known(path));
    return 0;
  }
  waiting_.push_back({++lastToken_, path, std::move(reply)});
  if (place) askFolder(place->host, folderOf(place->path));
  return lastToken_;
}

void MountedFolders::forget(Token token) {
  waiting_.remove_if([token](const Waiting& waiting) { return waiting.token == token; });
}

void MountedFolders::askFolder(const std::string& host, const std::string& folder) {
  Folder& asked = mounts_.at(host).folders[folder];
  if (asked.isAsked) return;
  asked.isAsked = true;
  asked.isStale = false;
  auto* answered = new Answered([this, host, folder](GVariant* answer, const GError*) {
    FolderStates states;  // none where it cannot be had
    if (answer != nullptr) {
      GVariantIter* entries = nullptr;
      g_variant_get(answer, "(a(aysb))", &entries);
      const char* name = nullptr;
      const char* word = nullptr;
      gboolean isKept = FALSE;
      while (g_variant_iter_next(entries, "(^&ay&sb)", &name, &word, &isKept) != FALSE)
        states.insert_or_assign(name, EntryState{word, isKept != FALSE});
      g_variant_iter_free(entries);
    }
    folderIs(host, folder, std::move(states));
  });
  g_dbus_connection_call(bus_, host.c_str(), kObject, kInterface, "FolderStates",
                         g_variant_new("(^ay)", folder.c_str()), G_VARIANT_TYPE("(a(aysb))"),
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, ended_, &finished, answered);
}

void MountedFolders::folderIs(const std::string& host, const std::string& folder,
                              FolderStates states) {
  const auto mount = mounts_.find(host);
  if (mount == mounts_.end()) return;
  Folder& asked = mount->second.folders[folder];
  asked.isAsked = false;
  const FolderStates before = asked.states.value_or(FolderStates());
  asked.states = std::move(states);
  const bool isStale = asked.isStale;
  const std::string base = mount->second.mountPoint + (folder == "/" ? "/" : folder + "/");
  const FolderStates now = asked.states.value_or(FolderStates());
  answerWaiting();
  if (!before.empty()) {
    for (const auto& [name, state] : now) {
      const auto old = before.find(name);
      if (old == before.end() || !(old->second == state)) changed_(base + name);
    }
  }
  if (isStale && mounts_.contains(host)) askFolder(host, folder);
}

// Who waits for a folder that is known by now, or for one that turned out to be nobody's.
void MountedFolders::answerWaiting() {
  std::list<Waiting> answered;
  for (auto at = waiting_.begin(); at != waiting_.end();) {
    const auto next = std::next(at);
    const auto place = find(at->path);
    if (place) {
      const std::string folder = folderOf(place->path);
      const Folder& asked = mounts_.at(place->host).folders[folder];
      if (place->path == "/" || asked.states) {
        answered.splice(answered.end(), waiting_, at);
      } else {
        askFolder(place->host, folder);
      }
    } else if (unanswered_ == 0) {
      answered.splice(answered.end(), waiting_, at);
    }
    at = next;
  }
  for (const Waiting& waiting : answered) waiting.reply(known(waiting.path));
}

void MountedFolders::call(const char* method, const std::vector<Place>& places,
                          const char* answerType, Reply reply) {
  if (places.empty() || bus_ == nullptr) return;
  GVariantBuilder paths;
  g_variant_builder_init(&paths, G_VARIANT_TYPE("aay"));
  for (const Place& place : places) g_variant_builder_add(&paths, "^ay", place.path.c_str());
  g_dbus_connection_call(bus_, places[0].host.c_str(), kObject, kInterface, method,
                         g_variant_new("(aay)", &paths), G_VARIANT_TYPE(answerType),
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, ended_, &finished,
                         new Answered(std::move(reply)));
}

}  // namespace kestrune::nautilus
