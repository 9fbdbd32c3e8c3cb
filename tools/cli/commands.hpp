// The kestrel tool's subcommands. Each takes the words after its name and returns the exit
// status: 0 done, 1 the arm or a file said no, 2 a usage mistake, 130 stopped by Ctrl-C.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace kestrel::cli {

using Words = std::vector<std::string>;

int command_sim(const Words& words);
int command_monitor(const Words& words);
int command_status(const Words& words);
int command_move(const Words& words);
int command_run(const Words& words);
int command_gravity(const Words& words);
int command_record(const Words& words);
int command_latency(const Words& words);
int command_serve(const Words& words);

// Options of a subcommand: its own plus the connection options.
std::set<std::string> with_connection_valued(std::set<std::string> own);
std::set<std::string> with_connection_flags(std::set<std::string> own);

}  // namespace kestrel::cli
