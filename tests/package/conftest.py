"""What the package tests share: where things are, commands that must succeed, and one installed tree."""

import os
import pathlib
import subprocess

import pytest

SOURCE = pathlib.Path(os.environ["ZEB_SOURCE"])
BUILD = pathlib.Path(os.environ["ZEB_BUILD"])
DEADLINE_S = 120


def run(*command, cwd=None, **env):
    """Run a command that must succeed, and return what it prints. Variables that are None are unset."""
    variables = {key: value for key, value in {**os.environ, **env}.items() if value is not None}
    done = subprocess.run([str(word) for word in command], cwd=cwd, env=variables, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=DEADLINE_S)
    out, err = done.stdout.decode(), done.stderr.decode()
    assert done.returncode == 0, "%s: exit status %d\n%s%s" % (command, done.returncode, out, err)
    return out


@pytest.fixture(scope="session")
def prefix(tmp_path_factory):
    """The tree that `cmake --install` lays down in an empty directory."""
    directory = tmp_path_factory.mktemp("prefix")
    run(os.environ["ZEB_CMAKE"], "--install", BUILD, "--prefix", directory)
    return directory


@pytest.fixture(scope="session")
def libdir(prefix):
    """Where the libraries went: the name differs between distributions."""
    return next(prefix.glob("lib*/**/libzeb_sdk_mqtt_broker.a")).parent
