// bspctl: the operator's tool for a device that runs bsp. Data goes to standard output and nothing
// else does; what went wrong is told on standard error and by the exit code.
#include <csignal>
#include <exception>
#include <string>

#include "apps/bspctl/ctl.h"
#include "bsp/bsp.h"

namespace {

constexpr const char* kExitCodes =
    "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 no such command on the bus, 4 timed out,\n"
    "5 the other side answered with a failure, 7 broker or log server not running.";

// What the parser found wrong, with the words that no noun or verb took.
std::string Explain(const CLI::App* app, const CLI::Error& error) {
  std::string text = std::string("bspctl: ") + error.what();
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError)) {
    for (const std::string& word : app->remaining(true)) text += ", not " + word;
  }
  return text + "\nbspctl --help lists what there is; every noun and verb has its own --help.\n";
}

int Run(int argc, char** argv) {
  CLI::App app("Looks into and steers the modules of a device.", "bspctl");
  app.set_version_flag("--version", "bspctl " BSP_VERSION);
  app.footer(kExitCodes);
  app.require_subcommand(1);
  app.failure_message(Explain);

  ctl::Context context;
  app.add_flag("--json", context.json, "print JSON, one object a line for streams");
  app.add_option("--bus", context.bus, "address of the broker")->capture_default_str();
  ctl::AddStatus(&app, &context);
  ctl::AddLevel(&app, &context);
  ctl::AddProp(&app, &context);
  ctl::AddEvent(&app, &context);
  ctl::AddRpc(&app, &context);
  ctl::AddShm(&app, &context);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // Help and version come as errors of code 0.
    return app.exit(error) == 0 ? ctl::kDone : ctl::kUsage;
  }
  return context.run();
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  g_log_level = -1;  // the library's log lines would mix with the data on standard output
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    return ctl::Fail(ctl::kFailed, "%s", error.what());
  }
}
