#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {

ItemValues ItemValues::of(const NSFileProviderItem& item) {
  return {item.itemIdentifier(),
          item.parentItemIdentifier(),
          item.filename(),
          item.contentType(),
          item.capabilities(),
          item.documentSize(),
          item.contentModificationDate(),
          item.creationDate(),
          item.contentPolicy(),
          item.itemVersion()};
}

ItemValues ItemValues::random(std::mt19937_64& generator) {
  const auto chance = [&] { return generator() % 2 == 0; };
  const auto text = [&] {
    std::string bytes(generator() % 40, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
  };
  const auto date = [&] { return Date(std::chrono::microseconds(generator())); };
  ItemValues values;
  values.identifier = text();
  values.parent = text();
  values.filename = text();
  if (chance()) values.type = UTType::named(text());
  if (chance()) values.capabilities = static_cast<NSFileProviderItemCapabilities>(generator());
  if (chance()) values.size = static_cast<std::int64_t>(generator());
  if (chance()) values.modified = date();
  if (chance()) values.created = date();
  values.policy = static_cast<NSFileProviderContentPolicy>(generator() % 4);
  if (chance()) values.version = NSFileProviderItemVersion{text(), text()};
  return values;
}

std::pair<int, int> socketPair() {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    throw NSPOSIXError(errno, "make a pair of sockets");
  return {ends[0], ends[1]};
}

bool same(const NSErrorPtr& a, const NSErrorPtr& b) {
  if (!a || !b) return a == b;
  return a->domain() == b->domain() && a->code() == b->code() &&
         a->localizedDescription() == b->localizedDescription() && a->userInfo() == b->userInfo();
}

Boundary::Boundary(std::shared_ptr<MockExtension> extension) {
  const auto [hostEnd, programEnd] = socketPair();
  auto make = [this, extension](const NSFileProviderDomainPtr& domain, RemoteHost remoteHost) {
    domainIdentifier = domain->identifier();
    domainName = domain->displayName();
    host = std::move(remoteHost);
    return extension;
  };
  server_ = std::make_unique<ExtensionServer>(
      programEnd, make, [this] { hostWent.set_value(); }, std::vector<std::string>{"no walls"});
  remote = RemoteExtension::connect(
      hostEnd, {[manager = manager] { return manager; },
                [pasted = pasted](std::string text, const NSFileProviderManager::Handler& done) {
                  *pasted = std::move(text);
                  done(*pasted == "refused" ? someError() : nullptr);
                }});
  Told<Greeting, NSErrorPtr> greeted;
  remote->greet({"home", "My \"files\""}, greeted.handler());
  std::tie(greeting, greetingError) = greeted.wait();
}

}  // namespace kestrune::boundary::test
