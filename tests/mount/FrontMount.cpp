#include "tests/mount/FrontMount.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "tests/support/Waiting.h"

namespace kestrune::mounttest {

namespace fs = std::filesystem;

FileNumber::FileNumber(const fs::path& path, int flags, mode_t mode)
    : number_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {
  if (number_ < 0) throw std::system_error(errno, std::generic_category(), path);
}

void FileNumber::close() {
  if (number_ >= 0) ::close(number_);
  number_ = -1;
}

std::string bytesOf(int file, std::size_t from, std::size_t length) {
  std::string text(length, '\0');
  const ssize_t got = ::pread(file, text.data(), length, static_cast<off_t>(from));
  if (got < 0) throw std::system_error(errno, std::generic_category(), "pread");
  text.resize(static_cast<std::size_t>(got));
  return text;
}

std::string bytesOf(const fs::path& path) {
  const FileNumber file(path, O_RDONLY);
  std::string all;
  for (std::string part; !(part = bytesOf(file, all.size(), 1U << 20U)).empty();) all += part;
  return all;
}

void put(const fs::path& path, const std::string& text) {
  const FileNumber file(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (::write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    throw std::system_error(errno, std::generic_category(), path);
}

struct stat statusOf(const fs::path& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0)
    throw std::system_error(errno, std::generic_category(), path);
  return status;
}

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

InterruptedCall::InterruptedCall(std::function<int()> call) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGUSR1, &action, nullptr);
  thread_ = std::thread([this, call = std::move(call)] {
    result_ = call();
    done_ = true;
  });
}

FrontMount::FrontMount(const std::vector<std::string>& options)
    : mountPoint_(directory_.path() / "mount") {
  fs::create_directory(mountPoint_);
  fs::create_directory(objects());
  std::vector<std::string> arguments = {std::string(KESTRUNE_BIN_DIR) + "/front_mount",
                                        mountPoint_.string(), objects().string()};
  arguments.insert(arguments.end(), options.begin(), options.end());
  host_ = std::make_unique<Child>(std::move(arguments));
  host_->readLine();
}

FrontMount::~FrontMount() {
  host_.reset();
  ::umount2(mountPoint_.c_str(), MNT_DETACH);
}

platform::Json FrontMount::say(const platform::Json& words) {
  host_->writeLine(platform::encodeJson(words));
  auto answer = platform::decodeJson(host_->readLine());
  if (!answer.contains("value")) throw std::runtime_error(answer.value("error", "no answer"));
  return answer["value"];
}

void FrontTest::SetUp() {
  if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
  ::umask(022);
  mount_ = std::make_unique<FrontMount>(options());
}

void FrontTest::TearDown() {
  if (!mount_) return;
  EXPECT_TRUE(support::waitUntil([this] { return say("openFiles").get<int>() == 0; }));
}

void FrontTest::waitUntilAsked(const std::string& operation, int before) {
  EXPECT_TRUE(support::waitUntil([&] { return asked(operation) > before; })) << operation;
}

}  // namespace kestrune::mounttest
