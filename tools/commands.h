// The subcommands. Each adds itself to the command line; its callback does the work.
#pragma once

#include "command_line.h"
#include "error.h"

void add_ini_commands(const Command& app);
void add_monitor_commands(const Command& app);
void add_process_commands(const Command& app);
void add_userdata_command(const Command& app);
void add_meta_command(const Command& app);
void add_place_commands(const Command& app);
void add_probe_command(const Command& app);
void add_frames_command(const Command& app);
void add_convert_command(const Command& app);
void add_timer_command(const Command& app);
void add_text_commands(const Command& app);
void add_basecheck_command(const Command& app);
