#include "host/control/ControlRequest.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <utility>

#include "host/basics/ItemName.h"
#include "platform/values/NSError.h"
#include "platform/values/UTF8.h"

namespace kestrune::host {

using platform::Json;

namespace {

using Op = ControlRequest::Op;

struct NamedOp {
  std::string_view name;
  Op op;
  bool takesPaths = false;
};

constexpr std::array<NamedOp, 16> kOps = {{
    {"about", Op::about},
    {"status", Op::status},
    {"pending", Op::pending},
    {"sync", Op::sync},
    {"pin", Op::pin, true},
    {"unpin", Op::unpin, true},
    {"evict", Op::evict, true},
    {"download", Op::download, true},
    {"link", Op::link, true},
    {"state", Op::state, true},
    {"why", Op::why, true},
    {"log", Op::log},
    {"end", Op::end},
    {"allow-deletions", Op::allowDeletions},
    {"keep-deleted", Op::keepDeleted},
    {"restart", Op::restart},
}};

const NamedOp& named(Op op) {
  return *std::find_if(kOps.begin(), kOps.end(), [op](const auto& row) { return row.op == op; });
}

std::string checkedPath(const Json& value) {
  std::string path = pathFromJson(value);
  if (!isControlPath(path)) {
    throw InvalidRequest(
        "a path must begin with \"/\" at the mount point and have no empty, \".\" or \"..\" parts");
  }
  return path;
}

std::int64_t numberOf(const Json& value, const char* name, std::int64_t most) {
  if (value.is_number_unsigned() && value.get<std::uint64_t>() <= static_cast<std::uint64_t>(most))
    return value.get<std::int64_t>();
  throw InvalidRequest(std::string("\"") + name + "\" must be a whole number of at most " +
                       std::to_string(most));
}

std::vector<std::string> pathsOf(const Json& value) {
  if (!value.is_array() || value.empty() || value.size() > ControlRequest::kMostPaths) {
    throw InvalidRequest("\"paths\" must be an array of 1 to " +
                         std::to_string(ControlRequest::kMostPaths) + " paths");
  }
  std::vector<std::string> paths;
  paths.reserve(value.size());
  for (const Json& path : value) paths.push_back(checkedPath(path));
  return paths;
}

/// Takes one argument; false if the operation has none of this name.
bool take(ControlRequest& request, const std::string& name, const Json& value) {
  const bool isSync = request.op == Op::sync;
  if (name == "paths" && named(request.op).takesPaths) {
    request.paths = pathsOf(value);
  } else if (name == "path" && (isSync || request.op == Op::pending)) {
    request.path = checkedPath(value);
  } else if (name == "most" && (isSync || request.op == Op::pending)) {
    request.most = static_cast<std::size_t>(numberOf(value, "most", ControlRequest::kMostChanges));
  } else if (name == "wait" && isSync) {
    if (!value.is_boolean()) throw InvalidRequest("\"wait\" must be true or false");
    request.waits = value.get<bool>();
  } else if (name == "timeout" && isSync) {
    request.timeout =
        std::chrono::seconds(numberOf(value, "timeout", ControlRequest::kLongestTimeout.count()));
  } else {
    return false;
  }
  return true;
}

std::optional<Op> opOf(const Json& object) {
  const auto op = object.find("op");
  if (op == object.end() || !op->is_string()) return std::nullopt;
  const auto& name = op->get_ref<const std::string&>();
  const auto* found =
      std::find_if(kOps.begin(), kOps.end(), [&name](const auto& row) { return row.name == name; });
  if (found == kOps.end()) return std::nullopt;
  return found->op;
}

}  // namespace

bool isControlPath(std::string_view path) {
  if (path == "/") return true;
  if (!path.starts_with('/')) return false;
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::size_t end = std::min(path.find('/'), path.size());
    if (whyNotAFileName(path.substr(0, end)) != nullptr) return false;
    path.remove_prefix(end);
  }
  return true;
}

Json pathToJson(const std::string& path) {
  if (platform::isValidUTF8(path)) return path;
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    hex += kDigits[byte >> 4U];
    hex += kDigits[byte & 15U];
  }
  return Json{{"hex", hex}};
}

std::string pathFromJson(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_object() && value.size() == 1 && value.contains("hex") && value["hex"].is_string()) {
    const auto& hex = value["hex"].get_ref<const std::string&>();
    std::string path;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
      unsigned byte = 0;
      const char* end = hex.data() + i + 2;
      if (std::from_chars(hex.data() + i, end, byte, 16).ptr != end) break;
      path += static_cast<char>(byte);
    }
    if (path.size() * 2 == hex.size()) return path;
  }
  throw InvalidRequest("a path must be a text, or {\"hex\": its bytes in hexadecimal digits}");
}

ControlRequest ControlRequest::parse(std::string_view line) {
  Json object;
  try {
    object = platform::decodeJson(line);
  } catch (const platform::NSError& error) {
    throw InvalidRequest("the line is no JSON: " + error.localizedDescription());
  }
  if (!object.is_object()) throw InvalidRequest("the line is no JSON object");
  const auto op = opOf(object);
  if (!op) throw InvalidRequest("\"op\" is missing or unknown");
  ControlRequest request;
  request.op = *op;
  for (const auto& [name, value] : object.items()) {
    if (name != "op" && !take(request, name, value)) {
      throw InvalidRequest("\"" + std::string(named(*op).name) +
                           "\" has no argument of one of the names given");
    }
  }
  if (named(*op).takesPaths && request.paths.empty()) throw InvalidRequest("\"paths\" is missing");
  return request;
}

std::string ControlRequest::encode() const {
  Json object{{"op", std::string(named(op).name)}};
  if (named(op).takesPaths) {
    object["paths"] = Json::array();
    for (const std::string& each : paths) object["paths"].push_back(pathToJson(each));
  }
  if (op == Op::pending || op == Op::sync) {
    object["path"] = pathToJson(path);
    object["most"] = most;
  }
  if (op == Op::sync) {
    object["wait"] = waits;
    object["timeout"] = timeout.count();
  }
  return platform::encodeJson(object);
}

}  // namespace kestrune::host
