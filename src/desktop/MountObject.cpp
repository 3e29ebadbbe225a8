#include "desktop/MountObject.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "desktop/ConditionText.h"
#include "desktop/StateWord.h"
#include "host/basics/ErrorToErrno.h"
#include "host/control/ControlRequest.h"

namespace kestrune::desktop {

using host::Answer;
using host::Done;
using host::Each;
using host::HostControl;

namespace {

void refuse(sd_bus_message* call, const platform::NSError& error) {
  sd_bus_reply_method_errnof(call, host::errnoFor(error), "%s",
                             text(error.localizedDescription()).c_str());
}

/// Empty where the path's answer is no error.
template <class T>
std::string errorOf(const Each<T>& answers, std::size_t at) {
  if (at >= answers.size()) return "the host gave no answer for this path";
  return answers[at].ok() ? std::string() : text(answers[at].error()->localizedDescription());
}

}  // namespace

// What sd-bus calls. What is thrown must not reach it, and ends the connection.
struct MountObject::Handlers {
  static MountObject& self(void* data) { return *static_cast<MountObject*>(data); }

  /// Throws nothing: -EINVAL and the like are answered to who called.
  template <class Work>
  static int guarded(sd_bus_error* error, Work&& work) {
    try {
      return work();
    } catch (const std::exception& thrown) {
      return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "%s", text(thrown.what()).c_str());
    }
  }

  static int invalid(sd_bus_error* error) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                            "A path begins with \"/\" at the mount point, without \".\", \"..\" "
                            "and empty parts, and without a slash at the end.");
  }

  static int folderStates(sd_bus_message* call, void* data, sd_bus_error* error) {
    return guarded(error, [&] {
      std::string folder;
      if (const int result = readBytes(call, folder); result < 0) return result;
      if (!host::isControlPath(folder)) return invalid(error);
      self(data).folderStates(call, folder);
      return 1;
    });
  }

  template <class Work>
  static int onPaths(sd_bus_message* call, sd_bus_error* error, Work&& work) {
    return guarded(error, [&] {
      std::vector<std::string> paths;
      if (const int result = readPaths(call, paths); result < 0) return result;
      if (!std::all_of(paths.begin(), paths.end(), host::isControlPath)) return invalid(error);
      work(std::move(paths));
      return 1;
    });
  }
  template <host::ItemAction action>
  static int act(sd_bus_message* call, void* data, sd_bus_error* error) {
    return onPaths(call, error, [&](std::vector<std::string> paths) {
      self(data).act(call, action, std::move(paths));
    });
  }
  static int links(sd_bus_message* call, void* data, sd_bus_error* error) {
    return onPaths(call, error, [&](std::vector<std::string> paths) {
      self(data).links(call, std::move(paths));
    });
  }

  static int mountPoint(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void* data, sd_bus_error* error) {
    return guarded(error, [&] {
      appendBytes(reply, self(data).facts_.mountPoint);
      return 0;
    });
  }
  static int domain(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                    void* data, sd_bus_error*) {
    return sd_bus_message_append(reply, "s", text(self(data).facts_.domainIdentifier).c_str());
  }
  static int version(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                     void* data, sd_bus_error*) {
    return sd_bus_message_append(reply, "s", text(self(data).facts_.version).c_str());
  }
  static int pendingCount(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                          void* data, sd_bus_error*) {
    return sd_bus_message_append(reply, "t", self(data).pendingCount_);
  }
  static int problems(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                      void* data, sd_bus_error*) {
    int result = sd_bus_message_open_container(reply, 'a', "s");
    for (const std::string& problem : self(data).problems_) {
      if (result >= 0) result = sd_bus_message_append(reply, "s", problem.c_str());
    }
    return result < 0 ? result : sd_bus_message_close_container(reply);
  }

  static const sd_bus_vtable* table();
};

const sd_bus_vtable* MountObject::Handlers::table() {
  constexpr auto kFixed = SD_BUS_VTABLE_PROPERTY_CONST;
  constexpr auto kTold = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
  constexpr auto kOpen = SD_BUS_VTABLE_UNPRIVILEGED;
  using enum host::ItemAction;
  static const sd_bus_vtable kTable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("FolderStates", SD_BUS_ARGS("ay", folder),
                              SD_BUS_RESULT("a(aysb)", entries), folderStates, kOpen),
      SD_BUS_METHOD_WITH_ARGS("Pin", SD_BUS_ARGS("aay", paths), SD_BUS_RESULT("as", errors),
                              act<pin>, kOpen),
      SD_BUS_METHOD_WITH_ARGS("Unpin", SD_BUS_ARGS("aay", paths), SD_BUS_RESULT("as", errors),
                              act<unpin>, kOpen),
      SD_BUS_METHOD_WITH_ARGS("Evict", SD_BUS_ARGS("aay", paths), SD_BUS_RESULT("as", errors),
                              act<evict>, kOpen),
      SD_BUS_METHOD_WITH_ARGS("Download", SD_BUS_ARGS("aay", paths), SD_BUS_RESULT("as", errors),
                              act<download>, kOpen),
      SD_BUS_METHOD_WITH_ARGS("Links", SD_BUS_ARGS("aay", paths), SD_BUS_RESULT("a(ss)", links),
                              links, kOpen),
      SD_BUS_SIGNAL_WITH_ARGS("StatesChanged", SD_BUS_ARGS("ay", folder), 0),
      SD_BUS_PROPERTY("MountPoint", "ay", mountPoint, 0, kFixed),
      SD_BUS_PROPERTY("Domain", "s", domain, 0, kFixed),
      SD_BUS_PROPERTY("Version", "s", version, 0, kFixed),
      SD_BUS_PROPERTY("PendingCount", "t", pendingCount, 0, kTold),
      SD_BUS_PROPERTY("Problems", "as", problems, 0, kTold),
      SD_BUS_VTABLE_END};
  return kTable;
}

MountObject::MountObject(sd_bus* bus, HostControl& control, std::shared_ptr<Mailbox> mailbox,
                         const MountFacts& facts, std::function<void()> look)
    : bus_(bus),
      control_(control),
      mailbox_(std::move(mailbox)),
      facts_(facts),
      look_(std::move(look)) {}

void MountObject::begin() {
  sd_bus_slot* slot = nullptr;
  check(sd_bus_add_object_vtable(bus_, &slot, kMountPath, kMountInterface, Handlers::table(), this),
        "show the mount on the bus");
  slot_.reset(slot);
  const auto tryNow = [this] { control_.tryNow("/", [](const Answer<Done>&) {}); };
  notifier_.emplace(bus_, facts_.mountPoint, Notifier::Deeds{look_, tryNow});
}

// ------------------------------------------------------------------------------------------- calls

std::function<void(std::function<void(sd_bus_message*)>)> MountObject::answering(
    sd_bus_message* call) {
  const CallId id = ++lastCall_;
  calls_.emplace(id, keep(call));
  return [mailbox = mailbox_, weak = weak_from_this(),
          id](std::function<void(sd_bus_message*)> answer) {
    mailbox->put([weak, id, answer = std::move(answer)] {
      const auto self = weak.lock();
      if (!self) return;
      if (const auto kept = self->calls_.extract(id)) answer(kept.mapped().get());
    });
  };
}

void MountObject::folderStates(sd_bus_message* call, const std::string& folder) {
  asked_.insert(folder);
  using Entries = std::vector<host::EntryState>;
  control_.folderStates(folder, [put = answering(call)](const Answer<Entries>& answer) {
    put([answer](sd_bus_message* kept) {
      if (!answer.ok()) return refuse(kept, *answer.error());
      const MessagePtr reply = replyTo(kept);
      check(sd_bus_message_open_container(reply.get(), 'a', "(aysb)"), "answer");
      for (const host::EntryState& entry : answer.value()) {
        check(sd_bus_message_open_container(reply.get(), 'r', "aysb"), "answer");
        appendBytes(reply.get(), entry.name);
        const int isKept = entry.state.isPinned ? 1 : 0;
        check(sd_bus_message_append(reply.get(), "sb", stateWord(entry.state), isKept), "answer");
        check(sd_bus_message_close_container(reply.get()), "answer");
      }
      check(sd_bus_message_close_container(reply.get()), "answer");
      send(reply.get());
    });
  });
}

void MountObject::act(sd_bus_message* call, host::ItemAction action,
                      std::vector<std::string> paths) {
  const std::size_t count = paths.size();
  control_.act(action, std::move(paths), [count, put = answering(call)](Answer<Each<Done>> answer) {
    put([count, answer = std::move(answer)](sd_bus_message* kept) {
      if (!answer.ok()) return refuse(kept, *answer.error());
      const MessagePtr reply = replyTo(kept);
      check(sd_bus_message_open_container(reply.get(), 'a', "s"), "answer");
      for (std::size_t i = 0; i < count; ++i)
        check(sd_bus_message_append(reply.get(), "s", errorOf(answer.value(), i).c_str()),
              "answer");
      check(sd_bus_message_close_container(reply.get()), "answer");
      send(reply.get());
    });
  });
}

void MountObject::links(sd_bus_message* call, std::vector<std::string> paths) {
  const std::size_t count = paths.size();
  using Links = Each<std::string>;
  control_.links(std::move(paths), [count, put = answering(call)](Answer<Links> answer) {
    put([count, answer = std::move(answer)](sd_bus_message* kept) {
      if (!answer.ok()) return refuse(kept, *answer.error());
      const MessagePtr reply = replyTo(kept);
      check(sd_bus_message_open_container(reply.get(), 'a', "(ss)"), "answer");
      for (std::size_t i = 0; i < count; ++i) {
        const std::string error = errorOf(answer.value(), i);
        const std::string link = error.empty() ? text(answer.value()[i].value()) : std::string();
        check(sd_bus_message_append(reply.get(), "(ss)", link.c_str(), error.c_str()), "answer");
      }
      check(sd_bus_message_close_container(reply.get()), "answer");
      send(reply.get());
    });
  });
}

// ----------------------------------------------------------------------------------------- changes

void MountObject::changed(const host::HostChanges& changes) {
  if (notifier_) notifier_->conflicts(changes.conflicts);
  for (const std::string& folder : changes.folders) {
    if (!asked_.contains(folder)) continue;
    sd_bus_message* made = nullptr;
    check(sd_bus_message_new_signal(bus_, &made, kMountPath, kMountInterface, "StatesChanged"),
          "begin a signal");
    const MessagePtr signal(made);
    appendBytes(signal.get(), folder);
    send(signal.get());
  }
}

void MountObject::overview(const host::HostCondition& condition,
                           const host::PendingChanges& pending) {
  const auto tell = [this](const char* property) {
    check(sd_bus_emit_properties_changed(bus_, kMountPath, kMountInterface, property,
                                         static_cast<const char*>(nullptr)),
          "tell of a property");
  };
  if (notifier_) notifier_->overview(condition, pending);
  if (std::exchange(pendingCount_, pending.count) != pending.count) tell("PendingCount");
  auto problems = problemsOf(condition, pending, kMostProblems);
  if (problems == problems_) return;
  problems_ = std::move(problems);
  tell("Problems");
}

}  // namespace kestrune::desktop
