// A name in a folder, here or at the store.
#pragma once

#include <compare>
#include <string>

#include "host/basics/NodeId.h"

namespace kestrune::host {

struct Place {
  ItemId folder = kRootItem;
  std::string name;
  auto operator<=>(const Place&) const = default;
};

}  // namespace kestrune::host
