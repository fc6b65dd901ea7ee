// The command line: subcommands, what they take and what they do. CLI11 stays out of sight, because what
// includes it takes ten times as long to compile.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// An option, or an argument, which has a name without dashes.
class Option {
 public:
  explicit Option(CLI::Option* option) : option_(option) {}
  const Option& required() const;
  const Option& one_of(const std::vector<std::string>& values) const;
  const Option& between(int least, int most) const;
  const Option& between(double least, double most) const;
  const Option& existing_file() const;
  const Option& shows_default() const;  // the value that is there now, in the help

 private:
  CLI::Option* option_;
};

class Command {
 public:
  explicit Command(CLI::App* app) : app_(app) {}
  // A subcommand; when it gets some itself, one of them must follow it.
  Command add(const std::string& name, const std::string& help) const;
  // `value` must live until the command has run: a bool for a flag, a string, some of them, an int32_t,
  // a double, a string or a uint32_t that may be missing.
  template <class T>
  Option option(const std::string& name, T& value, const std::string& help) const;
  void footer(const std::string& text) const;
  void runs(const std::function<void()>& work) const;
  // What follows on the command line is another program's: the words are passed on as they are.
  void runs_with_rest(const std::function<void(const std::vector<std::string>&)>& work) const;

 private:
  CLI::App* app_;
};

// Declares by `add_commands`, reads the command line and runs what it asks for. The result is an exit code.
int run_command_line(const char* version, int argc, char** argv, void (*add_commands)(const Command& app));
