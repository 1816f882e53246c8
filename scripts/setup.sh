# SPDX-License-Identifier: BSD-3-Clause
#
# Shared by quickstart and check: sourced by them with bash from the root of
# the repository. Everything here does nothing when there is nothing to do.

if [[ -t 1 ]]; then
  bold=$'\e[1m' plain=$'\e[0m'
else
  bold='' plain=''
fi

step() {
  echo "${bold}==> $*${plain}"
}

die() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# The names in packages.txt, one a line.
wanted_packages() {
  sed -e 's/#.*//' -e 's/[[:space:]]//g' -e '/^$/d' packages.txt
}

# Those of them that are not installed.
missing_packages() {
  local package status
  while read -r package; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) ||
      status=
    [[ $status == installed ]] || echo "$package"
  done < <(wanted_packages)
}

install_packages() {
  command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
    die "this is not a Debian system; install what packages.txt names, under" \
      "whatever names it has here, and build with: cmake --preset release"
  local missing as_root=()
  mapfile -t missing < <(missing_packages)
  if ((${#missing[@]} == 0)); then
    return
  fi
  step "Installing ${missing[*]}"
  if [[ $(id -u) != 0 ]]; then
    command -v sudo >/dev/null ||
      die "these packages are missing and there is no sudo to install them;" \
        "as root: apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -q
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# build PRESET: configures when that has not been done for these presets, then
# builds on every core. Ninja itself notices changed CMake files.
build() {
  local dir=build/$1 stamp=build/$1/configured
  step "Building $1"
  if [[ ! -e $dir/build.ninja || CMakePresets.json -nt $stamp ]]; then
    cmake --preset "$1"
    touch "$stamp"
  fi
  cmake --build --preset "$1" --parallel "$(nproc)"
}
