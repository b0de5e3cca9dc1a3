#!/usr/bin/env bash
# A whole small device on this machine, in about 40 seconds: broker, log server and three modules
# that work on the machine's real counters. Everything it says is computed from what happened. It
# runs in namespaces of its own where the kernel allows it, and leaves nothing behind.
#
#   scripts/demo.sh [--keep]    --keep: the device stays up afterwards, with a shell inside it
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
bin=$root/build/release/bin
examples=$root/build/release/examples
port=7800

keep=0
inside=0
for word in "$@"; do
  case "$word" in
    --keep) keep=1 ;;
    --inside) inside=1 ;; # set by this script itself, behind the step into the namespaces
    -h | --help) echo "usage: scripts/demo.sh [--keep]"; exit 0 ;;
    *) echo "usage: scripts/demo.sh [--keep]" >&2; exit 2 ;;
  esac
done

bold='' plain=''
[ -t 1 ] && bold=$'\033[1m' plain=$'\033[0m'
say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
tell() { printf '  %s\n' "$*"; }
die() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}

# ---- outside: build, then step into a device of our own --------------------------------------------

if [ "$inside" -eq 0 ]; then
  say "Setting up and building (the first time takes a minute or two)"
  ./scripts/setup.sh
  command -v ninja >/dev/null && export CMAKE_GENERATOR="${CMAKE_GENERATOR:-Ninja}"
  build_log=$(mktemp /tmp/bsp-build-XXXXXX)
  if ! { cmake --preset release && cmake --build --preset release -j "$(nproc)" \
    --target bsp-broker bsp-logd bspctl examples; } >"$build_log" 2>&1; then
    tail -n 30 "$build_log" >&2
    rm -f "$build_log"
    die "the build failed"
  fi
  rm -f "$build_log"
  tell "library: $(stat -Lc %s build/release/lib/libbsp.so) bytes"

  args=(--inside)
  [ "$keep" -eq 1 ] && args+=(--keep)
  spaces=(--ipc --net --mount --pid --fork --kill-child --mount-proc)
  [ "$(id -u)" -eq 0 ] || spaces=(--user --map-root-user "${spaces[@]}")
  if unshare "${spaces[@]}" true 2>/dev/null; then
    exec unshare "${spaces[@]}" "$root/scripts/demo.sh" "${args[@]}"
  fi
  tell "the kernel refuses private namespaces: running beside what is on this machine"
  [ -z "$("$bin/bspctl" shm list --json)" ] ||
    die "bsp already runs here or left segments (bspctl shm list): refusing to disturb it"
  "$bin/bspctl" rpc check demo >/dev/null 2>&1 || [ $? -eq 7 ] ||
    die "something listens on port $port already: refusing to disturb it"
  export BSP_DEMO_SHARED=1
  exec "$root/scripts/demo.sh" "${args[@]}"
fi

# ---- inside ----------------------------------------------------------------------------------------

ip link set lo up 2>/dev/null || true
work=$(mktemp -d /tmp/bsp-demo-XXXXXX)
export PATH=$bin:$PATH
declare -A pids=()

clean_up() {
  local name
  for name in "${!pids[@]}"; do
    kill -CONT "${pids[$name]}" 2>/dev/null || true
    kill -TERM "${pids[$name]}" 2>/dev/null || true
  done
  for name in "${!pids[@]}"; do
    wait "${pids[$name]}" 2>/dev/null || true
  done
  if [ -n "${BSP_DEMO_SHARED:-}" ]; then # in a namespace the segments go with it
    local key
    for key in $(bspctl shm list --json | sed -n 's/.*"key":"\([^"]*\)".*/\1/p' | sort -u); do
      bspctl shm remove --force "$key" || true
    done
  fi
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# start NAME COMMAND...: in the background, output to NAME.log
start() {
  local name=$1
  shift
  "$@" >>"$work/$name.log" 2>&1 &
  pids[$name]=$!
}

# stop NAME: orderly; fails when the program did
stop() {
  local pid=${pids[$1]}
  unset "pids[$1]"
  kill -TERM "$pid"
  wait "$pid"
}

# await SECONDS WHAT COMMAND...: until the command succeeds
await() {
  local limit=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$limit" ] || die "waited in vain for $what (logs: $(tail -n 3 "$work"/*.log))"
    sleep 0.1
  done
}

has_line() { grep -q -- "$2" "$work/$1.log"; }
is_late() { bspctl status --json | grep -q "\"module\":\"$1\".*\"late\":true"; }
rows() { sqlite3 -readonly "$work/sys_log.db" "select count(*) from $1"; }
debug_lines() { grep -c '<debug>.*sample n=' "$work/sampler.log" || true; }

began=$SECONDS
cat >"$work/com_srv_app.ini" <<INI
[record]
log_db_file = $work/sys_log.db
INI

say "1. Log server first, then the broker, then the modules"
start bsp-logd bsp-logd --dir "$work"
await 10 "the log server" has_line bsp-logd "bsp-logd ready"
start bsp-broker bsp-broker --port $port
await 10 "the broker" has_line bsp-broker "bsp-broker ready"
tell "$(grep ready "$work/bsp-logd.log"), $(grep ready "$work/bsp-broker.log")"
start actuator "$examples/actuator" $port
await 10 "the actuator" bspctl rpc check fan.set
start governor "$examples/governor" $port
await 10 "the governor" bspctl rpc check device.sample
start sampler "$examples/sampler" $port
await 10 "the first decision" has_line governor "answer: ok"
tell "sampler and governor speak C++, actuator speaks C; pids ${pids[sampler]}, ${pids[governor]}, ${pids[actuator]}"

say "2. The traffic: samples of this machine, as any listener sees them"
timeout 3.3 bspctl rpc listen device.sample 2>/dev/null | tee "$work/traffic" | sed 's/^/  /' || true
[ -s "$work/traffic" ] || die "no samples came"
tell "and what the governor made of them:"
grep -o 'cpu .*' "$work/governor.log" | tail -n 2 | sed 's/^/  /'

say "3. bspctl status"
bspctl status | sed 's/^/  /'

say "4. A level change in the running sampler: debug on, and off again"
before=$(debug_lines)
bspctl level sampler debug
await 5 "a debug line" has_line sampler '<debug>.*sample n='
sleep 1
bspctl level sampler info
after=$(debug_lines)
tell "debug lines before: $before, after: $after; the last one:"
grep '<debug>.*sample n=' "$work/sampler.log" | tail -n 1 | sed 's/^/  /'

say "5. The governor hangs (SIGSTOP): the watchdog allows it 20 seconds"
kill -STOP "${pids[governor]}"
stopped_at=$SECONDS

say "6. The actuator is killed (SIGKILL), and a new one takes its command over"
old_answer=$(bspctl rpc call fan.set speed=30)
kill -KILL "${pids[actuator]}"
wait "${pids[actuator]}" 2>/dev/null || true
code=0
bspctl rpc call fan.set speed=30 2>"$work/refusal" || code=$?
tell "a call now: $(cat "$work/refusal") (exit code $code)"
[ "$code" -eq 3 ] || die "expected exit code 3 for a command without listener"
start actuator "$examples/actuator" $port
await 10 "the new actuator" bspctl rpc check fan.set
new_answer=$(bspctl rpc call fan.set speed=45)
tell "before: $old_answer"
tell "after:  $new_answer"
[ "$old_answer" != "$new_answer" ] || die "the answer still comes from the dead actuator"

say "7. What lies in shared memory"
bspctl prop list | sed 's/^/  /'
bspctl event list | head -n 5 | sed 's/^/  /'
bspctl shm list | sed 's/^/  /'

say "8. Waiting for the watchdog to find the governor late"
await 40 "the governor to be late" is_late governor
await 15 "the log server to notice" has_line bsp-logd "not feed the dog"
late_after=$((SECONDS - stopped_at))
bspctl status | sed 's/^/  /'
kill -CONT "${pids[governor]}"
is_not_late() { ! is_late governor; }
await 10 "the governor to recover" is_not_late
tell "found late $late_after s after it stopped; woken up, it feeds again"

if [ "$keep" -eq 1 ]; then
  say "The device stays up: bspctl is in the PATH, exit ends everything (logs: $work)"
  if [ -t 0 ]; then
    PS1='device$ ' bash --norc -i || true
  else
    tell "no terminal: press Ctrl-C to end"
    sleep infinity &
    wait $! || true
  fi
fi

say "9. Orderly end; nothing may be lost"
for name in sampler governor actuator bsp-broker bsp-logd; do
  stop "$name" || die "$name ended with a failure: $(tail -n 3 "$work/$name.log")"
done

say "10. The rows that reached SQLite"
sqlite3 -readonly "$work/sys_log.db" \
  "select '  ' || log from (select * from tbl_ctrl_log order by id desc limit 6) order by id"
sqlite3 -readonly "$work/sys_log.db" "select '  ' || log from tbl_sys_log" | sed '/^$/d'

samples=$(sqlite3 -readonly "$work/sys_log.db" \
  "select log from tbl_ctrl_log where log like 'sampler ends%'" | grep -o '[0-9]\+ samples')
decisions=$(grep -c 'answer: ok' "$work/governor.log")
say "Summary ($((SECONDS - began)) s)"
tell "$samples published, $decisions fan decisions answered"
tell "log level of a running module changed: $((after - before)) debug lines"
tell "actuator killed and taken over; governor found late after $late_after s and recovered"
tell "rows in SQLite: $(rows tbl_ctrl_log) control, $(rows tbl_sys_log) system, $(rows tbl_bus_log) bus"
