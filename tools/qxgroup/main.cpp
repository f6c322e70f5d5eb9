// qxgroup: the command-line face of QXGroupMgr. Every FileManager method is a subcommand with a
// friendly name; `call` reaches any member by its type-library name; `info` says what a file is.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <functional>
#include <utility>
#include <string>
#include <vector>

#include "platform/ui.h"
#include "qxgroup/Automation.h"
#include "qxgroup/CallCommand.h"
#include "qxgroup/Commands.h"
#include "qxgroup/PackageCommands.h"
#include "qxgroup/Json.h"
#include "qxgroup/Suggest.h"
#include "resources/Resources.h"

namespace {

using qx::cli::kExitFailed;
using qx::cli::kExitOk;
using qx::cli::kExitUsage;

struct Options {
  bool quiet = false;
  bool verbose = false;
  bool notify = false;
  bool debug = false;
  bool overwrite = false;
  bool neverOverwrite = false;
  bool force = false;
  bool pipe = false;
  bool json = false;
  std::string group;
  std::string file;
  std::string path;
  std::string dest;
  std::string folder;
  std::string pattern;
  bool meta = false;
  bool tree = false;
  bool longForm = false;
  std::vector<std::string> items;
  std::string uiMode = "none";
  std::string className = "FileManager";
  std::string onDuplicate = "replace";
  std::string member;
  std::vector<std::string> args;
  std::vector<std::string> sets;
  std::string progId;
  bool unregister = false;
  std::string module;
};

// The class `call --help` should list the members of: the one --class names, when it names one.
std::string ClassNamedIn(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    std::string name;
    if (arg.starts_with("--class=")) name = arg.substr(8);
    else if (arg == "--class" && i + 1 < argc) name = argv[i + 1];
    if (name.empty()) continue;
    try {
      qx::cli::DescribeMembers(name);
      return name;
    } catch (...) {
      break;  // an unknown class is reported when the command runs
    }
  }
  return "FileManager";
}

CLI::App* Sub(CLI::App& app, const char* name, const char* help, const char* example) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->footer(std::string("Example:\n  ") + example);
  return sub;
}

// -o and -n for the subcommands that write files out of a group.
void AddOverwriteFlags(CLI::App* sub, Options& o) {
  CLI::Option* yes = sub->add_flag("-o,--overwrite", o.overwrite, "Write over existing files");
  sub->add_flag("-n,--never-overwrite", o.neverOverwrite,
                "Keep existing files without a word (default: keep and report them, or ask "
                "on a terminal)")
      ->excludes(yes);
}

// `qxgroup help [CMD]`: the same text as --help.
int Help(CLI::App& app, const std::string& name) {
  if (name.empty()) {
    std::fputs(app.help().c_str(), stdout);
    return kExitOk;
  }
  std::vector<std::string> names;
  for (CLI::App* s : app.get_subcommands([](CLI::App*) { return true; })) {
    if (s->get_name() == name) {
      std::fputs(s->help("qxgroup").c_str(), stdout);
      return kExitOk;
    }
    names.push_back(s->get_name());
  }
  const std::string near = qx::cli::Closest(name, names);
  std::fprintf(stderr, "qxgroup: no subcommand \"%s\"%s (qxgroup --help lists them)\n",
               name.c_str(), near.empty() ? "" : ("; did you mean \"" + near + "\"?").c_str());
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // Prompts find their dialog templates in the compiled-in resources.
  qx::ui::SetTemplateSource(&qx::FindDialogTemplate);
  CLI::App app{"qxgroup: create, change, list and unpack graphing-calculator group files, "
               "split flash files."};
  app.set_version_flag("--version", "qxgroup 1.0.0");
  app.require_subcommand(1);
  app.fallthrough();
  Options o;
  app.add_flag("-q,--quiet", o.quiet, "No warnings (the exit status still tells)");
  app.add_flag("-v,--verbose", o.verbose, "Name each file written, added, kept or deleted");
  app.add_flag("--notify", o.notify, "Report the shell change notifications sent");
  app.add_flag("--debug", o.debug, "Everything --verbose and --notify report");
  app.footer(
      "Examples:\n"
      "  qxgroup create class.mag prog1.map greeting.mas   # a group of two variables\n"
      "  qxgroup list class.mag                            # its members, one a line\n"
      "  qxgroup get class.mag 'main.*' -C out             # copy members out (quote wildcards)\n"
      "\n"
      "Exit status: 0 success, 1 the operation failed, 2 usage error, 3 done with files left "
      "out (not added, or existing files kept), 11 get: some members not found (the others "
      "written).\n"
      "Existing files are never written over unless -o is given (-n keeps them quietly; on a "
      "terminal you are asked), and the file being read never is.\n"
      "Member names are as `list` prints them, with wildcards * ? [...]; folders inside a group "
      "use \"\\\" (\"/\" is accepted); get and extract write members into their folders "
      "under -C, as unzip does.\n"
      "More: qxgroup help SUBCOMMAND, man qxgroup, and the README.");

  // Subcommands run after the whole command line is parsed, so global flags apply to them.
  std::vector<std::pair<CLI::App*, std::function<int()>>> commands;
  using namespace qx::cli;

  CLI::App* create = Sub(app, "create", "Make a new group from files (replaces an existing one)",
                         "qxgroup create school.mag prog1.map greeting.mas");
  create->add_option("group", o.group, "Group file to write (.qxg/.qxp make a zip-based group)")
      ->required();
  create->add_option("files", o.items, "Files to put in it (folders go into .qxg/.qxp as trees)")
      ->required();
  create->add_flag("--force", o.force,
                   "Keep a group name whose extension is not the one of the group made");
  commands.emplace_back(create, [&] { return CmdCreate(o.group, o.items, o.force); });

  CLI::App* add = Sub(app, "add", "Add files to a group", "qxgroup add school.mag area.rap");
  add->add_option("group", o.group, "Group file")->required();
  add->add_option("files", o.items, "Files to add")->required();
  add->add_option("--to", o.folder,
                  "Folder inside the group to add to ('unit1\\'), or a group inside it "
                  "('unit1\\data.kdg')");
  add->add_option("--on-duplicate", o.onDuplicate,
                  "When a member of that name is there: replace (default), ask on the terminal, "
                  "skip the file, or cancel the rest")
      ->check(CLI::IsMember({"replace", "ask", "skip", "cancel"}));
  commands.emplace_back(add, [&] { return CmdAdd(o.group, o.items, o.folder, o.onDuplicate); });

  CLI::App* del = Sub(app, "delete", "Delete members from a group",
                      "qxgroup delete school.mag main.PROG1.map");
  del->add_option("group", o.group, "Group file")->required();
  del->add_option("members", o.items, "Member names as `list` prints them, or quoted wildcards")
      ->required();
  commands.emplace_back(del, [&] { return CmdDelete(o.group, o.items); });

  CLI::App* list = Sub(app, "list", "List the members of a group, one a line",
                       "qxgroup list school.mag");
  list->add_option("group", o.group, "Group file")->required();
  CLI::Option* listJson =
      list->add_flag("--json", o.json, "Print {\"group\":...,\"members\":[...]}");
  list->add_flag("--tree", o.tree, "Show an indented tree, folders and nested groups opened")
      ->excludes(listJson);
  list->add_flag("--long", o.longForm, "With --tree: sizes and dates, as unzip -l shows them")
      ->excludes(listJson);
  list->footer("Examples:\n  qxgroup list school.mag\n  qxgroup list --tree --long lesson.qxg");
  commands.emplace_back(list, [&] {
    return o.tree || o.longForm ? CmdTree(o.group, o.longForm) : CmdList(o.group);
  });

  CLI::App* xml = Sub(app, "xml", "Print the XML listing of a group",
                      "qxgroup xml --meta school.mag");
  xml->add_option("group", o.group, "Group file")->required();
  xml->add_flag("--meta", o.meta, "Include meta information");
  // Alone (or as --subgroups=), the default group extensions: "*".
  CLI::Option* subgroups =
      xml->add_option("--subgroups", o.pattern,
                      "List groups inside the group whose names match (alone: every group "
                      "extension)")
          ->expected(0, 1);
  commands.emplace_back(xml, [&, subgroups] {
    if (subgroups->count() > 0 && o.pattern.empty()) o.pattern = "*";
    return CmdXml(o.group, o.meta, o.pattern);
  });

  CLI::App* get = Sub(app, "get", "Copy members out of a group (the group is unchanged)",
                      "qxgroup get school.mag 'main.*' -C out");
  get->add_option("group", o.group, "Group file")->required();
  get->add_option("members", o.items, "Member names or quoted wildcards ('main.*')")->required();
  get->add_option("-C,--directory", o.dest, "Folder to write into (default: current folder)");
  get->add_flag("-p,--pipe", o.pipe, "Write the members' bytes to standard output");
  AddOverwriteFlags(get, o);
  commands.emplace_back(get, [&] { return CmdGet(o.group, o.items, o.dest, o.pipe); });

  CLI::App* extract = Sub(app, "extract", "Move members out of a group (copy, then delete)",
                          "qxgroup extract school.mag main.PROG1.map -C out");
  extract->add_option("group", o.group, "Group file")->required();
  extract->add_option("members", o.items, "Member names or quoted wildcards ('main.*')")
      ->required();
  extract->add_option("-C,--directory", o.dest, "Folder to write into (default: current folder)");
  AddOverwriteFlags(extract, o);
  commands.emplace_back(extract, [&] { return CmdExtract(o.group, o.items, o.dest); });

  CLI::App* expand = Sub(app, "expand", "Copy every member out of a group",
                         "qxgroup expand school.mag -C out");
  expand->add_option("group", o.group, "Group file")->required();
  expand->add_option("-C,--directory", o.dest, "Folder to write into (default: current folder)");
  AddOverwriteFlags(expand, o);
  commands.emplace_back(expand, [&] { return CmdExpand(o.group, o.dest); });

  CLI::App* flash = Sub(app, "flash", "Split a flash file into its parts, one file a record",
                        "qxgroup flash Hello.kdk -C out");
  flash->add_option("file", o.file, "Flash file")->required();
  flash->add_option("-C,--directory", o.dest, "Folder to write into (default: current folder)");
  AddOverwriteFlags(flash, o);
  commands.emplace_back(flash, [&] { return CmdFlash(o.file, o.dest); });

  CLI::App* split = Sub(app, "split-path", "Cut a path at the group file it runs through",
                        "qxgroup split-path school.mag/main.PROG1.map");
  split->add_option("path", o.path, "Path that may run through a group file")->required();
  split->add_flag("--json", o.json, "Print {\"group\":...,\"inGroup\":...}");
  commands.emplace_back(split, [&] { return CmdSplitPath(o.path); });

  CLI::App* isGroup = Sub(app, "is-group", "Tell whether a path is a group (exit 0) or not (1)",
                          "qxgroup is-group school.mag && echo group");
  isGroup->add_option("path", o.path, "File, or path through a group")->required();
  isGroup->add_flag("--json", o.json, "Print {\"path\":...,\"isGroup\":true|false}");
  commands.emplace_back(isGroup, [&] { return CmdIsGroup(o.path); });

  CLI::App* exists = Sub(app, "exists", "Tell whether a member exists (exit 0) or not (1)",
                         "qxgroup exists school.mag/main.PROG1.map");
  exists->add_option("path", o.path, "Group file path followed by the member's path")
      ->required();
  exists->add_flag("--json", o.json, "Print {\"path\":...,\"exists\":true|false}");
  commands.emplace_back(exists, [&] { return CmdExists(o.path); });

  CLI::App* info = Sub(app, "info", "Say what files are: device family, layout, group or not",
                       "qxgroup info *.mag *.kdk");
  info->add_option("files", o.items, "Files to look at")->required();
  info->add_flag("--json", o.json, "Print {\"files\":[{\"file\":...,\"info\":...}]}");
  commands.emplace_back(info, [&] { return CmdInfo(o.items); });

  CLI::App* call = Sub(app, "call", "Invoke a member of FileManager or QXPackageInfo by name; prints JSON",
                       "qxgroup call ReadContents school.mag");
  call->footer("Examples:\n  qxgroup call ReadContents school.mag\n"
               "  qxgroup call --ui=skip AddFiles school.mag prog1.map \"\"\n"
               "Prints {\"hr\":\"0x00000000\",\"out\":{...}} with every [out] value; exit status "
               "0 for a success code, 1 for a failure code.\n\n" +
               DescribeMembers(ClassNamedIn(argc, argv)));
  call->add_option("--ui", o.uiMode,
                   "Owner window for prompts: none, tty (ask in the terminal), or a fixed "
                   "answer: replace, all, skip, cancel")
      ->check(CLI::IsMember({"none", "tty", "replace", "all", "skip", "cancel"}));
  call->add_option("--class", o.className,
                   "The class to make, by its type-library name (default FileManager)");
  call->add_option("--progid", o.progId,
                   "Make the class registered under this ProgID, from the module the registry "
                   "names (instead of --class)");
  call->add_option("--set", o.sets,
                   "Set a property first, as NAME=VALUE (repeatable), e.g. Filename=lesson.qxp");
  call->add_option("member", o.member, "Member name, e.g. ReadContents")->required();
  call->add_option("args", o.args, "Arguments for its [in] parameters, in order");
  commands.emplace_back(call, [&] { return RunCall(o.className, o.uiMode, o.member, o.args, o.sets, o.progId); });

  CLI::App* package = Sub(app, "package", "Show the metadata of content packages (.qxp)",
                          "qxgroup package lesson.qxp");
  package->add_option("files", o.items, "Package files")->required();
  package->add_flag("--json", o.json, "One JSON object a file: every property with its status");
  commands.emplace_back(package, [&] { return CmdPackage(o.items, o.json); });

  CLI::App* reg = Sub(app, "register", "Write the module's registry entries (or remove them)",
                      "QXGROUPMGR_REGISTRY=/tmp/r.reg qxgroup register --module build/libqxgroupmgr.so");
  reg->add_flag("--unregister", o.unregister, "Remove the entries instead");
  reg->add_option("--module", o.module,
                  "The module to register (default: the one beside this program or in ../lib)");
  commands.emplace_back(reg, [&] { return CmdRegister(o.unregister, o.module); });

  try {
    // `qxgroup help [CMD]`, after any global flags.
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (!arg.empty() && arg[0] == '-') continue;
      if (arg == "help") return Help(app, i + 1 < argc ? argv[i + 1] : "");
      break;
    }
    CheckWords(app, argc, argv);
    app.parse(argc, argv);
    Conventions& settings = Settings();
    settings.quiet = o.quiet;
    settings.verbose = o.verbose || o.debug;
    settings.json = o.json;
    settings.overwrite = ChooseOverwrite(o.overwrite, o.neverOverwrite);
    NotificationEcho echo(o.notify || o.debug);
    for (auto& [sub, command] : commands)
      if (sub->parsed()) return command();
    return kExitUsage;
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string what = e.what();
    if (!what.empty())
      what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
    const CLI::App* sub = nullptr;
    for (CLI::App* s : app.get_subcommands()) sub = s;
    if (what == "A subcommand is required") what = "a subcommand is required";
    std::fprintf(stderr, "qxgroup: %s (see qxgroup %s--help)\n", what.c_str(),
                 sub != nullptr ? (sub->get_name() + " ").c_str() : "");
    return kExitUsage;
  } catch (const UsageError& e) {
    std::fprintf(stderr, "qxgroup: %s\n", e.message.c_str());
    return kExitUsage;
  } catch (const Failure& e) {
    if (Settings().json)
      std::printf("{\"error\":%s,\"code\":%s}\n", qx::cli::JsonString(e.message).c_str(),
                  qx::cli::JsonString(e.code).c_str());
    std::fprintf(stderr, "qxgroup: %s\n", e.message.c_str());
    return kExitFailed;
  }
}
