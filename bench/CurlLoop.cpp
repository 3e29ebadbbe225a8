// The bare limit for many small creations: the same requests that the extension makes (an address,
// the contents, the import), from libcurl alone, in a loop that reuses its connection. Prints
// "seconds=…".
//
//   kestrune-curl-loop URL TOKENFILE FOLDER FILE N LOOPS     LOOPS: how many run side by side
#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string contentsOf(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t appendTo(char* data, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

struct Source {
  const std::string* bytes;
  std::size_t offset;
};

std::size_t readFrom(char* data, std::size_t size, std::size_t count, void* source) {
  auto& from = *static_cast<Source*>(source);
  const std::size_t taken = from.bytes->copy(data, size * count, from.offset);
  from.offset += taken;
  return taken;
}

class Client {
 public:
  Client(std::string url, const std::string& token) : url_(std::move(url)) {
    headers_ = curl_slist_append(headers_, ("Authorization: Bearer " + token).c_str());
    headers_ = curl_slist_append(headers_, "Content-Type: application/json");
  }
  ~Client() {
    curl_slist_free_all(headers_);
    curl_easy_cleanup(easy_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  std::string post(const std::string& path, const nlohmann::json& body) {
    curl_easy_reset(easy_);
    const std::string url = url_ + path;
    const std::string text = body.dump();
    curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy_, CURLOPT_COPYPOSTFIELDS, text.c_str());
    return perform();
  }

  void put(const std::string& url, const std::string& bytes) {
    curl_easy_reset(easy_);
    Source source{&bytes, 0};
    curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy_, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bytes.size()));
    curl_easy_setopt(easy_, CURLOPT_READFUNCTION, readFrom);
    curl_easy_setopt(easy_, CURLOPT_READDATA, &source);
    perform();
  }

 private:
  std::string perform() {
    std::string reply;
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, appendTo);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &reply);
    curl_easy_setopt(easy_, CURLOPT_FAILONERROR, 1L);
    const CURLcode code = curl_easy_perform(easy_);
    if (code != CURLE_OK) {
      std::fprintf(stderr, "kestrune-curl-loop: %s\n", curl_easy_strerror(code));
      std::exit(1);
    }
    return reply;
  }

  const std::string url_;
  CURL* const easy_ = curl_easy_init();
  curl_slist* headers_ = nullptr;
};

void createOne(Client& client, const std::string& path, const std::string& bytes) {
  const auto reply =
      nlohmann::json::parse(client.post("/files/direct-presign-upload", {{"path", path}}));
  client.put(reply.at("url"), bytes);
  client.post("/files/direct-import", {{"key", reply.at("key")}, {"path", path}});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "usage: kestrune-curl-loop URL TOKENFILE FOLDER FILE N LOOPS\n");
    return 2;
  }
  const std::string bytes = contentsOf(argv[4]);
  std::string token = contentsOf(argv[2]);
  token.erase(token.find_last_not_of(" \n") + 1);
  const int count = std::atoi(argv[5]);
  curl_global_init(CURL_GLOBAL_ALL);
  const auto start = std::chrono::steady_clock::now();
  std::atomic<int> next = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < std::atoi(argv[6]); ++i) {
    threads.emplace_back([&] {
      Client client(argv[1], token);
      for (int number = next++; number < count; number = next++) {
        createOne(client, argv[3] + std::string("/new-") + std::to_string(number), bytes);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf("seconds=%.4f\n", took.count());
  return 0;
}
