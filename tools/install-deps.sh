#!/usr/bin/env bash
# The one list of Debian packages that the README's commands and CI need.
#   tools/install-deps.sh kit   the library, the emulator module and the probe
#   tools/install-deps.sh all   that, plus everything the tests use
# Installs only what is missing: with apt-get as root; otherwise it names the
# exact apt-get line to run and fails, before anything is built.
set -euo pipefail

kit=(g++ cmake make libcli11-dev nlohmann-json3-dev)
# GoogleTest and Google Benchmark, with spdlog as the log benchmark's peer (the
# default preset builds bench/; the library never links spdlog); pkg-config for
# the consumer of an installed tree; file, dpkg-dev (dpkg-shlibdeps) and
# binutils (readelf) for the Debian packages, which lintian and devscripts' hardening-check then check.
# libc6-dbg lets LeakSanitizer name the loader's frames: without it, it cannot
# match its own suppression of glibc's thread-local storage for a dlopened
# library and reports that as a leak. python3-matplotlib, which only the chart
# script bench/plot_ratios.py needs, is not on either list.
all=("${kit[@]}" libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev pkg-config file dpkg-dev binutils lintian devscripts
     libc6-dbg)

case "${1:-}" in
  kit) wanted=("${kit[@]}") ;;
  all) wanted=("${all[@]}") ;;
  *) echo "usage: $0 kit|all" >&2; exit 2 ;;
esac

# dpkg-query reads the local database only, so a second run costs milliseconds.
installed=$(dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' "${wanted[@]}" 2>/dev/null |
  awk '$1 == "ii" { print $2 }' || true)
missing=()
for package in "${wanted[@]}"; do
  grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
done
[ "${#missing[@]}" -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "$0: missing Debian packages; install them, then run the command again:" >&2
  echo "  sudo apt-get install --no-install-recommends ${missing[*]}" >&2
  exit 1
fi
echo "$0: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
