// The subcommands. Each adds itself to the command line; its callback does the work.
#pragma once

#include <CLI/CLI.hpp>
#include <stdexcept>
#include <string>

// A command that cannot do its work: the message goes to standard error, the exit code is 1.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void add_ini_commands(CLI::App& app);
void add_system_commands(CLI::App& app);
void add_userdata_commands(CLI::App& app);
void add_probe_command(CLI::App& app);
void add_frames_command(CLI::App& app);
void add_convert_command(CLI::App& app);
void add_timer_command(CLI::App& app);
void add_text_commands(CLI::App& app);
void add_basecheck_command(CLI::App& app);
