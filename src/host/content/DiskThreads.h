// Threads for work that may hang on the local disk for seconds: bringing bytes to it, copying large files. On the shared
// executor such work would keep answers of the extension from everybody.
//
// Threads: may be called from any thread. What is posted may run side by side and must not throw.
#pragma once

#include <boost/asio/any_io_executor.hpp>

namespace kestrune::host {

/// Lives until the process ends.
boost::asio::any_io_executor diskExecutor();

}  // namespace kestrune::host
