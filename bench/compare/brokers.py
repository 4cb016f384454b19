"""How each broker is started, and which version it is."""

import json
import os
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from scenarios import DEFAULT_MODE

HOST_DEFAULT_CLIENTS = 5000
HOST_PORT = 1883  # the host program serves no other

MOSQUITTO_CONFIG = """\
listener {port} 0.0.0.0
allow_anonymous true
log_type none
persistence false
"""


@dataclass(frozen=True)
class Broker:
    """`launch` gives the command for a directory, a port and a scenario; `chooses_port` says whether it obeys."""

    name: str
    title: str
    launch: callable
    chooses_port: bool = True


def host(name, title, program):
    def launch(_directory, _port, scenario):
        command = [str(program), "--log-level", "fatal"]
        # A little room for the probe that waits for the start.
        room = scenario.clients + 1000
        if room > HOST_DEFAULT_CLIENTS:
            command += ["--max-clients", str(min(room, 11000))]
        return command + (["--classic"] if scenario.mode == DEFAULT_MODE else [])

    return Broker(name, title, launch, chooses_port=False)


def mosquitto_program():
    # Debian installs it where only root's PATH leads.
    return shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin")


def mosquitto():
    program = mosquitto_program()

    def launch(directory, port, _scenario):
        config = Path(directory) / "mosquitto.conf"
        config.write_text(MOSQUITTO_CONFIG.format(port=port))
        return [program, "-c", str(config)]

    return Broker("mosquitto", "Mosquitto", launch) if program else None


def aedes(directory):
    server = Path(directory) / "server.js"
    node = shutil.which("node")

    def launch(_directory, port, _scenario):
        return [node, str(server), "0.0.0.0", str(port)]

    return Broker("aedes", "aedes", launch) if node and server.exists() else None


def available(settings):
    """Every broker that can be started here, in the order in which they take turns."""
    found = [host("zeb", "zeb", settings.host)]
    if settings.baseline:
        found.append(host("earlier", "earlier zeb", settings.baseline))
    return [broker for broker in (*found, mosquitto(), aedes(settings.aedes)) if broker]


def first_line(*command):
    """What a program says of itself; some say it with a status of their own."""
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=20, check=False)
    except (OSError, subprocess.TimeoutExpired):
        return "unknown"
    lines = done.stdout.decode("utf-8", "replace").splitlines()
    return lines[0].strip() if lines else "unknown"


def versions(settings):
    found = {"compiler": first_line("c++", "--version")}
    if program := mosquitto_program():
        found["Mosquitto"] = first_line(program, "-h")
    if aedes(settings.aedes):
        package = Path(settings.aedes) / "node_modules" / "aedes" / "package.json"
        found["aedes"] = json.loads(package.read_text())["version"]
        found["node"] = first_line("node", "--version")
    return found
