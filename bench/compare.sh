#!/bin/bash
# Measure this broker side by side with Debian's Mosquitto and npm's aedes, and write bench/RESULTS.md.
set -euo pipefail

usage() {
    cat <<'TEXT'
usage: bench/compare.sh [options]

Installs what is missing (Debian 12), builds the release preset in build/bench, runs every scenario of
bench/compare/scenarios.py against each broker in turn and reports medians and ratios: on the console, in
bench/RESULTS.md and bench/figures; the single results are in build/compare/results.jsonl. Run as root if
possible: each broker then gets a network of its own; otherwise port 1883 has to be free.
Nothing else should run on the machine meanwhile. With the defaults it takes about an hour and a half.

  --rounds N        runs of each scenario and broker (5)
  --seconds S       measured time of a run; the probes of a search are shorter (5)
  --only REGEX      only the scenarios whose names match
  --brokers LIST    of zeb, earlier, mosquitto and aedes, separated by commas (all that are at hand)
  --baseline PATH   another zeb_mqtt_host, measured beside this one as broker "earlier"
  --append          add to the results at hand, so that a long comparison can be made in pieces
  --report-only     write the report anew from the results at hand
  --help            print this text
TEXT
}

report_only=
options=()
while [[ $# -gt 0 ]]; do
    case $1 in
    --help)
        usage
        exit 0
        ;;
    --report-only)
        report_only=yes
        options+=("$1")
        ;;
    --append) options+=("$1") ;;
    --rounds | --seconds | --only | --brokers | --baseline)
        if [[ $# -lt 2 ]]; then
            usage >&2
            exit 2
        fi
        value=$2
        if [[ $1 == --baseline ]]; then
            if [[ ! -x $2 ]]; then
                echo "bench/compare.sh: no such program: $2" >&2
                exit 2
            fi
            value=$(readlink -f "$2") # named from where the caller is
        fi
        options+=("$1=$value")
        shift
        ;;
    *)
        usage >&2
        exit 2
        ;;
    esac
    shift
done

cd "$(dirname "$(readlink -f "$0")")/.."
# shellcheck source=scripts/packages.sh
. scripts/packages.sh

# install_mosquitto: a package that brings a service must not leave it running here.
install_mosquitto() {
    [[ -n $(missing_packages mosquitto) ]] || return 0
    install_packages mosquitto
    if [[ -d /run/systemd/system ]]; then
        local -a as_root=()
        [[ $(id -u) -eq 0 ]] || as_root=(sudo)
        ${as_root[@]+"${as_root[@]}"} systemctl disable --now mosquitto >&2
    fi
}

if [[ -z $report_only ]]; then
    install_packages "${build_packages[@]}" "${compare_packages[@]}" "${test_commands[@]}"
    install_mosquitto

    npm_dir=build/deps/aedes
    if ! cmp -s bench/compare/aedes/package-lock.json "$npm_dir/installed-lock.json"; then
        mkdir -p "$npm_dir"
        cp bench/compare/aedes/package.json bench/compare/aedes/package-lock.json "$npm_dir"
        (cd "$npm_dir" && npm ci --no-audit --no-fund --loglevel=error) >&2
        cp bench/compare/aedes/package-lock.json "$npm_dir/installed-lock.json"
    fi
    # The server finds its modules beside it.
    cp bench/compare/aedes/server.js "$npm_dir"

    launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    cmake --preset release -B build/bench -DZEB_BUILD_BENCH=ON -DZEB_BUILD_EXAMPLES=ON -DZEB_BUILD_TESTS=OFF \
        ${launcher[@]+"${launcher[@]}"} >&2
    cmake --build build/bench --target zeb_load zeb_mqtt_host zeb_bench_qos >&2
else
    install_packages python3-matplotlib
fi
exec /usr/bin/python3 -B bench/compare/measure.py ${options[@]+"${options[@]}"}
