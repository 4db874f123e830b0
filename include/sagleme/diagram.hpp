#ifndef SAGLEME_DIAGRAM_HPP
#define SAGLEME_DIAGRAM_HPP

// The inheritance tree with columns and references, drawn in several languages.

#include <sagleme/schema_document.hpp>
#include <string>

namespace sagleme {

// For Graphviz.
SAGLEME_HOST_API std::string DotDiagram(SchemaDoc const& schema);
// A class diagram for Mermaid, which allows no dots in names: they become underscores, with a
// label.
SAGLEME_HOST_API std::string MermaidDiagram(SchemaDoc const& schema);
// The first form rendered by Graphviz. Throws Failure of kRefused if Graphviz is not installed.
SAGLEME_HOST_API std::string SvgDiagram(SchemaDoc const& schema);
// A self-contained page: a tree with a search, and the columns of the selected table.
SAGLEME_HOST_API std::string HtmlDiagram(SchemaDoc const& schema);

}  // namespace sagleme

#endif
