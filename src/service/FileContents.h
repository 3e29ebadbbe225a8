// A file of the tree as an answer: whole, or the range that was asked for.
//
// Threads: `openContents` blocks on the disk; `replyContents` runs on the connection's executor.
// Fails: ServiceError.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "service/Exchange.h"
#include "service/FileThreads.h"
#include "service/Tree.h"

namespace kestrune::service {

/// An open file and what it was like then.
struct OpenedFile {
  FileDescriptor file;
  ItemAttributes attributes;
};

/// Opens a regular file; see Tree::openFile.
OpenedFile openContents(const Tree& tree, const RemotePath& path);

/// The entity tag of a file's present contents, in quotes: it changes with inode, size or time of
/// modification.
std::string entityTagOf(const ItemAttributes& attributes);

/// Answers GET or HEAD with the file, or with the part that Range asks for unless If-Range says that
/// it was meant for other contents. `fields` are added to those that describe the contents. Throws
/// 416 for a range outside the file.
boost::asio::awaitable<void> replyContents(std::shared_ptr<Exchange> exchange, OpenedFile opened,
                                           std::string contentType,
                                           std::vector<std::pair<std::string, std::string>> fields,
                                           FileThreads* fileThreads);

}  // namespace kestrune::service
