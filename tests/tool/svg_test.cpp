#include "run_tool.h"

namespace tool_test {
namespace {

TEST_F(ToolTest, DiagramAsSvg_IsDrawnByGraphviz) {
  Create();
  Apply(kLibrary);
  EXPECT_NE(std::string::npos, On("diagram", {"--as", "svg"}).out.find("</svg>"));
}

// A screen is scrolled downwards, not sideways.
TEST_F(ToolTest, DiagramAsSvg_ManyTables_IsNotWide) {
  Create();
  std::string schema = R"({"schema": 1, "tables": [{"name": "Top"})";
  for (int i = 0; i < 150; ++i) {
    schema += ", {\"name\": \"T" + std::to_string(i) + "\", \"base\": \"Top\"}";
  }
  Apply(schema + "]}");
  std::string const svg = On("diagram", {"--as", "svg", "--limit", "0"}).out;
  auto const width = svg.find("<svg width=\"");
  ASSERT_NE(std::string::npos, width);
  EXPECT_LT(std::stoi(svg.substr(width + 12)), 1000);
}

}  // namespace
}  // namespace tool_test
