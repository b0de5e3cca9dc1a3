#!/usr/bin/env bash
# Sets up, builds and tests. Without arguments: the release build. With --all: everything that a
# change must pass (release, asan and tsan builds and tests, clang-tidy, clang-format, the C page).
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: scripts/test.sh [--all]"; }
all=0
case "${1:-}" in
  "") ;;
  --all) all=1 ;;
  -h | --help) usage; exit 0 ;;
  *) usage >&2; exit 2 ;;
esac

step() { printf '\n== %s (%ss)\n' "$*" "$SECONDS"; }

step "set up"
./scripts/setup.sh
command -v ninja >/dev/null && export CMAKE_GENERATOR="${CMAKE_GENERATOR:-Ninja}"
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
jobs=$(nproc)

build_and_test() {
  step "build $1"
  cmake --preset "$1" -DBSP_WERROR=ON >/dev/null
  cmake --build --preset "$1" -j "$jobs"
  step "test $1"
  ctest --preset "$1" -j "$jobs"
}

check_format() {
  step "clang-format"
  git ls-files -- 'bsp/*' 'apps/*' 'examples/*' 'tests/*' 'bench/*' |
    grep -E '\.(h|cc|c)$' | xargs -r clang-format --dry-run -Werror
}

check_c_page() {
  step "bsp/bsp.h as C11 and C++17"
  local flags=(-Wall -Wextra -Werror -pedantic -fsyntax-only -I.)
  gcc -std=c11 "${flags[@]}" -x c bsp/bsp.h
  g++ -std=c++17 "${flags[@]}" -x c++ bsp/bsp.h
}

# The library and programs that changed since the last landed state; all of them where git cannot
# tell, or where a header changed and with it everything that includes it.
check_tidy() {
  step "clang-tidy"
  local base changed sources
  sources=$(git ls-files -- 'bsp/*.cc' 'apps/*.cc')
  if base=$(git rev-parse --verify -q origin/main) && [ "$base" != "$(git rev-parse HEAD)" ]; then
    changed=$(git diff --name-only --diff-filter=d "$base" -- 'bsp/*' 'apps/*')
    if ! grep -qE '\.h$' <<<"$changed"; then
      sources=$(grep -E '\.cc$' <<<"$changed" || true)
    fi
  fi
  # gcc's own warning names and the launcher mean nothing to clang-tidy; an option that clang does
  # not know stops it.
  mkdir -p build/tidy
  sed 's/ -fno-gnu-unique//' build/release/compile_commands.json >build/tidy/compile_commands.json
  xargs -r -P "$jobs" -n 1 clang-tidy -p build/tidy --quiet <<<"$sources" 2>/dev/null
}

# The comments of the headers, where doxygen is installed; the build itself does not need it.
check_docs() {
  command -v doxygen >/dev/null || return 0
  step "doxygen"
  cmake --build --preset release --target docs
}

build_and_test release
if [ "$all" -eq 1 ]; then
  check_format
  check_c_page
  check_docs
  check_tidy
  build_and_test asan
  build_and_test tsan
fi
step "all passed"
