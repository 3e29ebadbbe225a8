// How the host's asynchronous operations answer: with a value or with the error that says why there is none.
//
// A Reply is called exactly once, from any thread, possibly before the operation returns, and never with a lock of the
// host held. It must not throw.
#pragma once

#include <functional>
#include <utility>
#include <variant>

#include "platform/values/NSError.h"

namespace kestrune::host {

/// The value of an operation that answers with nothing but its success.
struct Done {};

template <class T>
class [[nodiscard]] Answer {
 public:
  Answer(T value) : content_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Answer(platform::NSErrorPtr error)
      : content_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return content_.index() == 0; }
  /// REQUIRES: ok().
  T& value() { return std::get<0>(content_); }
  const T& value() const { return std::get<0>(content_); }
  /// REQUIRES: !ok().
  const platform::NSErrorPtr& error() const { return std::get<1>(content_); }

 private:
  std::variant<T, platform::NSErrorPtr> content_;
};

template <class T>
using Reply = std::function<void(Answer<T>)>;

}  // namespace kestrune::host
