#ifndef SAGLEME_TOOL_SHELL_SETTINGS_H
#define SAGLEME_TOOL_SHELL_SETTINGS_H

// What a user sets at the prompt, and how it shows in the output of a line.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "output/format.h"

namespace tool {

class Settings {
 public:
  // The words that set something, with their meaning, for help and completion.
  static std::vector<std::pair<std::string, std::string>> Words();

  // Sets what a line names, or shows it where no value is given. False when the line is no
  // setting's. Failure with kUsage for a value that it does not take.
  bool Take(std::vector<std::string> const& words, Output const& output);

  // For the output of one line.
  void ApplyTo(Output& output) const;
  bool paging() const { return paging_; }
  bool timing() const { return timing_; }

 private:
  enum class Expanded { kAuto, kOn, kOff };

  void Set(std::string const& name, std::string const& value);
  std::string Shown(std::string const& name) const;

  Expanded expanded_ = Expanded::kAuto;
  bool paging_ = true;
  bool timing_ = false;
  std::optional<std::size_t> width_;
};

}  // namespace tool

#endif
