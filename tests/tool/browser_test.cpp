#include "run_tool.h"

namespace tool_test {
namespace {

bool Shows(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

// The page, with a script behind it that does what a user would, as the browser shows it
// afterwards.
TEST_F(ToolTest, DiagramAsHtml_ShowsTheTreeFindsAndOpensATable) {
  Create();
  Apply(kLibrary);
  std::string page = On("diagram", {"--as", "html"}).out;
  std::string const script =
      "<script>const field = document.getElementById('search'); field.value = 'isbn';"
      "field.dispatchEvent(new Event('input'));"
      "[...document.querySelectorAll('nav button')].find(b => b.textContent === "
      "'App.Book').click();"
      "</script></body>";
  page.replace(page.rfind("</body>"), 7, script);
  std::string const file = Write("page.html", page);
  std::string const shown = OutputOf(
      "chromium --headless --no-sandbox --disable-gpu --user-data-dir='" + Path("profile") +
      "' --virtual-time-budget=2000 --dump-dom 'file://" + file + "' 2>/dev/null");
  EXPECT_TRUE(Shows(shown, "<li><button class=\"chosen\">App.Book</button>")) << shown;
  EXPECT_TRUE(Shows(shown, "<li class=\"hidden\"><button>App.Film</button>")) << shown;
  EXPECT_TRUE(Shows(shown, "<h1>App.Book</h1>")) << shown;
  EXPECT_TRUE(
      Shows(shown, "<td>Isbn</td><td>ulong</td><td>never</td><td><button>App.Book</button></td>"))
      << shown;
}

TEST_F(ToolTest, DiagramAsHtml_OpensTheTableThatALinkNamesAndFitsAPhone) {
  Create();
  Apply(kLibrary);
  std::string const file = Write("page.html", On("diagram", {"--as", "html"}).out);
  std::string const browser = "chromium --headless --no-sandbox --disable-gpu --user-data-dir='" +
                              Path("profile") + "' --virtual-time-budget=2000 ";
  std::string const shown =
      OutputOf(browser + "--dump-dom 'file://" + file + "#App.Item' 2>/dev/null");
  EXPECT_TRUE(Shows(shown, "<h1>App.Item</h1>")) << shown;
  EXPECT_TRUE(Shows(shown, "<td>Pages</td><td>long</td><td>allowed</td>")) << shown;
  EXPECT_TRUE(Shows(shown, "content=\"width=device-width, initial-scale=1\"")) << shown;
}

}  // namespace
}  // namespace tool_test
