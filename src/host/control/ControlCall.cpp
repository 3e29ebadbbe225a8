#include "host/control/ControlCall.h"

#include <algorithm>
#include <utility>

#include "host/control/ControlAnswer.h"

namespace kestrune::host {

using platform::Json;
using Op = ControlRequest::Op;

namespace {

constexpr std::chrono::milliseconds kFirstPause{20};
constexpr std::chrono::seconds kLongestPause{1};
constexpr std::chrono::seconds kProgressInterval{1};

Json resultOf(const Done&) { return Json::object(); }
Json resultOf(std::uint64_t count) { return {{"count", count}}; }
Json resultOf(const std::vector<std::string>& lines) { return logToJson(lines); }

}  // namespace

ControlCall::ControlCall(const Surroundings& surroundings, ControlClientId client,
                         ControlRequest request, Clock::time_point now)
    : surroundings_(surroundings),
      client_(client),
      request_(std::move(request)),
      deadline_(now + request_.timeout),
      nextProgress_(now + kProgressInterval),
      pause_(kFirstPause) {
  begin();
}

template <class T>
Reply<T> ControlCall::toMailbox() {
  return [mailbox = surroundings_.mailbox, client = client_](Answer<T> answer) {
    ControlLetter letter{client, answer.ok() ? Answer<Json>(resultOf(answer.value()))
                                             : Answer<Json>(answer.error())};
    mailbox->put(std::move(letter));
  };
}

template <class T>
Reply<Each<T>> ControlCall::eachToMailbox() {
  return [mailbox = surroundings_.mailbox, client = client_,
          paths = request_.paths](Answer<Each<T>> answer) {
    ControlLetter letter{client, answer.ok() ? Answer<Json>(toJson(paths, answer.value()))
                                             : Answer<Json>(answer.error())};
    mailbox->put(std::move(letter));
  };
}

void ControlCall::begin() {
  HostControl& control = surroundings_.control;
  switch (request_.op) {
    case Op::about:
      return surroundings_.mailbox->put({client_, Answer<Json>(surroundings_.about)});
    case Op::status:
      return control.status([mailbox = surroundings_.mailbox, client = client_,
                             about = surroundings_.about](Answer<HostStatus> answer) {
        if (!answer.ok()) return mailbox->put({client, Answer<Json>(answer.error())});
        Json json = toJson(answer.value());
        json.update(about);
        mailbox->put({client, Answer<Json>(std::move(json))});
      });
    case Op::pending:
      return look();
    case Op::sync:
      return control.tryNow(request_.path, toMailbox<Done>());
    case Op::pin:
    case Op::unpin:
    case Op::evict:
    case Op::download:
    case Op::link:
    case Op::state:
    case Op::why:
      return beginForPaths();
    case Op::log:
      return control.recentLog(toMailbox<std::vector<std::string>>());
    case Op::end:
      return control.end(toMailbox<Done>());
    case Op::allowDeletions:
      return control.allowDeletions(toMailbox<std::uint64_t>());
    case Op::keepDeleted:
      return control.keepDeleted(toMailbox<std::uint64_t>());
    case Op::restart:
      return control.restart(toMailbox<Done>());
  }
}

void ControlCall::beginForPaths() {
  HostControl& control = surroundings_.control;
  if (request_.op == Op::link) return control.links(request_.paths, eachToMailbox<std::string>());
  if (request_.op == Op::state) return control.states(request_.paths, eachToMailbox<ItemState>());
  if (request_.op == Op::why) return control.reasons(request_.paths, eachToMailbox<ItemReasons>());
  const ItemAction action = request_.op == Op::pin     ? ItemAction::pin
                            : request_.op == Op::unpin ? ItemAction::unpin
                            : request_.op == Op::evict ? ItemAction::evict
                                                       : ItemAction::download;
  control.act(action, request_.paths, eachToMailbox<Done>());
}

void ControlCall::look() {
  surroundings_.control.pending(
      request_.path, request_.most,
      [mailbox = surroundings_.mailbox, client = client_](Answer<PendingChanges> answer) {
        if (!answer.ok()) return mailbox->put({client, Answer<Json>(answer.error())});
        const std::uint64_t left = answer.value().count;
        mailbox->put({client, Answer<Json>(toJson(answer.value())), left});
      });
}

ControlCall::Output ControlCall::received(ControlLetter letter, Clock::time_point now) {
  if (!letter.answer.ok()) return {errorLine(letter.answer.error()->localizedDescription()), true};
  if (request_.op == Op::sync && state_ == State::begun) {
    state_ = State::looking;
    look();
    return {};
  }
  const bool goesOn =
      request_.op == Op::sync && request_.waits && letter.left > 0 && now < deadline_;
  if (!goesOn) return {resultLine(std::move(letter.answer.value())), true};
  state_ = State::pausing;
  nextLook_ = std::min(now + pause_, deadline_);
  // So that nobody waits much longer than it took.
  pause_ = std::min<Clock::duration>(pause_ * 5 / 4, kLongestPause);
  if (now < nextProgress_) return {};
  nextProgress_ = now + kProgressInterval;
  return {progressLine(letter.left), false};
}

void ControlCall::resume(Clock::time_point now) {
  if (state_ != State::pausing || now < nextLook_) return;
  state_ = State::looking;
  look();
}

std::optional<ControlCall::Clock::time_point> ControlCall::wakeUp() const {
  if (state_ != State::pausing) return std::nullopt;
  return nextLook_;
}

}  // namespace kestrune::host
