// The extension of GNOME's file manager: emblems and menu entries in mounted folders. Loaded into the file manager's own
// process, so it waits for nothing and throws nothing.
#include <gtk/gtk.h>

extern "C" {
#include <nautilus-extension.h>
}

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "nautilus/MountedFolders.h"

namespace {

using kestrune::nautilus::EntryState;
using kestrune::nautilus::MountedFolders;
using kestrune::nautilus::Place;

struct Provider {
  GObject parent;
};
struct ProviderClass {
  GObjectClass parent;
};

GType providerType = 0;

std::string pathOf(NautilusFileInfo* file) {
  GFile* location = nautilus_file_info_get_location(file);
  char* path = location == nullptr ? nullptr : g_file_get_path(location);
  std::string text = path == nullptr ? "" : path;
  g_free(path);
  g_clear_object(&location);
  return text;
}

void invalidate(const std::string& path) {
  GFile* location = g_file_new_for_path(path.c_str());
  NautilusFileInfo* file = nautilus_file_info_lookup(location);
  if (file != nullptr) {
    nautilus_file_info_invalidate_extension_info(file);
    g_object_unref(file);
  }
  g_object_unref(location);
}

/// One for the process, which it lives as long as: made with the module.
MountedFolders& folders() {
  static auto* const shared = new MountedFolders(&invalidate);
  return *shared;
}

// ----------------------------------------------------------------------------------------- emblems

void addEmblem(NautilusFileInfo* file, const EntryState* state) {
  if (state == nullptr || state->word == "folder") return;
  nautilus_file_info_add_emblem(file, ("emblem-kestrune-" + state->word + "-symbolic").c_str());
}

/// The file manager only gives it back.
NautilusOperationHandle* handleOf(MountedFolders::Token token) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): nothing lies there
  return reinterpret_cast<NautilusOperationHandle*>(token);
}

/// What is asked about one file until it is answered.
class Update {
 public:
  Update(NautilusInfoProvider* asked, NautilusFileInfo* about, GClosure* ended)
      : provider(asked),
        file(static_cast<NautilusFileInfo*>(g_object_ref(about))),
        complete(g_closure_ref(ended)) {}
  ~Update() {
    g_object_unref(file);
    g_closure_unref(complete);
  }
  Update(const Update&) = delete;
  Update& operator=(const Update&) = delete;

  NautilusInfoProvider* const provider;
  NautilusFileInfo* const file;
  GClosure* const complete;
  MountedFolders::Token token = 0;
};

NautilusOperationResult updateFileInfo(NautilusInfoProvider* provider, NautilusFileInfo* file,
                                       GClosure* complete, NautilusOperationHandle** handle) {
  const std::string path = pathOf(file);
  if (path.empty()) return NAUTILUS_OPERATION_COMPLETE;
  auto update = std::make_shared<Update>(provider, file, complete);
  const auto token = folders().ask(path, [update](const EntryState* state) {
    addEmblem(update->file, state);
    if (update->token == 0) return;  // answered at once
    nautilus_info_provider_update_complete_invoke(
        update->complete, update->provider, handleOf(update->token), NAUTILUS_OPERATION_COMPLETE);
  });
  if (token == 0) return NAUTILUS_OPERATION_COMPLETE;
  update->token = token;
  *handle = handleOf(token);
  return NAUTILUS_OPERATION_IN_PROGRESS;
}

void cancelUpdate(NautilusInfoProvider*, NautilusOperationHandle* handle) {
  folders().forget(reinterpret_cast<MountedFolders::Token>(handle));
}

// -------------------------------------------------------------------------------------------- menu

void show(const std::string& title, const std::string& text) {
  GtkWidget* dialog =
      gtk_message_dialog_new(nullptr, static_cast<GtkDialogFlags>(0), GTK_MESSAGE_WARNING,
                             GTK_BUTTONS_CLOSE, "%s", title.c_str());
  gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s", text.c_str());
  g_signal_connect(dialog, "response", G_CALLBACK(gtk_window_destroy), nullptr);
  gtk_window_present(GTK_WINDOW(dialog));
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

void copyLinks(const std::vector<Place>& places) {
  folders().call("Links", places, "(a(ss))", [](GVariant* answer, const GError* error) {
    if (answer == nullptr) return show("The link could not be copied", error->message);
    std::vector<std::string> links;
    std::vector<std::string> failures;
    GVariantIter* each = nullptr;
    const char* link = nullptr;
    const char* why = nullptr;
    g_variant_get(answer, "(a(ss))", &each);
    while (g_variant_iter_next(each, "(&s&s)", &link, &why) != FALSE) {
      if (*link != '\0') links.emplace_back(link);
      if (*why != '\0') failures.emplace_back(why);
    }
    g_variant_iter_free(each);
    if (!links.empty())
      gdk_clipboard_set_text(gdk_display_get_clipboard(gdk_display_get_default()),
                             joined(links).c_str());
    if (!failures.empty()) show("Some links could not be copied", joined(failures));
  });
}

void act(const char* method, const std::vector<Place>& places) {
  folders().call(method, places, "(as)", [](GVariant* answer, const GError* error) {
    if (answer == nullptr) return show("That could not be done", error->message);
    std::vector<std::string> failures;
    GVariantIter* each = nullptr;
    const char* why = nullptr;
    g_variant_get(answer, "(as)", &each);
    while (g_variant_iter_next(each, "&s", &why) != FALSE) {
      if (*why != '\0') failures.emplace_back(why);
    }
    g_variant_iter_free(each);
    if (!failures.empty()) show("That could not be done for all files", joined(failures));
  });
}

struct Entry {
  const char* name;
  const char* label;
  /// Null: links are copied.
  const char* method;
};

void activated(NautilusMenuItem* item, gpointer method) {
  const auto* places =
      static_cast<const std::vector<Place>*>(g_object_get_data(G_OBJECT(item), "kestrune-places"));
  if (method == nullptr) return copyLinks(*places);
  act(static_cast<const char*>(method), *places);
}

NautilusMenuItem* itemFor(const Entry& entry, const std::vector<Place>& places) {
  NautilusMenuItem* item = nautilus_menu_item_new(entry.name, entry.label, nullptr, nullptr);
  g_object_set_data_full(G_OBJECT(item), "kestrune-places", new std::vector<Place>(places),
                         [](gpointer data) { delete static_cast<std::vector<Place>*>(data); });
  g_signal_connect(item, "activate", G_CALLBACK(activated), const_cast<char*>(entry.method));
  return item;
}

GList* fileItems(NautilusMenuProvider*, GList* files) {
  std::vector<Place> places;
  bool anyKept = false;
  bool anyUnkept = false;
  bool anyHere = false;
  for (GList* at = files; at != nullptr; at = at->next) {
    const std::string path = pathOf(NAUTILUS_FILE_INFO(at->data));
    auto place = folders().find(path);
    // Nothing is offered for a selection that is not all of one mount.
    if (!place || place->path == "/" || (!places.empty() && places[0].host != place->host))
      return nullptr;
    places.push_back(std::move(*place));
    const EntryState* state = folders().known(path);
    const bool isFolder = nautilus_file_info_is_directory(NAUTILUS_FILE_INFO(at->data)) != FALSE;
    // Of a folder it is not known what of it is kept: everything is offered.
    anyKept = anyKept || isFolder || (state != nullptr && state->isKept);
    anyUnkept = anyUnkept || isFolder || state == nullptr || !state->isKept;
    anyHere = anyHere || isFolder || state == nullptr || state->word != "online-only";
  }
  if (places.empty()) return nullptr;
  GList* items = nullptr;
  const auto add = [&](bool isOffered, const Entry& entry) {
    if (isOffered) items = g_list_append(items, itemFor(entry, places));
  };
  add(true, {"Kestrune::link", "Copy Web _Link", nullptr});
  add(anyUnkept, {"Kestrune::pin", "Download _Now and Keep", "Pin"});
  add(anyKept, {"Kestrune::unpin", "Stop _Keeping", "Unpin"});
  add(anyHere, {"Kestrune::evict", "Make Online-Onl_y", "Evict"});
  return items;
}

// ------------------------------------------------------------------------------------------ module

void becomeInfoProvider(gpointer interface, gpointer) {
  auto* provider = static_cast<NautilusInfoProviderInterface*>(interface);
  provider->update_file_info = &updateFileInfo;
  provider->cancel_update = &cancelUpdate;
}

void becomeMenuProvider(gpointer interface, gpointer) {
  static_cast<NautilusMenuProviderInterface*>(interface)->get_file_items = &fileItems;
}

}  // namespace

extern "C" {

G_MODULE_EXPORT void nautilus_module_initialize(GTypeModule* module) {
  const GTypeInfo type = {sizeof(ProviderClass), nullptr, nullptr, nullptr, nullptr, nullptr,
                          sizeof(Provider),      0,       nullptr, nullptr};
  providerType = g_type_module_register_type(module, G_TYPE_OBJECT, "KestruneProvider", &type,
                                             static_cast<GTypeFlags>(0));
  const GInterfaceInfo info = {&becomeInfoProvider, nullptr, nullptr};
  g_type_module_add_interface(module, providerType, NAUTILUS_TYPE_INFO_PROVIDER, &info);
  const GInterfaceInfo menu = {&becomeMenuProvider, nullptr, nullptr};
  g_type_module_add_interface(module, providerType, NAUTILUS_TYPE_MENU_PROVIDER, &menu);
  folders();
}

G_MODULE_EXPORT void nautilus_module_shutdown() {}

G_MODULE_EXPORT void nautilus_module_list_types(const GType** types, int* count) {
  *types = &providerType;
  *count = 1;
}

}  // extern "C"
