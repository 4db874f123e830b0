#include "page.h"

#include <fmt/format.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "pictures.h"

namespace bench {
namespace {

std::string TextOf(std::string const& name) {
  std::ifstream file(std::string(BENCH_TEXTS) + "/" + name);
  if (!file) throw std::runtime_error("cannot read the text " + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Processor() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    std::size_t const colon = line.find(": ");
    if (line.starts_with("model name") && colon != std::string::npos) return line.substr(colon + 2);
  }
  return "an unknown processor";
}

std::string Circumstances(Settings const& settings) {
  return fmt::format("{} objects, {} round{}, {} hardware threads of {}.\n\n", settings.objects,
                     settings.rounds, settings.rounds == 1 ? "" : "s",
                     std::thread::hardware_concurrency(), Processor());
}

std::string ShownPictures(std::vector<Result> const& results) {
  std::string text;
  for (Picture const& picture : PicturesOf(results)) {
    text += fmt::format("![{}]({})\n\n", picture.title, picture.name);
  }
  return text;
}

}  // namespace

std::string PageOf(std::vector<Result> const& results, Settings const& settings) {
  return TextOf("head.md") + ShownPictures(results) + TextOf("compared.md") + "\n## Figures\n\n" +
         Circumstances(settings) + TableOf(results) + "\n" + TextOf("reasons.md") + "\n" +
         TextOf("commit_log.md");
}

}  // namespace bench
