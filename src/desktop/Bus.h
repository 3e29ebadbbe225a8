// sd-bus in the shapes of this room: what is held is given back, and bytes go in and out of messages in one way.
//
// File names are bytes and D-Bus texts are UTF-8, so names and paths travel as "ay", with a zero byte at the end as GLib's
// byte strings have it. What comes in may lack that byte.
//
// Threads: an sd_bus and everything that belongs to it is used by one thread.
// Fails: std::system_error where sd-bus refuses, which here means that memory ran out or the connection has gone.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrune::desktop {

struct GiveBack {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusPtr = std::unique_ptr<sd_bus, GiveBack>;
using MessagePtr = std::unique_ptr<sd_bus_message, GiveBack>;
using SlotPtr = std::unique_ptr<sd_bus_slot, GiveBack>;

inline constexpr const char* kBusName = "com.orvanta.Kestrune1";
inline constexpr const char* kMountInterface = "com.orvanta.Kestrune1.Mount";
inline constexpr const char* kMountPath = "/com/orvanta/Kestrune1/mount";
inline constexpr const char* kManagerInterface = "com.orvanta.Kestrune1.Manager";
inline constexpr const char* kManagerPath = "/com/orvanta/Kestrune1";

/// Returns `result`; throws if it is negative.
int check(int result, const char* what);

/// The call itself, kept to be answered later.
MessagePtr keep(sd_bus_message* call);
MessagePtr replyTo(sd_bus_message* call);
void send(sd_bus_message* message);

/// Has `changed` called with each NameOwnerChanged of `name`: who offers it came, went, or is another one now.
SlotPtr listenForOwners(sd_bus* bus, const char* name, sd_bus_message_handler_t changed,
                        void* data);
/// Whether somebody offers it now, by such a signal.
bool hasOwner(sd_bus_message* changed);

void appendBytes(sd_bus_message* message, const std::string& bytes);
/// Texts of messages are UTF-8 without zero bytes, whatever came from elsewhere.
std::string text(const std::string& any);
/// Negative, as sd-bus has it, where the message holds something else.
int readBytes(sd_bus_message* message, std::string& bytes);
int readPaths(sd_bus_message* message, std::vector<std::string>& paths);

}  // namespace kestrune::desktop
