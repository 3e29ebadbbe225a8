#include "boundary/StreamReader.h"

#include <boost/asio/post.hpp>
#include <span>
#include <string_view>

namespace kestrune::boundary {

kj::Promise<void> StreamReader::take(TakeContext context) {
  const auto told = context.getParams();
  const std::span<char> all = memory_->bytes();
  const std::size_t start = told.getPosition();
  KJ_REQUIRE(start <= all.size() && told.getLength() <= all.size() - start,
             "bytes beyond the shared memory");
  const std::string_view bytes(all.data() + start, told.getLength());
  auto answered = kj::newPromiseAndFulfiller<bool>();
  boost::asio::post(
      where_, [loop = loop_, memory = memory_, weak = bytes_, bytes, offset = told.getOffset(),
               answer = loop_->held(kj::mv(answered.fulfiller))] {
        const auto handler = weak.lock();
        const bool wanted = handler && (*handler)(offset, bytes);
        loop->post([answer, wanted] { (*answer)->fulfill(bool(wanted)); });
      });
  return answered.promise.then(
      [context](bool wanted) mutable { context.getResults(kUsualSize).setWanted(wanted); });
}

}  // namespace kestrune::boundary
