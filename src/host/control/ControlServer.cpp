#include "host/control/ControlServer.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "host/control/ControlAnswer.h"
#include "host/control/ControlCall.h"
#include "host/control/ControlPeer.h"
#include "host/control/ControlRequest.h"

namespace kestrune::host {

namespace {

using Clock = std::chrono::steady_clock;

/// How long nobody is let in when the process has no descriptors left: the kernel would report the same caller again
/// and again.
constexpr std::chrono::seconds kExhaustedPause{1};

struct Client {
  ControlPeer peer;
  std::optional<ControlCall> call = std::nullopt;
  /// When a whole line came, an answer was made, or some of it went.
  Clock::time_point active{};
  /// Nothing more is read; what is to be sent is the end.
  bool isLeaving = false;

  /// What a client that waits for the host may take all the time for.
  bool isWaiting() const { return call && !peer.hasOutput(); }
  bool isFinished() const { return !call && !peer.hasOutput() && (isLeaving || peer.hasEnded()); }
};

}  // namespace

class ControlServer::Loop {
 public:
  Loop(ControlOptions options, HostControl& control, std::shared_ptr<ControlMailbox> mailbox)
      : options_(std::move(options)),
        surroundings_{control,
                      std::move(mailbox),
                      {{"mountPoint", pathToJson(options_.mountPoint.string())},
                       {"domain", pathToJson(options_.domainIdentifier)},
                       {"process", ::getpid()},
                       {"version", options_.version},
                       {"restarts", options_.restarts},
                       {"standstillMilliseconds", options_.standstill.count()},
                       {"replica", pathToJson(options_.replica.string())}}},
        socket_(options_.socketFile) {}

  void run() {
    ::pthread_setname_np(::pthread_self(), "kes-control");
    while (!waitAndServe()) {
    }
    for (auto& [id, client] : clients_) {
      if (client.call) client.peer.put(errorLine("the host is ending"));
      bool moved = false;
      static_cast<void>(
          client.peer.send(moved));  // who does not take it learns by the end of the connection
    }
  }

 private:
  using Clients = std::map<ControlClientId, Client>;

  /// True at the end.
  bool waitAndServe() {
    std::vector<pollfd> polled{{surroundings_.mailbox->descriptor(), POLLIN, 0},
                               {socket_.descriptor(), listensNow() ? short{POLLIN} : short{0}, 0}};
    for (const auto& [id, client] : clients_) {
      polled.push_back({client.peer.descriptor(), eventsOf(client), 0});
    }
    if (::poll(polled.data(), polled.size(), timeToWait()) < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    now_ = Clock::now();
    auto place = polled.begin() + 2;
    for (auto client = clients_.begin(); client != clients_.end(); ++place) {
      client = serve(client, place->revents) ? std::next(client) : clients_.erase(client);
    }
    if (polled[1].revents != 0) letIn();
    return deliver();
  }

  bool listensNow() const { return now_ >= listensAgain_; }

  static short eventsOf(const Client& client) {
    if (client.peer.hasOutput()) return POLLOUT;
    const bool reads = !client.call && !client.isLeaving && !client.peer.hasEnded();
    return reads ? POLLIN : short{0};  // a client that has gone is reported in any case
  }

  int timeToWait() const {
    std::optional<Clock::time_point> next;
    const auto consider = [&next](Clock::time_point at) { next = next ? std::min(*next, at) : at; };
    if (!listensNow()) consider(listensAgain_);
    for (const auto& [id, client] : clients_) {
      if (!client.isWaiting()) consider(client.active + options_.patience);
      if (client.call && client.call->wakeUp()) consider(*client.call->wakeUp());
    }
    if (!next) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
  }

  /// False if the client is to go.
  bool serve(Clients::iterator at, short events) {
    Client& client = at->second;
    if ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0) return false;
    if ((events & POLLIN) != 0 && !client.peer.receive()) return false;
    if (client.call && client.call->wakeUp()) client.call->resume(now_);
    return goOn(at->first, client);
  }

  /// Sends what there is and begins what was asked, as far as that goes at once. False if the client is to go.
  bool goOn(ControlClientId id, Client& client) {
    do {
      bool moved = false;
      if (!client.peer.send(moved)) return false;
      if (moved) client.active = now_;
    } while (beginNext(id, client));
    return !client.isFinished() && (client.isWaiting() || now_ < client.active + options_.patience);
  }

  /// Reads one line if it is time for that; false if there was none.
  bool beginNext(ControlClientId id, Client& client) {
    if (client.call || client.isLeaving || client.peer.hasOutput()) return false;
    const auto line = client.peer.takeLine();
    if (!line && !client.peer.isLineTooLong()) return false;
    client.active = now_;
    if (!line) {
      client.peer.put(errorLine("the line is longer than 1 MiB"));
      client.isLeaving = true;
      return true;
    }
    try {
      client.call.emplace(surroundings_, id, ControlRequest::parse(*line), now_);
    } catch (const InvalidRequest& error) {
      client.peer.put(errorLine(error.what()));
    }
    return true;
  }

  void letIn() {
    auto accepted = socket_.accept();
    if (accepted.isExhausted) listensAgain_ = now_ + kExhaustedPause;
    if (!accepted.connection) return;
    Client client{ControlPeer(std::move(accepted.connection))};
    client.active = now_;
    if (!accepted.isPermitted) {
      client.peer.put(errorLine("this host belongs to another user"));
    } else if (clients_.size() >= options_.mostClients) {
      client.peer.put(errorLine("too many programs are talking to this host"));
    } else {
      clients_.emplace(++lastClient_, std::move(client));
      return;
    }
    bool moved = false;
    static_cast<void>(client.peer.send(moved));  // an empty connection takes one short line
  }

  /// True if that was all.
  bool deliver() {
    ControlMailbox::Delivery delivery = surroundings_.mailbox->take();
    for (ControlLetter& letter : delivery.letters) {
      const auto at = clients_.find(letter.client);
      if (at == clients_.end() || !at->second.call) continue;
      answer(at->second, std::move(letter));
      if (!goOn(at->first, at->second)) clients_.erase(at);
    }
    return delivery.isStopped;
  }

  void answer(Client& client, ControlLetter letter) {
    const ControlCall::Output output = client.call->received(std::move(letter), now_);
    const bool isHeldUp = client.peer.hasOutput();
    if (!isHeldUp) client.active = now_;
    // Progress that is not taken is not heaped up.
    if (output.isLast || !isHeldUp) client.peer.put(output.bytes);
    if (output.isLast) client.call.reset();
  }

  const ControlOptions options_;
  const ControlCall::Surroundings surroundings_;
  const ControlSocket socket_;
  Clients clients_;
  ControlClientId lastClient_ = 0;
  Clock::time_point now_ = Clock::now();
  Clock::time_point listensAgain_{};
};

ControlServer::ControlServer(ControlOptions options, HostControl& control)
    : mailbox_(std::make_shared<ControlMailbox>()),
      loop_(std::make_unique<Loop>(std::move(options), control, mailbox_)),
      thread_([this] { loop_->run(); }) {}

ControlServer::~ControlServer() {
  mailbox_->stop();
  thread_.join();
}

}  // namespace kestrune::host
