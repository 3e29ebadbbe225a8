#include "tests/support/TemporaryDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kestrune::support {

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "kestrune-test-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp '" + name + "'");
  }
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;  // what a test locked away stays behind: a destructor has nobody to tell
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryDirectory::write(const std::filesystem::path& relative,
                                                std::string_view contents) const {
  const std::filesystem::path file = path_ / relative;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write '" + file.string() + "'");
  return file;
}

std::size_t TemporaryDirectory::entryCount() const {
  const std::filesystem::directory_iterator entries(path_);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::string contentsOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream contents;
  if (std::filesystem::file_size(file) > 0) contents << in.rdbuf();
  if (!in || !contents) throw std::runtime_error("cannot read '" + file.string() + "'");
  return std::move(contents).str();
}

}  // namespace kestrune::support
