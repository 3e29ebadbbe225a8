#include "boundary/RemoteHost.h"

#include <boost/asio/post.hpp>
#include <future>
#include <utility>

#include "boundary/BoundaryError.h"
#include "boundary/Messages.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemIdentifier;
using Handler = platform::NSFileProviderManager::Handler;
using HostPtr = std::shared_ptr<wire::Host::Client>;

// Answers once, whatever becomes of the question.
class Question {
 public:
  explicit Question(Handler handler) : handler_(std::move(handler)) {}
  ~Question() { answer(interrupted()); }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
  void answer(NSErrorPtr error) {
    if (!handler_) return;
    boost::asio::post(platform::sharedExecutor(), [handler = std::exchange(handler_, nullptr),
                                                   error = std::move(error)] { handler(error); });
  }

 private:
  Handler handler_;
};

template <class Send>
void ask(const std::shared_ptr<Loop>& loop, HostPtr host, Send send, Handler handler) {
  loop->post([host = std::move(host), send = std::move(send),
              question = std::make_shared<Question>(std::move(handler))] {
    send(*host)
        .then([question](auto&& response) {
          question->answer(response.hasError() ? read(response.getError()) : nullptr);
        })
        .detach([question](kj::Exception&& exception) { question->answer(errorFrom(exception)); });
  });
}

class RemoteManager final : public platform::NSFileProviderManager {
 public:
  RemoteManager(std::shared_ptr<Loop> loop, HostPtr host)
      : loop_(std::move(loop)), host_(std::move(host)) {}

  void evictItem(NSFileProviderItemIdentifier identifier, Handler completionHandler) override {
    const auto send = [identifier = std::move(identifier)](wire::Host::Client& host) {
      auto request = host.evictItemRequest();
      request.setIdentifier(bytesOf(identifier));
      return request.send();
    };
    ask(loop_, host_, send, std::move(completionHandler));
  }

  void requestDownloadForItem(NSFileProviderItemIdentifier identifier,
                              std::optional<platform::NSRange> range,
                              Handler completionHandler) override {
    const auto send = [identifier = std::move(identifier), range](wire::Host::Client& host) {
      auto request = host.requestDownloadRequest();
      request.setIdentifier(bytesOf(identifier));
      if (range) write(request.initRange(), *range);
      return request.send();
    };
    ask(loop_, host_, send, std::move(completionHandler));
  }

  void signalEnumerator(NSFileProviderItemIdentifier container,
                        Handler completionHandler) override {
    const auto send = [container = std::move(container)](wire::Host::Client& host) {
      auto request = host.signalEnumeratorRequest();
      request.setContainer(bytesOf(container));
      return request.send();
    };
    ask(loop_, host_, send, std::move(completionHandler));
  }

 private:
  const std::shared_ptr<Loop> loop_;
  const HostPtr host_;
};

class RemotePasteboard final : public platform::NSPasteboard {
 public:
  RemotePasteboard(std::shared_ptr<Loop> loop, HostPtr host)
      : loop_(std::move(loop)), host_(std::move(host)) {}

  void replaceContents(const std::string& text) override {
    const auto send = [text](wire::Host::Client& host) {
      auto request = host.copyTextRequest();
      request.setText(bytesOf(text));
      return request.send();
    };
    auto answered = std::make_shared<std::promise<NSErrorPtr>>();
    auto answer = answered->get_future();
    ask(loop_, host_, send,
        [answered](NSErrorPtr error) { answered->set_value(std::move(error)); });
    if (const NSErrorPtr error = answer.get()) error->raise();
  }

 private:
  const std::shared_ptr<Loop> loop_;
  const HostPtr host_;
};

}  // namespace

RemoteHost makeRemoteHost(const std::shared_ptr<Loop>& loop, wire::Host::Client host) {
  const HostPtr held = loop->held(kj::mv(host));
  return {std::make_shared<RemoteManager>(loop, held),
          std::make_shared<RemotePasteboard>(loop, held)};
}

}  // namespace kestrune::boundary
