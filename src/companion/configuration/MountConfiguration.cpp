#include "companion/configuration/MountConfiguration.h"

#include <initializer_list>

#include "companion/configuration/CommandError.h"
#include "config/StorageLocations.h"
#include "platform/files/AtomicFile.h"
#include "platform/log/Log.h"
#include "platform/values/Json.h"
#include "platform/values/NSError.h"

namespace kestrune {

using platform::Json;
using platform::NSError;

namespace {

constexpr std::string_view kFileName = "mount.json";
constexpr std::uint64_t kMaximumBytes = 1U << 20U;
constexpr const char* kPrograms = "programsWithoutDownloads";

/// Says what is wrong with the file.
class Complaint {
 public:
  explicit Complaint(const std::filesystem::path& file) : file_(file) {}
  [[noreturn]] void operator()(const std::string& what) const {
    throw CommandError("The settings in '" + platform::escapeForDisplay(file_.string()) +
                       "' cannot be used: " + platform::escapeForDisplay(what) +
                       ". Correct or remove the file.");
  }

 private:
  const std::filesystem::path& file_;
};

void requireObject(const Json& value, const std::string& name,
                   std::initializer_list<std::string_view> keys, const Complaint& complain) {
  if (!value.is_object()) complain(name + " is not an object");
  for (const auto& [key, ignored] : value.items()) {
    bool isKnown = false;
    for (const auto known : keys) isKnown = isKnown || key == known;
    if (!isKnown) complain(std::string(name).append(" has no key \"").append(key).append("\""));
  }
}

std::set<std::string> namesIn(const Json& object, const char* key, const Complaint& complain) {
  std::set<std::string> names;
  const auto found = object.find(key);
  if (found == object.end()) return names;
  const std::string expected = std::string("\"") + key + "\" is not a list of executables' names";
  if (!found->is_array()) complain(expected);
  for (const auto& name : *found) {
    if (!name.is_string()) complain(expected);
    auto text = name.get<std::string>();
    if (text.empty() || text.find('/') != std::string::npos)
      complain("\"" + text + "\" is not the name of an executable (without its directory)");
    names.insert(std::move(text));
  }
  return names;
}

}  // namespace

MountConfiguration MountConfiguration::decode(std::string_view text,
                                              const std::filesystem::path& file) {
  const Complaint complain(file);
  Json record;
  try {
    record = platform::decodeJson(text);
  } catch (const NSError& error) {
    complain(error.localizedDescription());
  }
  requireObject(record, "the file", {kPrograms}, complain);
  MountConfiguration configuration;
  const auto programs = record.find(kPrograms);
  if (programs == record.end()) return configuration;
  requireObject(*programs, std::string("\"") + kPrograms + "\"", {"add", "remove"}, complain);
  configuration.addedLookersOn = namesIn(*programs, "add", complain);
  configuration.removedLookersOn = namesIn(*programs, "remove", complain);
  return configuration;
}

MountConfiguration MountConfiguration::read() {
  const auto file = storage::sharedDirectory() / kFileName;
  std::error_code unknown;
  if (!std::filesystem::exists(file, unknown) && !unknown) return {};
  std::string text;
  try {
    text = platform::readFile(file, kMaximumBytes);
  } catch (const NSError& error) {
    Complaint complain(file);
    complain(error.localizedDescription());
  }
  return decode(text, file);
}

std::set<std::string> MountConfiguration::lookersOn(std::set<std::string> list) const {
  list.insert(addedLookersOn.begin(), addedLookersOn.end());
  for (const auto& name : removedLookersOn) list.erase(name);
  return list;
}

}  // namespace kestrune
