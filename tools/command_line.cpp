#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <new>
#include <optional>
#include <sstream>

#include "error.h"
#include "output.h"

// ---- Declaration

const Option& Option::required() const { return option_->required(), *this; }

const Option& Option::one_of(const std::vector<std::string>& values) const {
  return option_->check(CLI::IsMember(values)), *this;
}

const Option& Option::between(int least, int most) const {
  return option_->check(CLI::Range(least, most)), *this;
}

const Option& Option::between(double least, double most) const {
  return option_->check(CLI::Range(least, most)), *this;
}

const Option& Option::existing_file() const { return option_->check(CLI::ExistingFile), *this; }

const Option& Option::shows_default() const { return option_->capture_default_str(), *this; }

Command Command::add(const std::string& name, const std::string& help) const {
  app_->require_subcommand(1);
  return Command(app_->add_subcommand(name, help));
}

template <class T>
Option Command::option(const std::string& name, T& value, const std::string& help) const {
  if constexpr (std::is_same_v<T, bool>) {
    return Option(app_->add_flag(name, value, help));
  } else {
    return Option(app_->add_option(name, value, help));
  }
}
template Option Command::option(const std::string&, bool&, const std::string&) const;
template Option Command::option(const std::string&, double&, const std::string&) const;
template Option Command::option(const std::string&, int32_t&, const std::string&) const;
template Option Command::option(const std::string&, std::string&, const std::string&) const;
template Option Command::option(const std::string&, std::vector<std::string>&, const std::string&) const;
template Option Command::option(const std::string&, std::optional<std::string>&, const std::string&) const;
template Option Command::option(const std::string&, std::optional<uint32_t>&, const std::string&) const;

void Command::footer(const std::string& text) const { app_->footer(text); }

void Command::runs(const std::function<void()>& work) const { app_->callback(work); }

void Command::runs_with_rest(const std::function<void(const std::vector<std::string>&)>& work) const {
  app_->prefix_command();
  app_->callback([app = app_, work] { work(app->remaining()); });
}

namespace {

// ---- Completion

// "TEXT:{annexb,avcc}": the values of an option or argument that has a list of them.
void print_values(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const size_t begin = type.find('{');
  if (begin == type.npos) return;
  for (const std::string& value :
       CLI::detail::split(type.substr(begin + 1, type.find('}') - begin - 1), ',')) {
    std::printf("%s\n", value.c_str());
  }
}

// Prints what could stand in place of the last of the words, a line each, for the completion of a shell.
void print_completions(CLI::App& app, const std::vector<std::string>& words) {
  if (words.empty()) return;
  CLI::App* command = &app;
  const CLI::Option* waiting = nullptr;  // for its value
  size_t place = 0;                      // of the next argument
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    const std::string& word = words[i];
    if (waiting != nullptr) {
      waiting = nullptr;
    } else if (word.size() > 1 && word[0] == '-') {
      const CLI::Option* const option = command->get_option_no_throw(word);
      if (option != nullptr && option->get_items_expected_max() > 0) waiting = option;
    } else if (const auto subs =
                   command->get_subcommands([&](CLI::App* sub) { return sub->get_name() == word; });
               !subs.empty()) {
      command = subs[0];
    } else {
      ++place;
    }
  }
  if (waiting != nullptr) return print_values(*waiting);
  if (words.back().rfind('-', 0) == 0) {
    for (const CLI::Option* const option : command->get_options()) {
      for (const std::string& name : option->get_lnames()) std::printf("--%s\n", name.c_str());
    }
    return;
  }
  for (const CLI::App* const sub : command->get_subcommands({})) std::printf("%s\n", sub->get_name().c_str());
  for (const CLI::Option* const option : command->get_options()) {
    if (option->get_positional() && place-- == 0) print_values(*option);
  }
}

// ---- Running

// To CLI11 a "--" ends a subcommand, too; to `run` it ends only its own options, PROGRAM comes after it.
void drop_end_of_run_options(int& argc, char** argv) {
  if (argc < 2 || std::string(argv[1]) != "run") return;
  for (int i = 2; i < argc && argv[i][0] == '-'; ++i) {
    if (std::string(argv[i]) != "--") continue;
    std::copy(argv + i + 1, argv + argc + 1, argv + i);  // the null after the last word, too
    --argc;
    return;
  }
}

int report_usage_error(const CLI::App& app, const std::exception& error) {
  const CLI::App* command = &app;
  std::string name = "qmxutil";
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().back();
    name += " " + command->get_name();
  }
  const std::vector<std::string> unknown = command->remaining();
  std::string message = error.what();
  // CLI11 misses a subcommand where it met a word that is none.
  if (!unknown.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    const bool is_option = unknown[0].size() > 1 && unknown[0][0] == '-';
    message = std::string("there is no ") + (is_option ? "option " : "subcommand ") + unknown[0];
  }
  std::fprintf(stderr, "%s: %s\nRun \"%s --help\" for more.\n", name.c_str(), message.c_str(), name.c_str());
  return 2;
}

// CLI11 lets lines run on; the columns of what is explained begin at the 31st.
int print_help(const CLI::App& app) {
  constexpr size_t kColumn = 30;
  std::istringstream lines(app.help());
  for (std::string line; std::getline(lines, line);) {
    const bool is_explained = line.rfind("  ", 0) == 0;
    std::printf("%s\n", wrapped(line, is_explained ? kColumn : 0).c_str());
  }
  return 0;
}

int run(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return print_help(app);
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? app.exit(error) : report_usage_error(app, error);
  } catch (const UsageError& error) {
    return report_usage_error(app, error);
  } catch (const std::bad_alloc&) {
    std::fputs("qmxutil: not enough memory\n", stderr);
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qmxutil: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace

int run_command_line(const char* version, int argc, char** argv, void (*add_commands)(const Command& app)) {
  CLI::App app{"Audio, video, text, INI, process and usage utilities.", "qmxutil"};
  app.set_version_flag("--version", version);
  add_commands(Command(&app));
  drop_end_of_run_options(argc, argv);
  if (argc <= 1 || std::string(argv[1]) != "--complete") return run(app, argc, argv);
  print_completions(app, {argv + 2, argv + argc});
  return 0;
}
