#ifndef SAGLEME_DIAGRAM_HPP
#define SAGLEME_DIAGRAM_HPP

// The inheritance tree with columns and references, drawn in several languages.

#include <sagleme/schema_document.hpp>
#include <string>

namespace sagleme {

// For Graphviz.
SAGLEME_HOST_API std::string DotDiagram(SchemaDoc const& schema);
// A class diagram for Mermaid, whose names have no dots: dots become underscores, with a label.
SAGLEME_HOST_API std::string MermaidDiagram(SchemaDoc const& schema);
// What Graphviz makes of the first. Failure of kRefused when Graphviz is not installed.
SAGLEME_HOST_API std::string SvgDiagram(SchemaDoc const& schema);
// One page that needs nothing else: a tree with a search, and the columns of the table chosen.
SAGLEME_HOST_API std::string HtmlDiagram(SchemaDoc const& schema);

}  // namespace sagleme

#endif
