#ifndef SAGLEME_TOOL_DIAGRAM_DIAGRAM_H
#define SAGLEME_TOOL_DIAGRAM_DIAGRAM_H

// The inheritance tree with columns and references, drawn in several languages.

#include <string>

#include "schema/document.h"

namespace tool {

// For Graphviz.
std::string DotDiagram(SchemaDoc const& schema);
// A class diagram for Mermaid, which knows no dots in names: they become underscores, with a label.
std::string MermaidDiagram(SchemaDoc const& schema);
// What Graphviz makes of the first. Failure with kRefused when it is not installed.
std::string SvgDiagram(SchemaDoc const& schema);
// One page that needs nothing else: a tree with a search, and the columns of the table chosen.
std::string HtmlDiagram(SchemaDoc const& schema);

}  // namespace tool

#endif
