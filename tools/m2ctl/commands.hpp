#pragma once
// The commands of m2ctl. Each takes the words from its own name on, and returns the exit code.

namespace m2ctl {

int listCommand(int argc, char** argv);
int pubCommand(int argc, char** argv);
int subCommand(int argc, char** argv);
int callCommand(int argc, char** argv);
int simCommand(int argc, char** argv);
int tourCommand(int argc, char** argv);
int checkCommand(int argc, char** argv);

} // namespace m2ctl
