# Sourced by the scripts: makes sure the Debian packages a build needs are there. As root it
# installs what is missing; otherwise it prints the one command that does and stops.
zep_require() {
  command -v dpkg >/dev/null 2>&1 || return 0 # not Debian: the build reports what it lacks
  local missing=() pkg
  for pkg in "$@"; do
    dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -eq 0 ]; then
    echo "== installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq "${missing[@]}" >/dev/null
  else
    echo "missing packages; install them with:" >&2
    echo "  sudo sh -c 'apt-get update && apt-get install -y ${missing[*]}'" >&2
    exit 1
  fi
}

# What configuring and building the library, its tools and its tests needs (elfutils' libdw: the
# symbol engine's names and source lines).
zep_base_packages=(g++ cmake ninja-build python3 pkg-config libgtest-dev libgmock-dev libdw-dev)

# The packages listed in .ci/packages (one per line, # starts a comment) that the build and the
# tests may need: all but the peers the benchmarks alone compare with, which a default build
# never looks for.
zep_bench_only_packages=" libspdlog-dev libintelrdfpmath-dev liblttng-ust-dev lttng-tools libboost-dev libbenchmark-dev "
zep_ci_packages() {
  local line
  while read -r line; do
    line=${line%%#*}
    line=${line//[[:space:]]/}
    [ -n "$line" ] && [ "${zep_bench_only_packages/ $line /}" = "$zep_bench_only_packages" ] &&
      echo "$line"
  done <.ci/packages
  return 0
}
