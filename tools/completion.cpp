// What can come next on the command line, from the same description that --help prints.
#include <cstdio>

#include "commands.h"

namespace {

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

}  // namespace

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
