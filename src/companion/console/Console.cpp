#include "companion/console/Console.h"

#include <utility>

#include "companion/console/ConsoleLineReader.h"
#include "companion/console/ConsoleLogSink.h"
#include "companion/console/ConsolePasteboard.h"
#include "companion/console/ConsoleRequest.h"

namespace kestrune {

using namespace platform;

Console::Console(const Settings& settings, const Surroundings& surroundings)
    : writer_(std::make_shared<ConsoleWriter>(surroundings.output)),
      manager_(std::make_shared<ConsoleManager>(writer_)),
      clock_(std::make_shared<ConsoleClock>()),
      settling_("console.settle"),
      callSurroundings_{writer_, openCalls_, settling_, surroundings.drainStatus} {
  previousSink_ =
      setLogSink(std::make_shared<ConsoleLogSink>(writer_, settings.showsPrivateArguments));
  NSFileProviderManager::setProvider(
      [manager = manager_, identifier = settings.domainIdentifier](
          const NSFileProviderDomain& domain) -> std::shared_ptr<NSFileProviderManager> {
        return domain.identifier() == identifier && manager->isPresent() ? manager : nullptr;
      });
  NSPasteboard::setGeneral(std::make_shared<ConsolePasteboard>(writer_));
  auto domain = std::make_shared<const NSFileProviderDomain>(settings.domainIdentifier, "Kestrune");
  operations_ = std::make_unique<ConsoleOperations>(
      callSurroundings_,
      ConsoleOperations::Parts{surroundings.makeExtension(std::move(domain), clock_), manager_,
                               clock_});
}

Console::~Console() {
  operations_.reset();
  NSPasteboard::setGeneral(nullptr);
  NSFileProviderManager::setProvider(nullptr);
  setLogSink(std::move(previousSink_));
}

void Console::run(std::istream& input) {
  ConsoleLineReader lines(input);
  for (;;) {
    const auto line = lines.next();
    if (!line.has_value()) break;
    if (line->isCut) {
      const std::string message = "the line is not a JSON object: it is longer than 64 MiB";
      writer_->write(nullptr, "invalid", {{"message", message}});
    } else {
      handle(line->text);
    }
  }
  openCalls_.waitUntilEnded(std::nullopt);
}

void Console::handle(const std::string& line) {
  Json id;
  try {
    const ConsoleRequest request = ConsoleRequest::parse(line);
    id = request.idOrNull();
    operations_->run(request);
  } catch (const InvalidCall& invalid) {
    writer_->write(id, "invalid", {{"message", invalid.what()}});
  }
}

}  // namespace kestrune
