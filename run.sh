#!/bin/bash
# Install what is missing, build the release preset and run the broker in the foreground.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

usage() {
    cat <<'TEXT'
usage: ./run.sh [options of the host program]
       ./run.sh console

Installs the compiler and build tools that are missing (Debian 12), builds the release
preset without tests in build/run, and runs a broker on 0.0.0.0:1883 in the foreground
until Ctrl-C (SIGINT) or SIGTERM. With the word console it runs the interactive console
program app/zeb_mqtt_console.cpp in the terminal instead: a numbered menu that starts,
watches and stops a broker. Anything else after ./run.sh is handed to the host program
examples/zeb_mqtt_host.c:

TEXT
    sed -n 's/^ *"\(  --.*\)\\n";*$/\1/p' examples/host_options.c
}

for argument in "$@"; do
    if [[ $argument == --help ]]; then
        usage
        exit 0
    fi
done

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
install_packages "${build_packages[@]}"
program=examples/zeb_mqtt_host
if [[ ${1-} == console ]]; then
    program=app/zeb_mqtt_console
    shift
fi
# A bare machine needs no test framework to run the broker. Build output is not the broker's, so it goes to stderr.
cmake --preset release -B build/run -DZEB_BUILD_TESTS=OFF >&2
cmake --build build/run --target "${program#*/}" >&2
exec "build/run/$program" "$@"
