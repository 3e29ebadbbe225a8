#include "service/Service.h"

#include <utility>

#include "service/Router.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

/// Imports copy and sync large files and hold a thread meanwhile; this many may, and listings still
/// find one.
constexpr std::size_t kFileThreads = 16;

}  // namespace

Parts::Parts(const Options& allOptions, const platform::Secret& bearerToken)
    : options(allOptions),
      tree(options.root, options.durability),
      staging(options.staging.empty() ? Staging::defaultDirectory(options.root) : options.staging,
              options.root, tree),
      uploads(staging),
      signer(staging.signingKey(), options.urlLifetime),
      token(bearerToken),
      housekeeper(staging, uploads),
      fileThreads(kFileThreads) {
  if (options.watchTree) treeWatch.emplace(tree, changes);
}

Service::Service(Options options, const platform::Secret& token)
    : options_(std::move(options)),
      parts_(options_, token),
      files_(parts_),
      direct_(parts_),
      storage_(parts_),
      events_(parts_),
      web_(parts_, token) {}

Service::~Service() = default;

void Service::endStreams() { parts_.changes.end(); }

void Service::settle() { parts_.fileThreads.join(); }

boost::asio::awaitable<void> Service::handle(std::shared_ptr<Exchange> exchange) {
  const Endpoint endpoint = routeOf(exchange->method(), exchange->target());
  if (endpoint == Endpoint::storage) co_return co_await storage_.handle(std::move(exchange));
  if (endpoint == Endpoint::web) co_return co_await web_.handle(std::move(exchange));
  if (!parts_.token.accepts(exchange->field("Authorization"))) {
    throw ServiceError(401, "the token is missing or wrong").with("WWW-Authenticate", "Bearer");
  }
  if (endpoint == Endpoint::events) co_return co_await events_.handle(std::move(exchange));
  if (DirectEndpoints::answers(endpoint)) {
    co_return co_await direct_.handle(endpoint, std::move(exchange));
  }
  co_await files_.handle(endpoint, std::move(exchange));
}

}  // namespace kestrune::service
