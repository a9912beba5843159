// CliCommands.cpp -- placeholder until the command layer lands.
#include "CliCommands.h"
int cliExecute(CliSession&, const std::string&, std::string&, std::string& err) {
    err = "not built";
    return -1;
}
