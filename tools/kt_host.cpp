// kt-host: loads libkt_DefaultManager.so and extension modules through their
// export tables and shows the registry, the metrics and live samples.
//
// The library and the example modules are found next to the program: installed,
// in <prefix>/lib/libkt_DefaultManager.so and the module directory
// <prefix>/lib/kt/modules; in the build tree, where CMake put them. Nothing
// absolute is compiled in.
//
// Exit status: 0 on success (a signal that stops a command is a success), 1
// when a command fails, 2 for a bad option, a library or module that cannot be
// loaded, a module given twice, or an extension the manager refuses.
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "host_loader.h"
#include "network.h"
#include "http_export.h"

namespace {

using namespace kt_host;

// The sub-commands that run before anything is loaded (keygen).
struct HostlessCommand {
  CLI::App* app;
  std::function<int()> run;
};

struct Options {
  std::string library;
  std::string moduleDir;
  std::vector<std::string> modules;
  bool noExamples = false;
  bool all = false;
  WatchOptions watch;
  NetOptions net;
  std::string netModule;  // the transport module's path, when net.Any()
  long serveSeconds = 0;
  bool serving = false;  // serve does not wait for its dialled peers
  std::string keygenDir;
  std::string keygenName = "kt";
  std::vector<HostlessCommand> hostless;
  std::string http;  // --http: the exporter's address; "" for no exporter
};

int Error(const std::string& message, int code) {
  std::fprintf(stderr, "kt-host: %s\n", message.c_str());
  return code;
}

void OnStopSignal(int) { g_stopSignal = 1; }

// SIGINT and SIGTERM stop the running command; the host then unloads as
// after any command and exits 0.
void CatchStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The directory of the running program, from /proc/self/exe.
std::string ProgramDir() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return ".";
  std::string dir(path, static_cast<size_t>(length));
  return dir.substr(0, dir.rfind('/'));
}

// The first of `candidates` (relative to the program's directory, or
// absolute) that exists; the first when none does, so that the error names it.
std::string FirstThatExists(const std::vector<std::string>& candidates) {
  const std::string dir = ProgramDir();
  std::vector<std::string> paths;
  for (const std::string& candidate : candidates) {
    paths.push_back(candidate.front() == '/' ? candidate : dir + "/" + candidate);
    if (Exists(paths.back())) return paths.back();
  }
  return paths.front();
}

std::vector<std::string> Split(const std::string& list) {
  std::vector<std::string> items;
  size_t at = 0;
  while (at <= list.size()) {
    size_t end = list.find(':', at);
    if (end == std::string::npos) end = list.size();
    if (end > at) items.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  return items;
}

// The modules to open, examples first: each as an absolute path, so that a
// bare file name means the one in the current directory, and one file given
// twice is told apart from two files of the same name.
int ModuleList(const Options& options, std::vector<std::string>* out) {
  std::vector<std::string> given;
  if (!options.noExamples) {
    const std::string dir = options.moduleDir.empty()
                                ? FirstThatExists({KT_INSTALLED_MODULE_DIR, KT_BUILD_MODULE_DIR})
                                : options.moduleDir;
    for (const std::string& name : Split(KT_EXAMPLE_MODULES)) given.push_back(dir + "/" + name);
  }
  given.insert(given.end(), options.modules.begin(), options.modules.end());
  std::set<std::string> seen;
  for (const std::string& path : given) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
      return Error("cannot load module: " + path + ": no such file", kUsageError);
    }
    if (!seen.insert(resolved).second) {
      return Error("module " + path + " is given twice", kUsageError);
    }
    out->push_back(resolved);
  }
  return 0;
}

// The sub-commands. A new one adds its options to its own CLI::App and its
// run function here; Run finds it by the App the parser selected.
struct Command {
  CLI::App* app;
  std::function<int(HostLoader&)> run;
};

void AddNetworkCommands(CLI::App& app, Options& options, std::vector<Command>* commands);

std::vector<Command> AddCommands(CLI::App& app, Options& options) {
  std::vector<Command> commands;
  CLI::App* tree = app.add_subcommand("tree", "Print the registry as a tree of its nodes");
  tree->add_flag("--all", options.all,
                 "Also print the unlisted branches (conduits, peers) and \"handles\", the index "
                 "of every node by handle");
  commands.push_back({tree, [&options](HostLoader& host) { return TreeCommand(host, options.all); }});

  CLI::App* metrics = app.add_subcommand("metrics", "Print every metric with its description");
  commands.push_back({metrics, [](HostLoader& host) { return MetricsCommand(host); }});

  CLI::App* probes = app.add_subcommand(
      "probes", "Create, drive and destroy one probe of every probe type");
  commands.push_back({probes, [](HostLoader& host) { return ProbesCommand(host); }});

  CLI::App* watch = app.add_subcommand("watch", "Show live samples of the available metrics");
  watch->add_option("--seconds", options.watch.seconds,
                    "How long to watch; 0 watches until SIGINT or SIGTERM")
      // CLI11's own range check would print the largest double as the bound.
      ->check(CLI::Validator(
          [](std::string& text) {
            return text.find('-') == 0 ? std::string("must be 0 or more") : std::string();
          },
          "NONNEGATIVE"))
      ->capture_default_str();
  watch->add_option("--match", options.watch.match,
                    "Watch only metrics whose path contains TEXT; repeat to watch several")
      ->type_name("TEXT")
      ->allow_extra_args(false);
  watch->add_option("--format", options.watch.format,
                    "table (redrawn in place; the default on a terminal), lines (the default "
                    "otherwise), json (one object per line) or csv (with a header)")
      ->check(CLI::IsMember({"table", "lines", "json", "csv"}));
  commands.push_back({watch, [&options](HostLoader& host) {
                        return WatchCommand(host, options.watch);
                      }});
  AddNetworkCommands(app, options, &commands);
  return commands;
}

void AddNetworkCommands(CLI::App& app, Options& options, std::vector<Command>* commands) {
  CLI::App* serve = app.add_subcommand(
      "serve", "Serve this host's registry to its peers, its metrics over HTTP, or both, until "
               "SIGINT or SIGTERM (needs --listen, --connect or --http)");
  serve->add_option("--seconds", options.serveSeconds, "Stop after N seconds; 0 never")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  serve->callback([&options] {
    if (!options.net.Any() && options.http.empty()) {
      throw CLI::ValidationError("serve", "needs --listen, --connect or --http");
    }
    options.serving = true;
  });
  commands->push_back({serve, [&options](HostLoader& host) {
                         return ServeCommand(host, options.netModule, options.serveSeconds);
                       }});

  CLI::App* keygen = app.add_subcommand(
      "keygen", "Write a new CURVE key pair: DIR/NAME.public and DIR/NAME.secret (mode 0600)");
  keygen->add_option("DIR", options.keygenDir, "Where to write the keys (made when missing)")
      ->required();
  keygen->add_option("--name", options.keygenName, "The key files' name")->capture_default_str();
  options.hostless.push_back({keygen, [&options] {
                                return KeygenCommand(options.keygenDir, options.keygenName);
                              }});
  // The network options are the host's, also when given after a sub-command.
  for (const Command& command : *commands) command.app->fallthrough();
  keygen->fallthrough();
}

// The transport module: in the module directory when one is given or
// installed, else where the build made it. Resolved, as ModuleList resolves.
std::string NetModulePath(const Options& options) {
  const std::string path =
      options.moduleDir.empty()
          ? FirstThatExists({std::string(KT_INSTALLED_MODULE_DIR "/") + kNetModuleFile,
                             std::string(KT_BUILD_NET_MODULE_DIR "/") + kNetModuleFile})
          : options.moduleDir + "/" + kNetModuleFile;
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

// Without a sub-command: the demonstration, each step unless a signal came.
int Demonstrate(HostLoader& host, const Options& options) {
  const std::function<int()> steps[] = {
      [&] { return TreeCommand(host, false); },
      [&] { return MetricsCommand(host); },
      [&] { return ProbesCommand(host); },
      [&] { return WatchCommand(host, options.watch); },
  };
  int status = 0;
  for (const auto& step : steps) {
    if (g_stopSignal) break;
    if (&step != &steps[0]) std::printf("\n");
    status |= step();
  }
  return status != 0 ? kCommandFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "kt-host loads the metrics framework's manager library and extension modules through "
      "their export tables, then shows the registry, the metrics and live samples. Without a "
      "command it runs the demonstration: tree, metrics, probes and a 5-second watch.",
      "kt-host"};
  app.set_version_flag("--version", "kt-host " KT_VERSION);
  app.add_option("--library", options.library,
                 "The manager library to load (default: libkt_DefaultManager.so installed "
                 "beside the program)")
      ->type_name("PATH");
  app.add_option("--load", options.modules,
                 "Add the extension module at PATH (a file name is looked up in the current "
                 "directory) after the example modules; repeat to add several")
      ->type_name("PATH")
      ->allow_extra_args(false);
  app.add_flag("--no-examples", options.noExamples,
               "Do not add the example modules of the module directory");
  app.add_option("--module-dir", options.moduleDir,
                 "Where the example modules are (default: lib/kt/modules beside the program)")
      ->type_name("DIR");
  AddNetworkOptions(app, options.net);
  app.add_option("--http", options.http,
                 "Also serve the metrics over HTTP at ADDRESS (HOST:PORT, e.g. 127.0.0.1:9464; "
                 "port 0 picks a free one): Prometheus at /metrics, live charts at /")
      ->type_name("ADDRESS");
  // Global options may also follow the command (kt-host watch --http ...).
  app.fallthrough();
  app.require_subcommand(0, 1);
  app.footer(
      "Each command has its own --help. Exit status: 0 on success or when stopped by SIGINT or "
      "SIGTERM, 1 when a command fails, 2 for a usage error or a module that cannot be loaded.");
  const std::vector<Command> commands = AddCommands(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForVersion& version) {
    return app.exit(version);
  } catch (const CLI::ParseError& error) {
    return Error(std::string(error.what()) + " (try --help)", kUsageError);
  }
  CatchStopSignals();
  for (const HostlessCommand& command : options.hostless) {
    if (command.app->parsed()) return command.run();
  }
  if (options.net.Any()) {
    options.netModule = NetModulePath(options);
    options.modules.push_back(options.netModule);
  }

  std::vector<std::string> modules;
  if (const int code = ModuleList(options, &modules)) return code;
  const std::string library = options.library.empty()
                                  ? FirstThatExists({KT_INSTALLED_LIBRARY, KT_BUILD_LIBRARY})
                                  : options.library;
  HostLoader host;
  // Modules are opened and checked before anything is created, so that a bad
  // one stops the host before any extension runs.
  for (const std::string& module : modules) {
    if (!host.OpenModule(module)) return Error(host.Error(), kUsageError);
  }
  if (options.net.Any() && !ConfigureTransport(host, options.netModule, options.net)) {
    return kUsageError;
  }
  const std::string exporter = FirstThatExists(
      {options.moduleDir.empty() ? KT_INSTALLED_EXPORTER : options.moduleDir + "/" KT_EXPORTER_FILE,
       KT_INSTALLED_EXPORTER, KT_BUILD_EXPORTER});
  if (!options.http.empty()) {
    if (const int code = OpenExporter(host, exporter, options.http)) return code;
  }
  if (!host.OpenLibrary(library)) return Error(host.Error(), kUsageError);
  if (!host.AddOpenedModules()) return Error("an extension was refused; stopping", kUsageError);
  if (options.net.Any() && !options.serving) WaitForDialledPeers(host, options.net.connect.size());
  host.Manager()->Log(3, "kt-host", "kt-host: %u modules loaded", host.GetModuleCount());
  if (!options.http.empty()) {
    if (const int code = ServeHttp(host, exporter)) return code;
  }

  int status = -1;
  for (const Command& command : commands) {
    if (command.app->parsed()) status = command.run(host);
  }
  if (status == -1) status = Demonstrate(host, options);
  std::fflush(stdout);
  host.Manager()->Log(3, "kt-host", "kt-host: shutting down");
  const unsigned int count = host.GetModuleCount();
  host.Shutdown();
  if (g_stopSignal) std::fprintf(stderr, "kt-host: stopped by a signal; %u modules unloaded\n", count);
  return status;
}
