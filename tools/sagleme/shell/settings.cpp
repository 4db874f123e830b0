#include "shell/settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "base/failure.h"

namespace tool {
namespace {

[[noreturn]] void Refuse(std::string const& name, std::string const& value,
                         std::string const& takes) {
  throw Failure(Exit::kUsage, fmt::format("{} does not take \"{}\"", name, value),
                fmt::format("It takes {}.", takes));
}

bool OnOrOff(std::string const& name, std::string const& value) {
  if (value == "on") return true;
  if (value == "off") return false;
  Refuse(name, value, "on or off");
}

std::optional<std::size_t> Width(std::string const& value) {
  if (value == "auto") return std::nullopt;
  std::size_t width = 0;
  auto const [end, error] = std::from_chars(value.data(), value.data() + value.size(), width);
  if (error == std::errc() && end == value.data() + value.size()) return width;
  Refuse("width", value, "auto, or a number of columns, 0 for no limit");
}

}  // namespace

std::vector<std::pair<std::string, std::string>> Settings::Words() {
  return {{"expanded",
           "on, off or auto: show objects one value a line, always, never, or where "
           "a table is wider than the terminal"},
          {"paging", "on or off: show long lists through $PAGER"},
          {"timing", "on or off: show how long each line takes"},
          {"width", "auto or a number of columns: how wide a table can be"}};
}

bool Settings::Take(std::vector<std::string> const& words, Output const& output) {
  auto const all = Words();
  bool const known = std::any_of(all.begin(), all.end(),
                                 [&](auto const& each) { return each.first == words.front(); });
  if (!known) return false;
  if (words.size() > 2) Refuse(words[0], words[2], "one value");
  if (words.size() == 2) Set(words[0], words[1]);
  output.Print(fmt::format("{} {}\n", words[0], Shown(words[0])));
  return true;
}

void Settings::Set(std::string const& name, std::string const& value) {
  if (name == "paging") {
    paging_ = OnOrOff(name, value);
  } else if (name == "timing") {
    timing_ = OnOrOff(name, value);
  } else if (name == "width") {
    width_ = Width(value);
  } else if (value == "auto") {
    expanded_ = Expanded::kAuto;
  } else if (value == "on" || value == "off") {
    expanded_ = value == "on" ? Expanded::kOn : Expanded::kOff;
  } else {
    Refuse(name, value, "on, off or auto");
  }
}

std::string Settings::Shown(std::string const& name) const {
  if (name == "paging") return paging_ ? "on" : "off";
  if (name == "timing") return timing_ ? "on" : "off";
  if (name == "width") return width_ ? std::to_string(*width_) : "auto";
  if (expanded_ == Expanded::kAuto) return "auto";
  return expanded_ == Expanded::kOn ? "on" : "off";
}

void Settings::ApplyTo(Output& output) const {
  output.width = width_.value_or(SizeOfTerminal().columns);
  output.fold = expanded_ != Expanded::kOff;
  if (expanded_ == Expanded::kOn) output.chosen = Format::kRecords;
}

}  // namespace tool
