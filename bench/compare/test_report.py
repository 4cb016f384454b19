"""The arithmetic and the texts of the report; run by hand with pytest."""

import json

import pytest

import remarks
import results
import tables
from runs import load_command, micro_figures, shown, with_derived
from scenarios import ALL, HIGHER, LOWER, OWN_TARGETS, SIDE_BY_SIDE, OwnTarget

MACHINE = {"kind": "machine", "brokers": {"zeb": "zeb", "mosquitto": "Mosquitto"}}


def run(scenario, broker, number, result=None, error=None, remarks_=()):
    return {"kind": "run", "scenario": scenario, "broker": broker, "round": number, "result": result, "error": error,
            "remarks": list(remarks_)}


def with_values(values):
    """Results of one scenario from {broker: [figure of each round]}."""
    return results.Results([MACHINE] + [run("s", broker, i + 1, {"x": value})
                                        for broker, row in values.items() for i, value in enumerate(row)])


def test_the_median_and_its_range_leave_failed_runs_out():
    found = with_values({"zeb": [3, 1, 2]})
    found.runs.append(run("s", "zeb", 4, error="it died"))
    assert found.spread("s", "zeb", "x") == results.Spread(2, 1, 3, 3)


def test_a_figure_that_no_run_has_is_missing_and_so_is_its_ratio():
    found = with_values({"zeb": [1], "mosquitto": [None]})
    assert found.spread("s", "mosquitto", "x") is None
    assert found.ratio("x", ("s", "zeb"), ("s", "mosquitto")) is None


def test_a_ratio_is_of_medians_and_nothing_is_divided_by_zero():
    assert with_values({"zeb": [1, 3, 9], "mosquitto": [6, 6, 1]}).ratio("x", ("s", "zeb"), ("s", "mosquitto")) == 0.5
    assert with_values({"zeb": [1], "mosquitto": [0]}).ratio("x", ("s", "zeb"), ("s", "mosquitto")) is None


@pytest.mark.parametrize("value, limit, better, expected", [
    (0.2, 0.2, LOWER, True), (0.21, 0.2, LOWER, False), (2.0, 2.0, HIGHER, True), (1.9, 2.0, HIGHER, False),
    (None, 2.0, HIGHER, None), (1.0, None, LOWER, None)])
def test_a_target_is_met_on_its_own_side_only(value, limit, better, expected):
    assert results.met(value, limit, better) is expected


def test_an_own_target_may_be_a_ratio_to_another_scenario():
    found = results.Results([MACHINE, run("many", "zeb", 1, {"x": 13}), run("few", "zeb", 1, {"x": 10})])
    assert results.own_value(found, OwnTarget("", "many", "x", "times", 1.3, "few"), "zeb") == (1.3, None, None)
    assert results.own_value(found, OwnTarget("", "many", "x", "s", 20), "zeb") == (13, 13, 13)
    assert results.own_value(found, OwnTarget("", "none", "x", "s", 20), "zeb") is None


def test_a_results_file_that_was_cut_off_is_read_up_to_there(tmp_path):
    path = tmp_path / "results.jsonl"
    path.write_text(json.dumps(MACHINE) + "\n" + json.dumps(run("s", "zeb", 1, {"x": 1})) + '\n{"kind": "ru')
    assert len(results.Results.read(path).runs) == 1


@pytest.mark.parametrize("value, text", [
    (None, "–"), (0, "0"), (0.1234, "0.123"), (1.2345, "1.23"), (12.345, "12.3"), (123.45, "123"),
    (1234567.8, "1,234,568")])
def test_numbers_have_the_digits_that_they_deserve(value, text):
    assert tables.number(value) == text


@pytest.mark.parametrize("value, text", [(None, "–"), (1.0046, "1.005"), (0.2, "0.200"), (16.62, "16.6")])
def test_a_ratio_tells_which_side_of_a_target_it_is_on(value, text):
    assert tables.ratio(value) == text


def test_a_table_lines_up_and_keeps_bars_out_of_its_cells():
    assert tables.table(["a", "b"], [["x|y", "1"]]) == "| a    | b |\n|------|---|\n| x\\|y | 1 |"


def test_losses_are_added_up_over_the_rounds():
    runs = [run("s", "zeb", 1, {"lost": 5, "expected": 100}), run("s", "zeb", 2, {"lost": 0, "expected": 100})]
    assert remarks.lost_messages(runs) == (
        "lost 5 of 200 messages (2.5 %), or had not delivered them 2 s after the end, in 1 of 2 rounds")
    assert remarks.lost_messages(runs[1:]) is None


def test_a_search_loses_messages_on_purpose():
    assert remarks.lost_messages([run("s", "zeb", 1, {"lost": 5, "expected": 100, "max_rate": 10})]) is None


def test_a_rate_that_was_not_kept_is_told():
    runs = [run("s", "zeb", 1, {"rate": 1000, "published_per_s": 969}),
            run("s", "zeb", 2, {"rate": 1000, "published_per_s": 970})]
    assert remarks.rate_not_kept(runs) == "took only 969 of 1,000 messages/s in the worst of 1 such rounds"
    assert remarks.rate_not_kept(runs[1:]) is None


def test_the_same_trouble_is_told_once_with_its_rounds():
    runs = [run("s", "zeb", 1, error="it died"), run("s", "zeb", 2, error="it died"),
            run("s", "zeb", 3, {"x": 1}, remarks_=["the broker ended with status 1"])]
    assert remarks.troubles(runs) == ["round 1, 2: no result: it died", "round 3: the broker ended with status 1"]


def test_micro_benchmarks_come_in_units_of_their_own():
    rows = [{"name": "scan_pass_with_none_due/100000/iterations:100", "real_time": 1500, "time_unit": "us"},
            {"name": "register_alone/100000", "real_time": 95, "time_unit": "ns"},
            {"name": "register_alone/1000", "real_time": 5, "time_unit": "ns"}]
    assert micro_figures({"benchmarks": rows}) == {"scan_pass_ms": 1.5, "registration_us": 0.095}


def test_memory_of_a_subscriber_counts_from_the_start_of_the_broker():
    assert with_derived({"broker_rss_kib": 5000, "subscribers": 100}, 1000)["rss_kib_per_subscriber"] == 40


def test_a_command_is_shown_without_what_only_this_machine_knows():
    scenario = SIDE_BY_SIDE[0]
    command, limit = load_command(scenario, 5, "/somewhere/zeb_load", 1883, 1883)
    text = shown(command, 1883, 1883)
    assert text.startswith("zeb_load publish --name fanout-50 --host 127.0.0.1 --port PORT --pid PID --publishers 1 ")
    assert text.endswith(" --seconds 5 --warmup 0 --drain 2 --spread-ids")
    assert limit == 37


def test_names_are_unique_and_targets_name_scenarios():
    names = [scenario.name for scenario in ALL]
    assert len(set(names)) == len(names)
    for target in OWN_TARGETS:
        assert target.scenario in names and target.compared_with in (None, *names)
