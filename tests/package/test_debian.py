"""The archives that cpack makes: what is in them, and that it runs where it is unpacked."""

import os
import signal
import subprocess
import tarfile

import pytest

from conftest import BUILD, SOURCE, run

READY = b"zeb_mqtt_host: ready on 0.0.0.0:1883\n"


@pytest.fixture(scope="session")
def archives(tmp_path_factory):
    directory = tmp_path_factory.mktemp("archives")
    run(os.environ["ZEB_CPACK"], "--config", BUILD / "CPackConfig.cmake", "-B", directory)
    return directory


def deb(archives, name):
    found = list(archives.glob(name + "_2.0.0_*.deb"))
    assert len(found) == 1
    return found[0]


def files_of(package):
    """Paths below the root directory, without directories and link targets."""
    lines = run("dpkg-deb", "-c", package).splitlines()
    return {line.split()[5][2:] for line in lines if not line.startswith("d")}


def field(package, name):
    return run("dpkg-deb", "-f", package, name).strip()


def test_runtime_package_holds_library_programs_and_manual_pages(archives):
    names = files_of(deb(archives, "zeb-mqtt-broker"))
    assert {name.split("/")[-1] for name in names} == {
        "libzeb_sdk_mqtt_broker.so.2", "libzeb_sdk_mqtt_broker.so.2.0.0", "zeb_mqtt_host", "zeb_mqtt_console",
        "zeb_mqtt_host.1", "zeb_mqtt_console.1"}
    assert all(name.startswith("usr/") for name in names)


def test_dev_package_holds_what_one_builds_with_and_shares_no_file_with_the_other(archives):
    names = files_of(deb(archives, "zeb-mqtt-broker-dev"))
    base = {name.split("/")[-1] for name in names}
    assert {"zeb_sdk_mqtt_broker.h", "libzeb_sdk_mqtt_broker.a", "libzeb_sdk_mqtt_broker.so", "zeb_mqtt_broker.pc",
            "zeb_mqtt_broker-config.cmake"} <= base
    assert names & files_of(deb(archives, "zeb-mqtt-broker")) == set()


def test_packages_name_their_dependencies(archives):
    runtime, dev = deb(archives, "zeb-mqtt-broker"), deb(archives, "zeb-mqtt-broker-dev")
    assert (field(runtime, "Package"), field(dev, "Package")) == ("zeb-mqtt-broker", "zeb-mqtt-broker-dev")
    assert field(runtime, "Version") == field(dev, "Version") == "2.0.0"
    assert field(dev, "Depends") == "zeb-mqtt-broker (= 2.0.0)"
    assert {word.split()[0] for word in field(runtime, "Depends").split(",")} <= {"libc6", "libstdc++6", "libgcc-s1"}
    assert "libc6 (>=" in field(runtime, "Depends")


def test_files_belong_to_root_and_are_written_by_nobody_else(archives):
    for name in ("zeb-mqtt-broker", "zeb-mqtt-broker-dev"):
        for line in run("dpkg-deb", "-c", deb(archives, name)).splitlines():
            mode, owner = line.split()[:2]
            assert owner == "root/root" and (mode[0] == "l" or mode[5] + mode[8] == "--"), line


@pytest.fixture
def root(archives, tmp_path):
    for name in ("zeb-mqtt-broker", "zeb-mqtt-broker-dev"):
        run("dpkg-deb", "-x", deb(archives, name), tmp_path / "root")
    return tmp_path / "root"


def test_unpacked_program_serves_and_ends_on_sigterm(root, tmp_path):
    host = subprocess.Popen([str(root / "usr/bin/zeb_mqtt_host")], cwd=tmp_path, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE)
    try:
        while True:
            line = host.stdout.readline()
            assert line != b"", "the program ended"
            if line == READY:
                break
        run("mosquitto_pub", "-h", "127.0.0.1", "-i", "a", "-t", "t", "-m", "hello", "-q", "1")
        host.send_signal(signal.SIGTERM)
        host.communicate(timeout=60)
        assert host.returncode == 0
    finally:
        if host.poll() is None:
            host.kill()
        host.wait()


def test_unpacked_library_serves_a_program_built_against_it(root, tmp_path):
    header = next(root.rglob("zeb_sdk_mqtt_broker.h")).parent
    lib = next(root.rglob("libzeb_sdk_mqtt_broker.so.2.0.0")).parent
    run("cc", "-std=c11", "-I%s" % header, SOURCE / "tests/package/consumer/consumer.c", "-o", tmp_path / "consumer",
        "-L%s" % lib, "-lzeb_sdk_mqtt_broker")
    output = run(tmp_path / "consumer", cwd=tmp_path, LD_LIBRARY_PATH=str(lib))
    assert "version V2.0.0 online 1" in output.splitlines()


def test_tar_archive_holds_both_parts_in_one_directory(archives):
    with tarfile.open(next(archives.glob("*.tar.gz"))) as archive:
        names = archive.getnames()
    top = "zeb-mqtt-broker-2.0.0-Linux/"
    assert all(name.startswith(top) for name in names)
    assert {top + "bin/zeb_mqtt_host", top + "include/zeb_sdk_mqtt_broker.h"} <= set(names)
