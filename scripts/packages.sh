# shellcheck shell=bash disable=SC2034
# The one list of what this project needs from Debian 12, and how it gets there. Sourced by run.sh and test.sh.

build_packages=(g++ cmake ninja-build)
test_packages=(libgtest-dev python3-minimal python3-pytest python3-paho-mqtt mosquitto-clients
    paho.mqtt.c-examples iproute2 util-linux procps doxygen mandoc valgrind binutils dpkg-dev file)
fuzz_packages=(clang libclang-rt-14-dev)
bench_packages=(libbenchmark-dev)
# The comparison with other brokers, beside mosquitto itself, which needs more care.
compare_packages=(libbenchmark-dev python3-minimal python3-matplotlib iproute2)
# These may come from elsewhere, so what counts is the command: <command>=<package>.
test_commands=(node=nodejs npm=npm pkg-config=pkg-config)

# missing_packages <package|command=package>...: prints those that are not there yet.
missing_packages() {
    local wanted
    for wanted in "$@"; do
        if [[ $wanted == *=* ]]; then
            command -v "${wanted%%=*}" >/dev/null || echo "${wanted#*=}"
        elif [[ $(dpkg-query -W -f '${db:Status-Status}' "$wanted" 2>/dev/null) != installed ]]; then
            echo "$wanted"
        fi
    done
}

# install_packages <package|command=package>...: installs what is missing, and touches nothing when all is there.
install_packages() {
    local -a missing as_root=()
    mapfile -t missing < <(missing_packages "$@")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    echo "installing: ${missing[*]}" >&2
    if [[ $(id -u) -ne 0 ]]; then
        if ! command -v sudo >/dev/null; then
            echo "these Debian packages are missing and neither root nor sudo is at hand: ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    local -a apt=(${as_root[@]+"${as_root[@]}"} env DEBIAN_FRONTEND=noninteractive apt-get -q)
    # The package lists may be absent or stale, so one refresh is tried before giving up.
    if ! "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >&2; then
        "${apt[@]}" update >&2
        if ! "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >&2; then
            echo "apt-get could not install: ${missing[*]}" >&2
            return 1
        fi
    fi
}
