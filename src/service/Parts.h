// The long-lived parts of one service, which the endpoints share. Made by Service, outlives every
// request.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "service/BearerToken.h"
#include "service/Changes.h"
#include "service/FileThreads.h"
#include "service/Housekeeper.h"
#include "service/MimeTypes.h"
#include "service/MultipartUploads.h"
#include "service/Options.h"
#include "service/Signing.h"
#include "service/Staging.h"
#include "service/Tree.h"
#include "service/TreeWatch.h"

namespace kestrune::service {

struct Parts {
  /// Throws std::runtime_error that says what is wrong with the root or the staging directory.
  Parts(const Options& allOptions, const platform::Secret& bearerToken);

  const Options& options;
  Tree tree;
  Staging staging;
  MultipartUploads uploads;
  Signer signer;
  BearerToken token;
  MimeTypes types;
  Changes changes;
  Housekeeper housekeeper;
  std::optional<TreeWatch> treeWatch;
  /// Last, so that it is joined before anything that its work uses goes.
  FileThreads fileThreads;
};

}  // namespace kestrune::service
