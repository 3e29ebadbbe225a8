#include "desktop/Bus.h"

#include <system_error>

#include "platform/log/Log.h"
#include "platform/values/UTF8.h"

namespace kestrune::desktop {

int check(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
  return result;
}

MessagePtr keep(sd_bus_message* call) { return MessagePtr(sd_bus_message_ref(call)); }

MessagePtr replyTo(sd_bus_message* call) {
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_return(call, &made), "begin an answer");
  return MessagePtr(made);
}

void send(sd_bus_message* message) {
  check(sd_bus_send(sd_bus_message_get_bus(message), message, nullptr), "send a message");
}

SlotPtr listenForOwners(sd_bus* bus, const char* name, sd_bus_message_handler_t changed,
                        void* data) {
  const std::string match =
      "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
      "member='NameOwnerChanged',arg0='" +
      std::string(name) + "'";
  sd_bus_slot* slot = nullptr;
  check(sd_bus_add_match_async(bus, &slot, match.c_str(), changed, nullptr, data),
        "listen for who offers a name");
  return SlotPtr(slot);
}

bool hasOwner(sd_bus_message* changed) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* now = nullptr;
  return sd_bus_message_read(changed, "sss", &name, &before, &now) >= 0 && *now != '\0';
}

void appendBytes(sd_bus_message* message, const std::string& bytes) {
  check(sd_bus_message_append_array(message, 'y', bytes.c_str(), bytes.size() + 1), "add bytes");
}

std::string text(const std::string& any) {
  const bool isText = platform::isValidUTF8(any) && any.find('\0') == std::string::npos;
  return isText ? any : platform::escapeForDisplay(any);
}

int readBytes(sd_bus_message* message, std::string& bytes) {
  const void* data = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(message, 'y', &data, &size);
  if (result < 0) return result;
  bytes.assign(static_cast<const char*>(data), size);
  if (!bytes.empty() && bytes.back() == '\0') bytes.pop_back();
  return result;
}

int readPaths(sd_bus_message* message, std::vector<std::string>& paths) {
  int result = sd_bus_message_enter_container(message, 'a', "ay");
  while (result >= 0) {
    std::string path;
    if (sd_bus_message_at_end(message, 0) > 0) return sd_bus_message_exit_container(message);
    result = readBytes(message, path);
    paths.push_back(std::move(path));
  }
  return result;
}

}  // namespace kestrune::desktop
