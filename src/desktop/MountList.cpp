#include "desktop/MountList.h"

#include <algorithm>
#include <string_view>
#include <system_error>

namespace kestrune::desktop {

namespace {

constexpr std::string_view kHostPrefix = "com.orvanta.Kestrune1.m";

}  // namespace

struct MountList::Handlers {
  static int mounts(sd_bus_message* call, void* data, sd_bus_error* error) {
    try {
      static_cast<MountList*>(data)->gather(call);
      return 1;
    } catch (const std::exception& thrown) {
      return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "%s", text(thrown.what()).c_str());
    }
  }

  static int named(sd_bus_message* answer, void* data, sd_bus_error*) {
    auto& gathering = *static_cast<Gathering*>(data);
    return guarded([&] {
      std::vector<std::string> names;
      const char* name = nullptr;
      if (sd_bus_message_is_method_error(answer, nullptr) == 0 &&
          sd_bus_message_enter_container(answer, 'a', "s") >= 0) {
        while (sd_bus_message_read_basic(answer, 's', &name) > 0) names.emplace_back(name);
      }
      for (const std::string& each : names) {
        if (isNameOfHost(each) && each != gathering.list.ownName_) ask(gathering, each);
      }
      if (gathering.left == 0) gathering.list.finish(gathering);
    });
  }

  static int told(sd_bus_message* answer, void* data, sd_bus_error*) {
    const auto& question = *static_cast<const Gathering::Question*>(data);
    Gathering& gathering = question.gathering;
    return guarded([&] {
      std::string mountPoint;
      if (sd_bus_message_is_method_error(answer, nullptr) == 0 &&
          sd_bus_message_enter_container(answer, 'v', "ay") >= 0 &&
          readBytes(answer, mountPoint) >= 0) {
        gathering.found.emplace_back(question.name, mountPoint);
      }
      if (--gathering.left == 0) gathering.list.finish(gathering);
    });
  }

  // Only a connection that has gone throws here; its end is seen by who serves it.
  template <class Work>
  static int guarded(Work&& work) {
    try {
      work();
      return 1;
    } catch (const std::system_error& error) {
      return -error.code().value();
    }
  }
};

MountList::MountList(sd_bus* bus, std::string ownName, std::string mountPoint)
    : bus_(bus), ownName_(std::move(ownName)), mountPoint_(std::move(mountPoint)) {
  static const sd_bus_vtable kTable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("Mounts", SD_BUS_NO_ARGS, SD_BUS_RESULT("a(soay)", mounts),
                              Handlers::mounts, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  sd_bus_slot* slot = nullptr;
  check(sd_bus_add_object_vtable(bus_, &slot, kManagerPath, kManagerInterface, kTable, this),
        "show the list of mounts on the bus");
  slot_.reset(slot);
}

std::string MountList::nameFor(const char* uniqueName) {
  std::string name(uniqueName);
  name.erase(0, 1);
  std::replace(name.begin(), name.end(), '.', '_');
  return std::string(kHostPrefix) + name;
}

bool MountList::isNameOfHost(const std::string& name) { return name.starts_with(kHostPrefix); }

void MountList::gather(sd_bus_message* call) {
  Gathering& gathering = gatherings_.emplace_back(*this, keep(call));
  gathering.found.emplace_back(ownName_, mountPoint_);
  sd_bus_slot* slot = nullptr;
  check(sd_bus_call_method_async(bus_, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "ListNames", Handlers::named, &gathering,
                                 nullptr),
        "ask for names on the bus");
  gathering.slot.reset(slot);
}

void MountList::ask(Gathering& gathering, std::string name) {
  sd_bus* const bus = gathering.list.bus_;
  auto& question = gathering.questions.emplace_back(gathering, std::move(name));
  sd_bus_message* made = nullptr;
  sd_bus_slot* slot = nullptr;
  check(sd_bus_message_new_method_call(bus, &made, question.name.c_str(), kMountPath,
                                       "org.freedesktop.DBus.Properties", "Get"),
        "begin a question");
  const MessagePtr call(made);
  check(sd_bus_message_append(call.get(), "ss", kMountInterface, "MountPoint"), "ask a host");
  check(sd_bus_call_async(bus, &slot, call.get(), Handlers::told, &question, kPatienceMicroseconds),
        "ask a host");
  question.slot.reset(slot);
  ++gathering.left;
}

void MountList::finish(Gathering& gathering) {
  const MessagePtr reply = replyTo(gathering.call.get());
  check(sd_bus_message_open_container(reply.get(), 'a', "(soay)"), "answer");
  for (const auto& [name, mountPoint] : gathering.found) {
    check(sd_bus_message_open_container(reply.get(), 'r', "soay"), "answer");
    check(sd_bus_message_append(reply.get(), "so", name.c_str(), kMountPath), "answer");
    appendBytes(reply.get(), mountPoint);
    check(sd_bus_message_close_container(reply.get()), "answer");
  }
  check(sd_bus_message_close_container(reply.get()), "answer");
  send(reply.get());
  gatherings_.remove_if([&](const Gathering& other) { return &other == &gathering; });
}

}  // namespace kestrune::desktop
