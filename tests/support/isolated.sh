#!/bin/sh
# Run a command in an empty temporary directory and, as root, in a network namespace with only loopback up.
set -eu
dir=$(mktemp -d "${TMPDIR:-/tmp}/zeb-test.XXXXXX")
trap 'rm -rf "$dir"' EXIT INT TERM
cd "$dir"
if unshare -n true 2>/dev/null; then
    unshare -n sh -c 'ip link set lo up && exec "$@"' isolated "$@"
else
    "$@"
fi
