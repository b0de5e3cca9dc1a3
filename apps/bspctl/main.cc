// bspctl: the operator's tool for a device that runs bsp. Data goes to standard output and nothing
// else does; what went wrong is told on standard error and by the exit code.
#include <functional>
#include <memory>
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

std::function<int()> Prepare(CLI::App* command) {
  command->set_version_flag("--version", "bspctl " BSP_VERSION);
  command->footer(kExitCodes);
  command->require_subcommand(1);
  command->failure_message(Explain);

  const auto context = std::make_shared<ctl::Context>();
  command->add_flag("--json", context->json, "print JSON, one object a line for streams");
  command->add_option("--bus", context->bus, "address of the broker")->capture_default_str();
  ctl::AddStatus(command, context.get());
  ctl::AddLevel(command, context.get());
  ctl::AddProp(command, context.get());
  ctl::AddEvent(command, context.get());
  ctl::AddRpc(command, context.get());
  ctl::AddShm(command, context.get());
  return [context] { return context->run(); };
}

}  // namespace

int main(int argc, char** argv) {
  g_log_level = -1;  // the library's log lines would mix with the data on standard output
  return app::RunProgram("bspctl", "Looks into and steers the modules of a device.", argc, argv,
                         Prepare);
}
