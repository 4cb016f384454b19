"""The same tests against the broker with every option off and with every option on."""

from broker_process import all_options_on

MARKERS = ["host(*options): options of the host program that a test runs against",
           "modern: the host program as users start it, with the library's options on; runs once",
           "classic(why): what the test shows is a rule that an option changes; runs with the options off"]


def configure(config):
    for marker in MARKERS:
        config.addinivalue_line("markers", marker)


def select(config, items):
    """Leave out, with the options on, what runs with the options off alone and what has them on always."""
    if not all_options_on():
        return
    left_out = [item for item in items if item.get_closest_marker("classic") or item.get_closest_marker("modern")]
    items[:] = [item for item in items if item not in left_out]
    config.hook.pytest_deselected(items=left_out)
