// What the system log costs a module, and what the log server sustains.
//
// Runs in namespaces of its own, with the databases on a tmpfs there: the figures are those of the
// processors, not of a disk.
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/pair.h"
#include "bsp/base/socket.h"
#include "bsp/log/log.h"
#include "bsp/log/log_msg.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/util/file_util.h"
#include "bsp/util/time_util.h"

namespace {

using bsp::LogMsg;

constexpr int kBatchRows = 100;
const std::string kLogd = std::string(BSP_BENCH_BIN_DIR) + "/bsp-logd";

void Check(bool is_done, const char* step) {
  if (is_done) return;
  perror(step);
  exit(1);
}

void EnterPrivateWorld() {
  Check(unshare(CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWNS) == 0, "unshare, as root");
  Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  Check(mount("tmpfs", "/mnt", "tmpfs", 0, nullptr) == 0, "tmpfs on /mnt");
  bsp::Socket socket;
  socket.Create(bsp::Socket::SOCKET_DGRAM);
  ifreq up = {};
  strcpy(up.ifr_name, "lo");
  up.ifr_flags = IFF_UP | IFF_RUNNING;
  Check(ioctl(socket.GetNativeSocket(), SIOCSIFFLAGS, &up) == 0, "loopback");
}

// ---- A filtered line

void FilteredLine(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    _log_debug("MOD_BENCH", 7, "f.cc", "f", 1, "value %d", value);
    benchmark::DoNotOptimize(++value);
  }
}

// What keeps a map of thresholds safe without thought.
void MapBehindMutex(benchmark::State& state) {
  static std::mutex mutex;
  static std::map<std::string, int> levels = {{"MOD_BENCH", 6}, {"MOD_BSP", 6}, {"MOD_A", 6}};
  for (auto _ : state) {
    const std::lock_guard<std::mutex> lock(mutex);
    benchmark::DoNotOptimize(levels.find("MOD_BENCH")->second);
  }
}

void FilteredLineOfTwoThreads() {
  constexpr int kCalls = 5000000;
  std::vector<double> samples;
  for (int sample = 0; sample < 9; ++sample) {
    const int64_t begin = bsp::TimeUtil::ClockMillis();
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
      threads.emplace_back([] {
        for (int i = 0; i < kCalls; ++i) _log_debug("MOD_BENCH", 7, "f.cc", "f", 1, "value %d", i);
      });
    }
    for (std::thread& thread : threads) thread.join();
    samples.push_back(static_cast<double>(bsp::TimeUtil::ClockMillis() - begin) * 1e6 / kCalls);
  }
  bench::AddRow("sys_log: filtered _log_debug with a client, 2 threads", bench::Median(samples), 0,
                "ns", bench::Target::AtMost(10));
}

// ---- A record

void Control(benchmark::State& state) {
  int value = 0;
  for (auto _ : state)
    _log_control(1, "f.cc", "f", 1, "valve %d opened by %s", ++value, "governor");
}

void BareSend(benchmark::State& state) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  bsp::SocketAddress server("127.0.0.1", bsp::kLogPort);
  int value = 0;
  for (auto _ : state) {
    LogMsg msg = bsp::kLogMsgPrototype;
    snprintf(msg.log, 1023, "valve %d opened by %s", ++value, "governor");
    sendto(fd, &msg, sizeof msg, 0, server.Native(), bsp::SocketAddress::SizeOf());
  }
  close(fd);
}

// ---- The server

std::string MakeDir(int rows_kept) {
  static int count = 0;
  const std::string dir = "/mnt/" + std::to_string(++count);
  mkdir(dir.c_str(), 0755);
  bsp::FileUtil::WriteToFile(
      dir + "/com_srv_app.ini",
      "[log_size]\nlog_bus_size=" + std::to_string(rows_kept) + "\n[record]\nlog_db_file=log.db\n");
  return dir;
}

// A table of `rows` rows, as the server makes it.
void FillTable(const std::string& dir, int rows) {
  sqlite3* db = nullptr;
  sqlite3_open((dir + "/log.db").c_str(), &db);
  const std::string sql =
      "CREATE TABLE \"tbl_bus_log\" (\"id\" INTEGER, \"timems\" INTEGER NOT NULL, \"level\" "
      "INTEGER, \"trace_id\" INTEGER, \"flow_id\" INTEGER, \"log\" TEXT, PRIMARY KEY(\"id\" "
      "AUTOINCREMENT)); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
      std::to_string(rows) +
      ") INSERT INTO tbl_bus_log(timems, level, trace_id, flow_id, log) SELECT i, 6, i, i, "
      "'valve ' || i || ' opened by governor' FROM n;";
  Check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == 0, "filling the table");
  sqlite3_close(db);
}

int CountRows(const std::string& dir) {
  sqlite3* db = nullptr;
  sqlite3_stmt* count = nullptr;
  sqlite3_open((dir + "/log.db").c_str(), &db);
  sqlite3_prepare_v2(db, "SELECT max(id) FROM tbl_bus_log", -1, &count, nullptr);
  const int rows = sqlite3_step(count) == SQLITE_ROW ? sqlite3_column_int(count, 0) : -1;
  sqlite3_finalize(count);
  sqlite3_close(db);
  return rows;
}

// A process that prints a line once it receives.
struct Process {
  pid_t pid;
  FILE* out;
};

Process Start(const std::function<void()>& body) {
  int ends[2];
  Check(pipe(ends) == 0, "pipe");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    body();
    _exit(1);
  }
  close(ends[1]);
  Process process = {pid, fdopen(ends[0], "r")};
  char line[200];
  Check(fgets(line, sizeof line, process.out) != nullptr, "waiting for the server");
  return process;
}

void End(const Process& process) {
  kill(process.pid, SIGTERM);
  waitpid(process.pid, nullptr, 0);
  fclose(process.out);
}

// CPU time of the process so far.
double CpuUs(const Process& process) {
  clockid_t clock = 0;
  timespec time = {};
  clock_getcpuclockid(process.pid, &clock);
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3;
}

Process StartLogd(const std::string& dir) {
  return Start([&dir] {
    execl(kLogd.c_str(), "bsp-logd", "--dir", dir.c_str(), "--log-level", "2", nullptr);
  });
}

// A socket on the server's port.
int OpenPort(int buffer_bytes) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bsp::SocketAddress port("0.0.0.0", bsp::kLogPort);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes);
  Check(bind(fd, port.Native(), bsp::SocketAddress::SizeOf()) == 0, "port");
  return fd;
}

// The limit: the same system calls and settings, one prepared insert, a commit a hundred rows.
void BareReceiver(const std::string& dir) {
  static volatile sig_atomic_t is_over = 0;
  struct sigaction action = {};
  action.sa_handler = [](int) { is_over = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sqlite3* db = nullptr;
  sqlite3_open((dir + "/log.db").c_str(), &db);
  sqlite3_exec(db,
               "PRAGMA synchronous=FULL; PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; "
               "PRAGMA cache_size=200; PRAGMA temp_store=MEMORY;",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO tbl_bus_log(timems, level, trace_id, flow_id, log) VALUES "
                     "(?, ?, ?, ?, ?)",
                     -1, &insert, nullptr);
  constexpr unsigned kTurn = 64;
  static LogMsg msgs[kTurn];
  iovec pieces[kTurn];
  mmsghdr heads[kTurn] = {};
  for (unsigned i = 0; i < kTurn; ++i) {
    pieces[i] = {&msgs[i], sizeof msgs[i]};
    heads[i].msg_hdr.msg_iov = &pieces[i];
    heads[i].msg_hdr.msg_iovlen = 1;
  }
  pollfd port = {OpenPort(4 << 20), POLLIN, 0};
  puts("ready");
  fflush(stdout);
  int pending = 0;
  for (;;) {
    const bool is_last = is_over != 0;
    const int count = poll(&port, 1, is_last ? 0 : 1000) > 0
                          ? recvmmsg(port.fd, heads, kTurn, MSG_DONTWAIT, nullptr)
                          : 0;
    if (is_last && count <= 0) break;
    for (int i = 0; i < count; ++i) {
      const LogMsg& msg = msgs[i];
      if (pending == 0) sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
      sqlite3_bind_int64(insert, 1, msg.timems);
      sqlite3_bind_int(insert, 2, msg.level);
      sqlite3_bind_int64(insert, 3, msg.trace_id);
      sqlite3_bind_int(insert, 4, msg.flow_id);
      sqlite3_bind_text(insert, 5, msg.log, -1, SQLITE_STATIC);
      sqlite3_step(insert);
      sqlite3_reset(insert);
      if (++pending < kBatchRows) continue;
      sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
      pending = 0;
    }
  }
  if (pending != 0) sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_finalize(insert);
  sqlite3_close(db);
  _exit(0);
}

// Sends `count` records, `rate` a second (0: at once), evenly in steps of a millisecond.
void SendPaced(int count, int rate) {
  const int64_t begin_ms = bsp::TimeUtil::ClockMillis();
  for (int sent = 0; sent < count;) {
    const int64_t due =
        rate == 0 ? count : (bsp::TimeUtil::ClockMillis() - begin_ms + 1) * rate / 1000;
    for (; sent < count && sent < due; ++sent) {
      _log_trace(sent, sent, "f.cc", "f", 1, "valve %d opened by %s", sent, "governor");
    }
    if (sent < count) usleep(500);
  }
}

struct Outcome {
  int lost;
  double cpu_us;  // a row
};

// One server's life under records at this rate, its table at its limit.
Outcome Run(bool is_ours, int rate, int count, int rows_kept) {
  const std::string dir = MakeDir(rows_kept);
  const int before = rows_kept + rows_kept / 10;
  FillTable(dir, before);
  const Process process = is_ours ? StartLogd(dir) : Start([&dir] { BareReceiver(dir); });
  const double start_us = CpuUs(process);
  SendPaced(count, rate);
  usleep(50000);  // the last ones are stored; what the end costs is not theirs
  const double end_us = CpuUs(process);
  End(process);
  const int rows = CountRows(dir) - before;
  return {count - rows, (end_us - start_us) / std::max(rows, 1)};
}

// Whether a server stores all records of a quarter of a second. Twice tried: the machine may have
// been elsewhere for longer than the receive buffer lasts.
bool Sustains(bool is_ours, int rate) {
  return Run(is_ours, rate, rate / 4, 20000).lost == 0 ||
         Run(is_ours, rate, rate / 4, 20000).lost == 0;
}

// The highest rate without loss, by halving the interval.
double FindRate(bool is_ours) {
  int low = 10000;
  int high = 320000;
  while (high - low > low / 20) {
    const int rate = (low + high) / 2;
    (Sustains(is_ours, rate) ? low : high) = rate;
  }
  return low;
}

void Ingest() {
  std::vector<double> ours;
  std::vector<double> limit;
  for (int sample = 0; sample < 3; ++sample) {
    ours.push_back(FindRate(true));
    limit.push_back(FindRate(false));
  }
  bench::AddRow("sys_log: datagrams a second without loss", bench::Median(ours),
                bench::Median(limit), "1/s", bench::Target::RatioAtLeast(0.85));
}

void CpuOfRows() {
  for (const int rows_kept : {1000, 20000, 200000}) {
    std::vector<double> ours;
    std::vector<double> limit;
    for (int sample = 0; sample < 3; ++sample) {
      ours.push_back(Run(true, 20000, 10000, rows_kept).cpu_us);
      limit.push_back(Run(false, 20000, 10000, rows_kept).cpu_us);
    }
    bench::AddRow("sys_log: CPU of a stored row, table of " + std::to_string(rows_kept),
                  bench::Median(ours), bench::Median(limit), "us", bench::Target::RatioAtMost(1.5));
  }
}

void Burst() {
  constexpr int kBurst = 20000;
  std::vector<double> lost;
  for (int sample = 0; sample < 3; ++sample) lost.push_back(Run(true, 0, kBurst, 20000).lost);
  bench::AddRow("sys_log: lost of a burst of 20000", bench::Median(lost), 0, "");
}

void IdleMemory() {
  const Process process = StartLogd(MakeDir(20000));
  std::ifstream status("/proc/" + std::to_string(process.pid) + "/status");
  std::string line;
  double kilobytes = 0;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) kilobytes = strtod(line.c_str() + 6, nullptr);
  }
  End(process);
  bench::AddRow("sys_log: resident memory of bsp-logd, idle", kilobytes / 1024, 0, "MB",
                bench::Target::AtMost(8));
}

}  // namespace

void RegisterBenchmarks() {
  EnterPrivateWorld();
  Check(freopen("/dev/null", "w", stderr) != nullptr, "stderr");
  log_init_v2(6, "bench", 0);
  for (int i = 0; i < 20; ++i) g_log->GetLogLevel("MOD_" + std::to_string(i));
  g_log->GetLogLevel("MOD_BENCH");
  // The records meet a socket that takes none, so that both sides pay the same for it.
  const int sink = OpenPort(1);

  bench::Pair("sys_log: filtered _log_debug with a client, 1 thread", FilteredLine, MapBehindMutex,
              bench::Target::AtMost(8));
  bench::Pair("sys_log: _log_control / bare snprintf and sendto", Control, BareSend,
              bench::Target::RatioAtMost(1.15));
  bench::Custom(FilteredLineOfTwoThreads);
  bench::Custom([sink] { close(sink); });
  bench::Custom(Ingest);
  bench::Custom(CpuOfRows);
  bench::Custom(Burst);
  bench::Custom(IdleMemory);
}
