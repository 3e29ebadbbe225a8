#include "desktop/test/FakeLogind.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace kestrune::desktop::test {

namespace {

constexpr const char* kName = "org.freedesktop.login1";
constexpr const char* kObject = "/org/freedesktop/login1";
constexpr const char* kInterface = "org.freedesktop.login1.Manager";

}  // namespace

FakeLogind::FakeLogind(sd_bus* bus) : bus_(bus) {
  static const sd_bus_vtable kTable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Inhibit", "ssss", "h", inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL("PrepareForShutdown", "b", 0), SD_BUS_VTABLE_END};
  sd_bus_slot* slot = nullptr;
  check(sd_bus_add_object_vtable(bus, &slot, kObject, kInterface, kTable, this), "add");
  slot_.reset(slot);
  check(sd_bus_request_name(bus, kName, 0), "own");
}

FakeLogind::~FakeLogind() { sd_bus_release_name(bus_, kName); }

std::size_t FakeLogind::held() const {
  return static_cast<std::size_t>(std::count_if(locks_.begin(), locks_.end(), [](const auto& lock) {
    pollfd polled = {lock->number(), POLLIN, 0};
    return ::poll(&polled, 1, 0) == 0;
  }));
}

void FakeLogind::prepareForShutdown(bool isGoingDown) {
  check(
      sd_bus_emit_signal(bus_, kObject, kInterface, "PrepareForShutdown", "b", isGoingDown ? 1 : 0),
      "signal");
}

int FakeLogind::inhibit(sd_bus_message* call, void* data, sd_bus_error* error) {
  auto& self = *static_cast<FakeLogind*>(data);
  const char* what = nullptr;
  const char* who = nullptr;
  const char* why = nullptr;
  const char* mode = nullptr;
  const int result = sd_bus_message_read(call, "ssss", &what, &who, &why, &mode);
  if (result < 0) return result;
  self.requests.push_back({what, who, why, mode});
  if (self.refuses) return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "not for you");
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return -errno;
  self.locks_.push_back(std::make_unique<host::Descriptor>(ends[0]));
  const host::Descriptor given(ends[1]);
  return sd_bus_reply_method_return(call, "h", given.number());
}

}  // namespace kestrune::desktop::test
