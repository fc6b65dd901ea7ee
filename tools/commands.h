// The subcommands. Each adds itself to the command line; its callback does the work.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "error.h"

void add_ini_commands(CLI::App& app);
void add_monitor_commands(CLI::App& app);
void add_process_commands(CLI::App& app);
void add_userdata_command(CLI::App& app);
void add_meta_command(CLI::App& app);
void add_place_commands(CLI::App& app);
void add_probe_command(CLI::App& app);
void add_frames_command(CLI::App& app);
void add_convert_command(CLI::App& app);
void add_timer_command(CLI::App& app);
void add_text_commands(CLI::App& app);
void add_basecheck_command(CLI::App& app);

// Prints what could stand in place of the last of the words, a line each, for the completion of a shell.
void print_completions(CLI::App& app, const std::vector<std::string>& words);
