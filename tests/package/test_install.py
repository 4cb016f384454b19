"""The installed tree, and programs outside the source tree that are built against it."""

import os
import re
import shutil

import pytest

from conftest import BUILD, SOURCE, run

CONSUMER = SOURCE / "tests" / "package" / "consumer"
EXPECTED = "version V2.0.0 online 1"


def told(output):
    """What the consumer says, without the broker's log."""
    return [line for line in output.splitlines() if not line.startswith("[")]


def test_every_part_is_installed(prefix, libdir):
    lib = libdir.relative_to(prefix)
    wanted = ["include/zeb_sdk_mqtt_broker.h", lib / "libzeb_sdk_mqtt_broker.a",
              lib / "libzeb_sdk_mqtt_broker.so", lib / "libzeb_sdk_mqtt_broker.so.2",
              lib / "libzeb_sdk_mqtt_broker.so.2.0.0", lib / "pkgconfig/zeb_mqtt_broker.pc",
              lib / "cmake/zeb_mqtt_broker/zeb_mqtt_broker-config.cmake",
              lib / "cmake/zeb_mqtt_broker/zeb_mqtt_broker-config-version.cmake",
              lib / "cmake/zeb_mqtt_broker/zeb_mqtt_broker-targets.cmake",
              "bin/zeb_mqtt_host", "bin/zeb_mqtt_console",
              "share/man/man1/zeb_mqtt_host.1", "share/man/man1/zeb_mqtt_console.1",
              "share/doc/zeb_mqtt_broker/README.md", "share/doc/zeb_mqtt_broker/docs/persistence.md"]
    assert [str(name) for name in wanted if not (prefix / name).exists()] == []


def test_one_header_and_nothing_of_the_inside_is_installed(prefix):
    assert [path.name for path in (prefix / "include").rglob("*") if path.is_file()] == ["zeb_sdk_mqtt_broker.h"]


def test_no_installed_file_names_the_source_or_build_directory(prefix, libdir):
    texts = [path for path in libdir.rglob("*") if path.suffix in (".cmake", ".pc")]
    assert len(texts) == 5
    for path in texts:
        text = path.read_text()
        assert str(SOURCE) not in text and str(BUILD) not in text and str(prefix) not in text, path


def test_shared_library_has_soname_2_and_needs_only_the_system(libdir):
    dynamic = run("readelf", "-d", libdir / "libzeb_sdk_mqtt_broker.so")
    assert re.findall(r"\(SONAME\).*\[(.*)\]", dynamic) == ["libzeb_sdk_mqtt_broker.so.2"]
    assert "RPATH" not in dynamic and "RUNPATH" not in dynamic
    allowed = ("libstdc++.so", "libc.so", "libm.so", "libgcc_s.so", "libpthread.so", "ld-linux")
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    assert [name for name in needed if not name.startswith(allowed)] == []


def declared():
    return set(re.findall(r"\b(zeb_sdk_mqtt_broker_\w+)\(", (SOURCE / "sdk/zeb_sdk_mqtt_broker.h").read_text()))


def test_shared_library_exports_exactly_the_declared_functions(libdir):
    symbols = run("nm", "-D", "--defined-only", libdir / "libzeb_sdk_mqtt_broker.so").split("\n")
    assert {line.split()[-1] for line in symbols if line} == declared()


def test_static_library_puts_no_other_name_into_a_program(libdir):
    """Besides the functions only names in the namespace and templates of the standard library, which any
    program may have too."""
    symbols = run("nm", "-g", "--defined-only", libdir / "libzeb_sdk_mqtt_broker.a").split("\n")
    names = [(line.split()[1], line.split()[2]) for line in symbols if len(line.split()) == 3]
    foreign = [name for kind, name in names
               if not (name.startswith("zeb_sdk_mqtt_broker_") or re.match(r"_Z\w*?3zeb", name) or
                       kind in "WVuw" and name.startswith("_Z"))]
    assert foreign == [] and declared() <= {name for _, name in names}


@pytest.fixture(scope="module")
def cmake_consumer(prefix, tmp_path_factory):
    """Built by find_package in a project in C alone."""
    build = tmp_path_factory.mktemp("cmake-consumer")
    run(os.environ["ZEB_CMAKE"], "-S", CONSUMER, "-B", build, "-DCMAKE_PREFIX_PATH=%s" % prefix,
        "-DCMAKE_C_COMPILER=%s" % os.environ["ZEB_CC"])
    run(os.environ["ZEB_CMAKE"], "--build", build)
    return build


@pytest.mark.parametrize("kind", ["mqtt_broker", "mqtt_broker_static"])
def test_find_package_consumer_runs(cmake_consumer, tmp_path, kind):
    assert told(run(cmake_consumer / ("with_" + kind), cwd=tmp_path)) == [EXPECTED]


@pytest.mark.parametrize("kind, linked", [("mqtt_broker", True), ("mqtt_broker_static", False)])
def test_find_package_target_links_its_own_kind(cmake_consumer, kind, linked):
    needed = run("readelf", "-d", cmake_consumer / ("with_" + kind))
    assert ("libzeb_sdk_mqtt_broker.so.2" in needed) == linked


def test_find_package_refuses_another_major_version(prefix, tmp_path):
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.22)\nproject(p C)\nfind_package(zeb_mqtt_broker 3 CONFIG QUIET)\n"
        'message(STATUS "found: ${zeb_mqtt_broker_FOUND}")\n')
    output = run(os.environ["ZEB_CMAKE"], "-S", tmp_path, "-B", tmp_path / "b", "-DCMAKE_PREFIX_PATH=%s" % prefix)
    assert "found: 0" in output


def pkg_config(libdir, *options):
    return run("pkg-config", *options, "zeb_mqtt_broker", PKG_CONFIG_PATH=str(libdir / "pkgconfig")).split()


def build_with_pkg_config(libdir, program, *more, static=False):
    kind = ["--static"] if static else []
    run("cc", "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", *more,
        *pkg_config(libdir, "--cflags"), CONSUMER / "consumer.c", "-o", program, *pkg_config(libdir, "--libs", *kind))


def test_pkg_config_consumer_in_c11_runs(libdir, tmp_path):
    build_with_pkg_config(libdir, tmp_path / "consumer")
    assert told(run(tmp_path / "consumer", cwd=tmp_path, LD_LIBRARY_PATH=str(libdir))) == [EXPECTED]


def test_pkg_config_static_consumer_in_c11_runs(libdir, tmp_path):
    build_with_pkg_config(libdir, tmp_path / "consumer", "-static", static=True)
    assert told(run(tmp_path / "consumer", cwd=tmp_path)) == [EXPECTED]


def test_pkg_config_file_names_the_version(libdir):
    assert pkg_config(libdir, "--modversion") == ["2.0.0"]


def test_installed_tree_may_be_moved(prefix, libdir, tmp_path):
    moved = tmp_path / "moved"
    shutil.copytree(prefix, moved, symlinks=True)
    lib = moved / libdir.relative_to(prefix)
    assert os.path.normpath(pkg_config(lib, "--variable=libdir")[0]) == str(lib)
    run(os.environ["ZEB_CMAKE"], "-S", CONSUMER, "-B", tmp_path / "b", "-DCMAKE_PREFIX_PATH=%s" % moved)


def test_header_compiles_alone_in_c11_and_c_plus_plus(prefix, tmp_path):
    (tmp_path / "a.c").write_text('#include "zeb_sdk_mqtt_broker.h"\nint main(void) { return 0; }\n')
    flags = ["-I%s" % (prefix / "include"), "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only"]
    run("cc", "-std=c11", *flags, tmp_path / "a.c")
    run("c++", "-std=c++11", *flags, "-x", "c++", tmp_path / "a.c")


def test_installed_examples_compile_against_the_installed_package(prefix, libdir, tmp_path):
    for name in ("auth_acl", "events"):
        run("c++", "-std=c++17", prefix / "share/doc/zeb_mqtt_broker/examples" / (name + ".cpp"), "-o",
            tmp_path / name, *pkg_config(libdir, "--cflags", "--libs"))


def test_names_are_the_same_for_a_project_that_adds_the_sources(tmp_path):
    """Its own program is compiled, the library is not built once more."""
    run(os.environ["ZEB_CMAKE"], "-G", "Ninja", "-S", CONSUMER, "-B", tmp_path, "-DZEB_SUBDIRECTORY=%s" % SOURCE)
    run("ninja", "-C", tmp_path, *["CMakeFiles/with_%s.dir/consumer.c.o" % kind
                                  for kind in ("mqtt_broker", "mqtt_broker_static")])
    targets = run("ninja", "-C", tmp_path, "-t", "targets", "all")
    assert "zeb_mqtt_host" not in targets and "zeb_test_" not in targets
