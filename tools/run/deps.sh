#!/usr/bin/env bash
# Installs the missing Debian packages of packages.txt; with the argument "lint" also those of
# packages-lint.txt. Prints nothing when none is missing.
set -euo pipefail
folder="$(dirname "${BASH_SOURCE[0]}")"
mapfile -t wanted < <(cat "$folder/packages.txt" ${1:+"$folder/packages-$1.txt"} | grep -v '^#')

if ! command -v dpkg-query >/dev/null; then
  echo "make deps: this is not Debian. Required packages (Debian 12 names): ${wanted[*]}" >&2
  exit 0 # CMake reports what is really missing
fi

installed=" $(dpkg-query -W -f '${Package}=${db:Status-Abbrev} ' "${wanted[@]}" 2>/dev/null || true)"
missing=()
for package in "${wanted[@]}"; do
  # A Node.js from elsewhere brings npm along and conflicts with Debian's.
  [[ $package == npm ]] && command -v npm >/dev/null && continue
  [[ "$installed" == *" $package=ii "* ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

as_root=()
if [[ $EUID -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "make deps: packages are missing, and installing them needs root or sudo. As root:" >&2
    echo "    apt-get install ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "make deps: installing with apt: ${missing[*]}"
# tshark's installation asks whether users may capture; the tests do not need that, so take the default.
install=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}")
log="$(mktemp)"
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -q && "${install[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "make deps: apt failed; the output is above" >&2
  exit 1
fi
echo "make deps: done"
