// bspctl: the operator's tool for a device that runs bsp. Data goes to standard output and nothing
// else does; what went wrong is told on standard error and by the exit code.
#include <string>

#include "apps/bspctl/ctl.h"
#include "apps/common/host.h"
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

}  // namespace

int main(int argc, char** argv) {
  g_log_level = -1;  // the library's log lines would mix with the data on standard output
  CLI::App command("Looks into and steers the modules of a device.", "bspctl");
  command.set_version_flag("--version", "bspctl " BSP_VERSION);
  command.footer(kExitCodes);
  command.require_subcommand(1);
  command.failure_message(Explain);

  ctl::Context context;
  command.add_flag("--json", context.json, "print JSON, one object a line for streams");
  command.add_option("--bus", context.bus, "address of the broker")->capture_default_str();
  ctl::AddStatus(&command, &context);
  ctl::AddLevel(&command, &context);
  ctl::AddProp(&command, &context);
  ctl::AddEvent(&command, &context);
  ctl::AddRpc(&command, &context);
  ctl::AddShm(&command, &context);
  return app::RunProgram(&command, argc, argv, [&] { return context.run(); });
}
