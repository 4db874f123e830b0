#include <sagleme/diagram.hpp>

#include "commands/commands.h"

namespace tool {
namespace {

class Diagram : public Command {
 public:
  std::string name() const override { return "diagram"; }
  std::string summary() const override {
    return "Draw the tables with their inheritance and references";
  }
  std::vector<Example> examples() const override {
    return {
        {"diagram shop --as html --output shop.html", "a page with a tree that can be searched"},
        {"diagram shop --as svg > shop.svg", "a picture, through Graphviz"}};
  }
  void Declare(CLI::App& app) override {
    AddChoice(app, "--as", form_, {"dot", "mermaid", "svg", "html"},
              "The form of the diagram: dot (the default), mermaid, svg or html");
    app.add_option("--output", file_, "Write to FILE instead of standard output")
        ->type_name("FILE");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string Draw(sagleme::SchemaDoc const& schema) const;

  std::string form_ = "dot";
  std::string file_;
};

std::string Diagram::Draw(sagleme::SchemaDoc const& schema) const {
  if (form_ == "mermaid") return sagleme::MermaidDiagram(schema);
  if (form_ == "svg") return sagleme::SvgDiagram(schema);
  if (form_ == "html") return sagleme::HtmlDiagram(schema);
  return sagleme::DotDiagram(schema);
}

Exit Diagram::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    std::string const text = Draw(sagleme::ReadSchema(transaction, false));
    if (file_.empty()) return output.Print(text);
    NewFileWriter file(file_);
    file.Write(text);
    file.Flush();
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeDiagram() { return std::make_unique<Diagram>(); }

}  // namespace tool
