"""One run of one scenario against one broker: what is started, and which figures come out."""

import json
import time
from pathlib import Path

import retained
from processes import RunFailed, run_tool, running
from scenarios import DEFAULT_MODE

DRAIN_S = 2.0
SLACK_S = 30.0         # connecting, and a load program that notices a broker that hangs
PROBE_SHARE = 0.4      # of the measured seconds, for each of the many probes of a search
PROBES_AT_MOST = 40
CONNECTING_S = 120.0
MICRO_S = 300.0


def load_command(scenario, seconds, program, port, pid):
    """The command line of the load program, and how long it may take at most."""
    command = [str(program), scenario.kind, "--name", scenario.name, "--host", "127.0.0.1", "--port", str(port),
               "--pid", str(pid), *scenario.arguments]
    limit = CONNECTING_S
    if scenario.kind == "idle":
        command += ["--seconds", f"{seconds:g}"]
        limit += seconds
    if scenario.kind == "publish":
        measured = max(1.0, seconds * PROBE_SHARE) if scenario.search else seconds
        command += ["--seconds", f"{measured:g}", "--warmup", f"{scenario.warmup_s:g}", "--drain", f"{DRAIN_S:g}"]
        once = scenario.warmup_s + measured + DRAIN_S
        limit = PROBES_AT_MOST * once + SLACK_S if scenario.search else once + SLACK_S
    if scenario.mode == DEFAULT_MODE:
        command.append("--spread-ids")
    return command, limit


def shown(command, port, pid):
    """A command line as a reader would type it elsewhere."""
    placeholders = {("--port", str(port)): "PORT", ("--pid", str(pid)): "PID"}
    return without_directories(placeholders.get(pair, pair[1]) for pair in zip(["", *command], command))


def without_directories(command):
    return " ".join(Path(word).name if word.startswith("/") else word for word in command)


def run_load(scenario, settings, live, record):
    command, limit = load_command(scenario, settings.seconds, settings.load, live.port, live.process.pid)
    record["command"] = shown(command, live.port, live.process.pid)
    status, out, err = run_tool(command, Path(live.output).parent, limit)
    try:
        result = json.loads(out)
    except ValueError:
        result = {}
    if status != 0 or not isinstance(result, dict) or not result or result.get("error"):
        said = result.get("error") if isinstance(result, dict) else None
        raise RunFailed(f"the load program ended with status {status}: {said or err.strip()[-300:] or 'no result'}")
    return with_derived(result, live.rss_ready_kib)


def with_derived(result, rss_ready_kib):
    """Figures that follow from others."""
    rss, subscribers = result.get("broker_rss_kib"), result.get("subscribers")
    if rss and subscribers:
        result["rss_kib_per_subscriber"] = (rss - rss_ready_kib) / subscribers
    return result


# Figure, the micro-benchmark that gives it, and its unit in nanoseconds.
MICRO_FIGURES = (
    ("scan_pass_ms", "scan_pass_with_none_due/100000", 1e6),
    ("scan_pass_1000_due_ms", "scan_pass_with_1000_due/100000", 1e6),
    ("registration_us", "register_alone/100000", 1e3),
)
MICRO_FILTER = "(scan_pass|register_alone).*/100000"


def micro_figures(report):
    """What the micro-benchmarks say; one that is not there has no figure."""
    in_ns = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    found = {}
    for row in report["benchmarks"]:
        for key, name, unit_ns in MICRO_FIGURES:
            if name in row["name"] and not row.get("error_occurred"):
                found[key] = row["real_time"] * in_ns[row["time_unit"]] / unit_ns
    if not found:
        raise RunFailed("none of the micro-benchmarks asked for gave a figure")
    return found


def run_micro(settings, record):
    if not Path(settings.micro).exists():
        raise RunFailed("zeb_bench_qos is not built")
    command = [str(settings.micro), f"--benchmark_filter={MICRO_FILTER}", "--benchmark_format=json"]
    record["command"] = without_directories(command)
    status, out, err = run_tool(command, Path(settings.micro).parent, MICRO_S)
    if status != 0:
        raise RunFailed(f"zeb_bench_qos ended with status {status}: {err.strip()[-300:]}")
    return micro_figures(json.loads(out))


def measured(scenario, broker, settings, record):
    """The figures of one run; what was odd about it goes into the record."""
    if scenario.kind == "micro":
        return run_micro(settings, record)
    with running(broker, scenario) as live:
        record["remarks"] = live.remarks
        record["broker_command"] = without_directories(live.process.args)
        if scenario.kind == "start":
            return {"rss_mib": live.rss_ready_kib / 1024}
        if scenario.kind == "retained":
            return retained.measure(live)
        return run_load(scenario, settings, live, record)


def run_once(scenario, broker, number, settings):
    """A record of the run, with a result or an error."""
    record = {"kind": "run", "scenario": scenario.name, "broker": broker.name, "round": number, "remarks": [],
              "result": None, "error": None}
    began = time.monotonic()
    try:
        record["result"] = measured(scenario, broker, settings, record)
    except (RunFailed, OSError, ValueError, KeyError) as failure:
        record["error"] = str(failure) or type(failure).__name__
    record["took_s"] = round(time.monotonic() - began, 1)
    return record
