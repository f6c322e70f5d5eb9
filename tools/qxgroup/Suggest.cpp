#include "qxgroup/Suggest.h"

#include <algorithm>
#include <cctype>

#include "qxgroup/Automation.h"

namespace qx::cli {

namespace {

size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = up;
    }
  }
  return row[b.size()];
}

std::vector<std::string> OptionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* o : app.get_options()) {
    for (const std::string& l : o->get_lnames()) names.push_back("--" + l);
    for (const std::string& s : o->get_snames()) names.push_back("-" + s);
  }
  return names;
}

bool IsNumber(const std::string& arg) {
  return arg.size() > 1 && (std::isdigit(static_cast<unsigned char>(arg[1])) || arg[1] == '.');
}

void CheckOption(const CLI::App& app, const CLI::App* sub, const std::string& arg) {
  const std::string name = arg.substr(0, arg.find('='));
  auto known = [&](const std::string& n) {
    return app.get_option_no_throw(n) != nullptr ||
           (sub != nullptr && sub->get_option_no_throw(n) != nullptr);
  };
  if (known(name)) return;
  // Short flags run together ("-qo").
  if (name.size() > 2 && name[1] != '-' &&
      std::all_of(name.begin() + 1, name.end(), [&](char c) { return known({'-', c}); }))
    return;
  std::vector<std::string> names = OptionNames(app);
  if (sub != nullptr) {
    const std::vector<std::string> more = OptionNames(*sub);
    names.insert(names.end(), more.begin(), more.end());
  }
  const std::string near = Closest(name, names);
  const std::string where =
      sub != nullptr ? "qxgroup " + sub->get_name() + " --help" : "qxgroup --help";
  throw UsageError{"unknown option " + name +
                   (near.empty() ? "" : "; did you mean " + near + "?") + " (see " + where + ")"};
}

}  // namespace

std::string Closest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  if (word.size() <= 2) return best;  // "-Z" is one letter off every short option
  size_t bestDistance = std::max<size_t>(2, word.size() / 3) + 1;
  for (const std::string& c : candidates) {
    if (word.size() >= 3 && c.compare(0, word.size(), word) == 0) return c;
    const size_t d = Distance(word, c);
    if (d < bestDistance) {
      best = c;
      bestDistance = d;
    }
  }
  return best;
}

void CheckWords(CLI::App& app, int argc, char** argv) {
  const CLI::App* sub = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") return;
    if (arg.size() > 1 && arg[0] == '-') {
      if (!IsNumber(arg)) CheckOption(app, sub, arg);
      continue;
    }
    if (sub != nullptr) continue;
    std::vector<std::string> names{"help"};
    for (CLI::App* s : app.get_subcommands([](CLI::App*) { return true; })) {
      if (s->get_name() == arg) sub = s;
      names.push_back(s->get_name());
    }
    if (arg == "call") return;  // `call` passes its arguments on as they are
    if (sub != nullptr || (i == 1 && arg == "help")) continue;
    const std::string near = Closest(arg, names);
    throw UsageError{"unknown subcommand \"" + arg + "\"" +
                     (near.empty() ? "" : "; did you mean \"" + near + "\"?") +
                     " (qxgroup --help lists them)"};
  }
}

}  // namespace qx::cli
