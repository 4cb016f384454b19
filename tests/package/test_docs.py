"""The documentation: that it builds without warnings, and that what it quotes is in the code."""

import re

import pytest

from conftest import BUILD, SOURCE, run

PAGES = sorted((SOURCE / "docs").glob("*.md"))
READMES = [SOURCE / "README.md", SOURCE / "README.zh-CN.md"]
MODULES = ["log", "stats", "codec", "netip", "sub", "persist", "qos", "client", "packet", "sdk"]
OPERATIONS = SOURCE / "docs/operations.md"
ANY = "\0"  # stands for what a line of the log fills in


def test_api_reference_has_no_warnings(tmp_path):
    """The warnings are errors in this configuration."""
    text = (BUILD / "docs/Doxyfile").read_text()
    doxyfile = tmp_path / "Doxyfile"
    doxyfile.write_text(re.sub(r"(?m)^(OUTPUT_DIRECTORY +=).*", r'\1 "%s"' % tmp_path, text))
    run("doxygen", doxyfile)
    page = (tmp_path / "html/zeb__sdk__mqtt__broker_8h.html").read_text()
    header = (SOURCE / "sdk/zeb_sdk_mqtt_broker.h").read_text()
    functions = set(re.findall(r"\b(zeb_sdk_mqtt_broker_\w+)\(", header))
    assert len(functions) > 20 and [name for name in functions if name not in page] == []


@pytest.mark.parametrize("name", ["zeb_mqtt_host", "zeb_mqtt_console"])
def test_manual_page_has_no_warnings(name):
    run("mandoc", "-T", "lint", "-W", "warning", SOURCE / "docs/man" / (name + ".1"))


def test_manual_page_names_every_option_of_the_host_program():
    usage = re.findall(r'"  --([a-z-]+)', (SOURCE / "examples/host_options.c").read_text())
    page = (SOURCE / "docs/man/zeb_mqtt_host.1").read_text()
    described = re.findall(r"^\.It Fl -([a-z-]+)", page, re.MULTILINE)
    assert sorted(usage) == sorted(described) and len(usage) > 5


@pytest.mark.parametrize("page", PAGES + READMES, ids=lambda page: page.name)
def test_links_lead_somewhere(page):
    for text, target in re.findall(r"\[([^]]*)\]\(([^)]+)\)", page.read_text()):
        if re.match(r"https?:", target):
            continue
        path, _, anchor = target.partition("#")
        linked = (page.parent / path) if path else page
        assert linked.exists(), (text, target)
        if anchor:
            titles = re.findall(r"^#+ (.*)", linked.read_text(), re.MULTILINE)
            assert anchor in [re.sub(r"[^\w -]", "", title).lower().replace(" ", "-") for title in titles], target


@pytest.mark.parametrize("readme", READMES, ids=lambda page: page.name)
def test_readme_lists_every_page(readme):
    text = readme.read_text()
    assert [page.name for page in PAGES if "(docs/%s)" % page.name not in text] == []


def code_texts():
    """Every text literal of the library, with neighbours joined and conversions replaced."""
    found = set()
    for module in MODULES:
        for path in (SOURCE / module).glob("*.cpp"):
            for literals in re.findall(r'(?:"(?:[^"\\\n]|\\.)*"\s*)+', path.read_text()):
                text = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', literals))
                found.add(re.sub(r"%[-+ #0]*[\d.*]*(?:hh|h|ll|l|z)?[diuxXcsp]|%\.1f", ANY, text).replace("%%", "%"))
    return found


def quoted_lines():
    """The first column of the tables of log lines, which are headed so."""
    rows = []
    for table in re.findall(r"\| (?:Line|日志行) \|.*\n\|[-|]+\|\n((?:\|.*\n)+)", OPERATIONS.read_text()):
        rows += [re.match(r"\| `([^`]+)` \|", row).group(1) for row in table.splitlines()]
    return rows


def test_quoted_log_lines_are_those_of_the_code():
    texts = code_texts()
    quoted = [re.sub(r"<[^>]*>", ANY, line) for line in quoted_lines()]
    assert len(quoted) > 20
    assert [line for line in quoted if line not in texts] == []


def test_shown_report_is_the_one_of_the_code():
    text = OPERATIONS.read_text().partition("## The 60-second report\n")[2]
    block = re.search(r"((?:^    .*\n)+)", text, re.MULTILINE).group(1)
    report = [line.strip() for line in block.splitlines()]
    shapes = [re.escape(text).replace(ANY, r"[\d.]+") for text in code_texts() if len(text.replace(ANY, "")) > 5]
    assert len(report) == 13
    assert [line for line in report if not any(re.fullmatch(shape, line) for shape in shapes)] == []
