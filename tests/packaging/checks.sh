# SPDX-License-Identifier: BSD-3-Clause
#
# Sourced by the tests of this folder. SOURCE_DIR and BUILD_DIR are the tree's.
set -euo pipefail

fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# needs PROGRAM...: the test is skipped where one of them is not there.
needs() {
  local program
  for program; do
    if ! command -v "$program" >/dev/null; then
      echo "skipped: there is no program '$program'"
      exit 77
    fi
  done
}

has_file() {
  local file
  for file; do
    [[ -f $file ]] || fail "$file is not there"
  done
}

# names_no_build_path DIR: nothing in it leads back to where it was built.
# Programs that are built for debugging may name their sources, but load nothing
# from there.
names_no_build_path() {
  local found binaries=--binary-files=without-match
  if [[ $BUILD_TYPE == Release ]]; then binaries=--binary-files=binary; fi
  found=$(grep -rlF "$binaries" -e "$BUILD_DIR" -e "$SOURCE_DIR" "$1" || true)
  [[ -z $found ]] || fail "these name a directory of the build: $found"
  found=$(find "$1" \( -name '*.so' -o -name ofswitch -type f \) \
    -exec readelf -d {} + | grep -E 'R(UN)?PATH' | grep -vF '[$ORIGIN' || true)
  [[ -z $found ]] || fail "libraries are looked for elsewhere: $found"
}

# finds_own_libraries PREFIX LIBDIR: the program and the module load the
# libraries that were installed with them, and otherwise the system's.
finds_own_libraries() {
  local file name path own=0
  for file in "$1/bin/ofswitch" "$2/libOpenFlowModule.so"; do
    while read -r name path; do
      [[ -e $path ]] || fail "$file does not find $name"
      case $(realpath "$path") in
        "$(realpath "$2")"/*) own=$((own + 1)) ;;
        /lib/* | /usr/lib/*) ;;
        *) fail "$file loads $path" ;;
      esac
    done < <(ldd "$file" | sed -nE 's/^\s*(\S+) => (.*)/\1 \2/p' |
      sed -E 's/ \(0x[0-9a-f]+\)$//')
  done
  ((own >= 12)) || fail "only $own libraries are the installation's"
}

# replays_campus PREFIX: the example, by the installed program.
replays_campus() {
  local campus=$SOURCE_DIR/examples/campus
  (cd "$campus" && "$1/bin/ofswitch" replay --json --flows flows.txt \
    --in 1=port1.pcap 2=port2.pcap 3=port3.pcap) |
    diff - "$campus/expected.json" >&2 ||
    fail "$1/bin/ofswitch replays the example differently"
}
