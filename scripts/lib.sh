# Shared by the scripts; sourced, never run. Finds the project's root and goes there, installs the
# Debian packages that a script needs, and builds presets.
# shellcheck shell=bash disable=SC2034

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Every Debian package that anything here needs.
build_packages=(cmake g++ ninja-build scdoc xz-utils
  libarchive-dev libcli11-dev libfmt-dev nlohmann-json3-dev)
test_packages=(fish googletest libgtest-dev libarchive-tools mandoc)
mips_packages=(g++-mips-linux-gnu qemu-user-static)
style_packages=(clang-format clang-tidy iwyu python3)
coverage_packages=(gcovr)
sanitizer_packages=(clang-14 libclang-rt-14-dev)
bench_packages=(libbenchmark-dev mtd-utils mtools squashfs-tools)

step() {
  printf '\n== %s\n' "$*"
}

package_is_missing() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" != installed ]
}

# Installs those of the named packages that are missing, saying so. Asks nothing of the network when
# all are there.
need_packages() {
  local missing=() package
  for package in "$@"; do
    if package_is_missing "$package"; then
      missing+=("$package")
    fi
  done
  if [ "${#missing[@]}" -eq 0 ]; then
    return 0
  fi
  step "installing missing Debian packages: ${missing[*]}"
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Configures a preset; further arguments go to cmake. Prints only what goes wrong.
configure() {
  local preset=$1 log
  shift
  mkdir -p build
  log=build/configure-$preset.log
  if ! cmake --preset "$preset" "$@" >"$log" 2>&1; then
    cat "$log" >&2
    return 1
  fi
}

# Builds a preset that has been configured; further arguments go to cmake --build.
build() {
  local preset=$1
  shift
  cmake --build --preset "$preset" "$@"
}
