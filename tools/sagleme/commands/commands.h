#ifndef SAGLEME_TOOL_COMMANDS_COMMANDS_H
#define SAGLEME_TOOL_COMMANDS_COMMANDS_H

// The makers of all commands.

#include <memory>

#include "cli/command.h"

namespace tool {

std::unique_ptr<Command> MakeCreate();
std::unique_ptr<Command> MakeInfo();
std::unique_ptr<Command> MakeTables();
std::unique_ptr<Command> MakeDescribe();
std::unique_ptr<Command> MakeSchema();
std::unique_ptr<Command> MakeApply();
std::unique_ptr<Command> MakeImport();
std::unique_ptr<Command> MakeExport();
std::unique_ptr<Command> MakeDump();
std::unique_ptr<Command> MakeLoad();
std::unique_ptr<Command> MakeGet();
std::unique_ptr<Command> MakeFind();
std::unique_ptr<Command> MakeScan();
std::unique_ptr<Command> MakeCount();
std::unique_ptr<Command> MakeInsert();
std::unique_ptr<Command> MakeSet();
std::unique_ptr<Command> MakeDelete();
std::unique_ptr<Command> MakeRetype();
std::unique_ptr<Command> MakeCheck();
std::unique_ptr<Command> MakeVacuum();
std::unique_ptr<Command> MakeJobs();
std::unique_ptr<Command> MakeCopy();
std::unique_ptr<Command> MakeBackup();
std::unique_ptr<Command> MakeRestore();
std::unique_ptr<Command> MakeChanges();
std::unique_ptr<Command> MakeDiagram();
std::unique_ptr<Command> MakeStubs();
std::unique_ptr<Command> MakeSql();  // where the build has SQL
std::unique_ptr<Command> MakeShell();
std::unique_ptr<Command> MakeComplete();

}  // namespace tool

#endif
