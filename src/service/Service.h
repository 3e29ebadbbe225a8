// The whole service behind one RequestHandler: routing, the bearer token, the endpoints, the web page.
//
// Threads: `handle` from many connections at once.
// Owns: every long-lived part, the file threads
// included; its destructor waits for what runs there.
#pragma once

#include <memory>

#include "platform/values/Secret.h"
#include "service/Connection.h"
#include "service/DirectEndpoints.h"
#include "service/EventsEndpoint.h"
#include "service/FilesEndpoints.h"
#include "service/Parts.h"
#include "service/StorageEndpoint.h"
#include "service/WebEndpoint.h"

namespace kestrune::service {

class Service : public RequestHandler {
 public:
  /// Opens the root and the staging directory. Throws std::runtime_error that says what is wrong.
  Service(Options options, const platform::Secret& token);
  ~Service() override;

  boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange) override;
  void endStreams() override;
  void settle() override;

 private:
  const Options options_;
  Parts parts_;
  FilesEndpoints files_;
  DirectEndpoints direct_;
  StorageEndpoint storage_;
  EventsEndpoint events_;
  WebEndpoint web_;
};

}  // namespace kestrune::service
