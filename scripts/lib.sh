# shellcheck shell=bash
# What the scripts share. Sourced by scripts that have set `set -euo pipefail`.

root_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
logs_dir=$root_dir/build/logs

die() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

# quietly WHAT COMMAND...: runs the command, with one line for it here and its output in a file. The output is shown
# when the command fails.
quietly() {
  local what=$1 log start=$SECONDS
  shift
  mkdir -p "$logs_dir"
  log=$logs_dir/${what//[^a-zA-Z0-9]/-}.log
  printf '%s ... ' "$what"
  if "$@" >"$log" 2>&1; then
    printf 'done (%d s)\n' "$((SECONDS - start))"
  else
    printf 'failed\n'
    tail -n 200 "$log" >&2
    die "$what failed; all of its output is in ${log#"$root_dir"/}"
  fi
}

# build PRESET [TARGET...]: configures and builds.
build() {
  local preset=$1
  shift
  cd "$root_dir" || return
  quietly "configure $preset" cmake --preset "$preset"
  quietly "build $preset" cmake --build --preset "$preset" ${1:+--target "$@"}
}

# Where this machine's Debian packages come from, a line in sources.list's form for each suite and component.
debian_sources() {
  # shellcheck disable=SC2016
  apt-get indextargets --format 'deb $(REPO_URI) $(CODENAME) $(COMPONENT)' 'Identifier: Packages' 'Origin: Debian' |
    sort -u
}
