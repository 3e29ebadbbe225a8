#include "host/launch/SandboxedCommand.h"

#include <map>
#include <vector>

#include "sandbox/BubblewrapCommand.h"
#include "sandbox/BubblewrapTrial.h"

namespace kestrune::host {

ProgramCommand SandboxedCommand::next() {
  const sandbox::SandboxRules rules = sandbox::rulesFor(paths_);
  if (!isTried_) {
    whyNoBubblewrap_ = sandbox::whyNoBubblewrap(rules);
    isTried_ = true;
  }
  std::map<std::string, std::string> environment = {{"XDG_DATA_HOME", paths_.shared.parent_path()}};
  if (!paths_.certificates.empty()) environment["SSL_CERT_FILE"] = paths_.certificates;
  std::vector<std::string> arguments = {"--shared",       paths_.shared, "--temporary",
                                        paths_.temporary, "--outgoing",  paths_.outgoing};
  if (!paths_.certificates.empty()) {
    arguments.emplace_back("--certificates");
    arguments.emplace_back(paths_.certificates);
  }
  if (!whyNoBubblewrap_) {
    arguments.emplace_back("--in-bubblewrap");
    return {sandbox::bubblewrapCommand(rules, environment, arguments), {}};
  }
  arguments.insert(arguments.begin(), paths_.program);
  return {std::move(arguments), std::move(environment), whyNoBubblewrap_};
}

}  // namespace kestrune::host
