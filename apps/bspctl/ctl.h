// What the nouns of bspctl share: exit codes, the common options, and printing.
#ifndef BSP_APPS_BSPCTL_CTL_H_
#define BSP_APPS_BSPCTL_CTL_H_

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bsp/base/macros.h"

namespace ctl {

using Json = nlohmann::ordered_json;

enum ExitCode {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNoSuchCommand = 3,
  kTimedOut = 4,
  kOtherSideFailed = 5,
  kNotRunning = 7
};

// The options that every verb knows, and what the chosen verb does.
struct Context {
  bool json = false;
  std::string bus = "127.0.0.1:7800";
  std::function<int()> run;  // set by the parser; its result is the exit code
};

// Each adds one noun (or verb) with its options to the command line.
void AddStatus(CLI::App* app, Context* context);
void AddLevel(CLI::App* app, Context* context);
void AddProp(CLI::App* app, Context* context);
void AddEvent(CLI::App* app, Context* context);
void AddRpc(CLI::App* app, Context* context);
void AddShm(CLI::App* app, Context* context);

// A verb that every noun builds alike: takes --json and runs `body`.
CLI::App* AddVerb(CLI::App* noun, Context* context, const std::string& name,
                  const std::string& text, std::function<int()> body);

// Tells a failure on standard error, "bspctl: TEXT", and gives the code back.
int Fail(ExitCode code, const char* fmt, ...) BSP_PRINTF(2, 3);

// Bytes for people: as they are when they are printable UTF-8 text, else "0x" and hex digits.
std::string Readable(const std::string& bytes);

// The same for a cell of a table: a line feed as "\n", a tab as "\t".
std::string OneLine(const std::string& bytes);

// Bytes for scripts: {"text": ...} when they are printable, else {"hex": ...}.
Json ToJson(const std::string& bytes);

std::string ToHex(const std::string& bytes);

// False when the text is not an even number of hex digits.
bool FromHex(const std::string& text, std::string* bytes);

// One line on standard output, flushed, so that a reader behind a pipe sees it at once.
void PrintLine(const std::string& line);

// One JSON object on a line of its own; what is no UTF-8 in it is replaced.
void PrintJson(const Json& object);

// Rows under a head, columns aligned; bold head on a terminal.
class Table {
 public:
  explicit Table(std::vector<std::string> head);

  // Cells may carry colour; see Paint.
  void AddRow(std::vector<std::string> cells);
  void Print() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// The text in red or green on a terminal, else as it is.
enum class Colour { kRed, kGreen };
std::string Paint(const std::string& text, Colour colour);

// True when standard output is a terminal.
bool IsTerminal();

}  // namespace ctl

#endif  // BSP_APPS_BSPCTL_CTL_H_
