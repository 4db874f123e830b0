#include "run_tool.h"

namespace tool_test {
namespace {

TEST_F(ToolTest, DiagramAsSvg_IsDrawnByGraphviz) {
  Create();
  Apply(kLibrary);
  EXPECT_NE(std::string::npos, On("diagram", {"--as", "svg"}).out.find("</svg>"));
}

}  // namespace
}  // namespace tool_test
