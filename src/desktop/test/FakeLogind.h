// logind as far as shutdowns go, on a private system's bus.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "desktop/Bus.h"
#include "host/basics/LocalFile.h"

namespace kestrune::desktop::test {

/// Works while its connection's messages are processed.
class FakeLogind {
 public:
  explicit FakeLogind(sd_bus* bus);
  ~FakeLogind();
  FakeLogind(const FakeLogind&) = delete;
  FakeLogind& operator=(const FakeLogind&) = delete;

  /// How many locks of this one somebody holds.
  std::size_t held() const;
  void prepareForShutdown(bool isGoingDown);

  struct Request {
    std::string what;
    std::string who;
    std::string why;
    std::string mode;
  };
  /// All that were made, in their order.
  std::vector<Request> requests;
  bool refuses = false;

 private:
  static int inhibit(sd_bus_message* call, void* data, sd_bus_error* error);

  sd_bus* const bus_;
  /// Each reads the end of one lock: it ends when nobody has the other end any more.
  std::vector<std::unique_ptr<host::Descriptor>> locks_;
  SlotPtr slot_;
};

}  // namespace kestrune::desktop::test
