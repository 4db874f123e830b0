#ifndef SAGLEME_TOOL_BASE_TRUNCATION_H
#define SAGLEME_TOOL_BASE_TRUNCATION_H

// What becomes of a process whose data file another program truncates.
//
// Files are read where they are mapped, so the next access to the missing part raises SIGBUS in
// whatever thread that is. No work can continue from there. What the process can do is name the
// file before it ends, with an exit status of its own.

namespace tool {

// Handles SIGBUS for the rest of the process. One that no mapped file causes ends it as before.
void ReportTruncatedFiles();

}  // namespace tool

#endif
