#include "service/ServiceError.h"

#include <cerrno>
#include <utility>

#include "platform/values/NSError.h"

namespace kestrune::service {

ServiceError ServiceError::internal(int errorNumber, const std::string& context) {
  ServiceError error(500, "internal error");
  error.detail_ = context + ": " + platform::errnoText(errorNumber);
  return error;
}

ServiceError ServiceError::with(std::string field, std::string value) && {
  fields_.emplace_back(std::move(field), std::move(value));
  return std::move(*this);
}

ServiceError badRequest(std::string text) { return {400, std::move(text)}; }

ServiceError notFound() { return {404, "not found"}; }

ServiceError conflict(std::string text) { return {409, std::move(text)}; }

ServiceError fileError(int errorNumber, const std::string& context) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return notFound();
    case ELOOP:
    case EXDEV:
      return badRequest("the path leads through a symbolic link or another file system");
    case ENAMETOOLONG:
      return badRequest("a name is too long");
    case EACCES:
    case EPERM:
    case EROFS:
      return {403, "the store does not permit this"};
    case EEXIST:
    case ENOTEMPTY:
      return conflict("something of this name exists");
    case EISDIR:
      return conflict("a folder is in the place of the file");
    case EBUSY:
      return conflict("the item is in use");
    case EFBIG:
      return {413, "the file is too large"};
    case ENOSPC:
    case EDQUOT:
      return {507, "the disk is full"};
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return {503, "too many open files"};
    default:
      return ServiceError::internal(errorNumber, context);
  }
}

}  // namespace kestrune::service
