#include "tests/console/ConsoleProgram.h"

#include <gtest/gtest.h>

#include <set>

namespace kestrune {

using platform::Json;

namespace {

std::vector<std::string> withCommand(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "console");
  return arguments;
}

}  // namespace

ConsoleProgram::ConsoleProgram(std::vector<std::string> arguments)
    : program_("kestrune", withCommand(std::move(arguments))) {}

std::optional<Json> ConsoleProgram::read() {
  const auto line = program_.readLine();
  if (!line) return std::nullopt;
  text_ += *line + "\n";
  lines_.push_back(Json::parse(*line));
  EXPECT_EQ(lines_.back()["seq"], lines_.size());
  return lines_.back();
}

std::vector<Json> ConsoleProgram::call(const std::string& op, const std::string& arguments) {
  static const std::set<std::string> kQuestions = {
      "currentSyncAnchor", "invalidate", "manager", "wait", "cancel", "advanceClock"};
  const int id = ++lastId_;
  program_.write(R"({"id":)" + std::to_string(id) + R"(,"op":")" + op + "\"" + arguments + "}\n");
  std::vector<Json> own;
  for (;;) {
    auto line = read();
    if (!line) {
      ADD_FAILURE() << op << arguments << " did not end";
      return own;
    }
    if ((*line)["id"] != id) continue;
    own.push_back(std::move(*line));
    const auto& event = own.back()["event"];
    if (event == "settled" || event == "invalid" ||
        (event == "completion" && kQuestions.contains(op)))
      return own;
  }
}

Json ConsoleProgram::only(const std::vector<Json>& lines, std::string_view event) {
  Json found;
  int count = 0;
  for (const auto& line : lines) {
    if (line["event"] != event) continue;
    ++count;
    found = line;
  }
  EXPECT_EQ(count, 1) << "lines of " << event;
  return found;
}

Json ConsoleProgram::readUntil(std::string_view event) {
  while (const auto line = read()) {
    if ((*line)["event"] == event) return *line;
  }
  return nullptr;
}

}  // namespace kestrune
