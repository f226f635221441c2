#!/usr/bin/env python3
"""Runs everything that random input can find, for hours: see `./dev help`, proof.

usage: proof.py [--minutes N]

Each stage of `proof_stages.py` is built, and gets its share of N minutes (default 90; building comes
on top of them). A finding is noted and the proof goes on. What is done is kept in build/proof, and an
interrupted proof of the same commit and minutes goes on where it was. At the end docs/proof.md says
what was done. The exit status is 0 without findings, 1 with findings, 130 when interrupted.
"""

import argparse
import concurrent.futures
import hashlib
import json
import math
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import threading
import time

import bench_table
import proof_page
import proof_stages

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDER = ROOT / "build/proof"
FINDINGS_OF_A_UNIT = 3  # Then it is left alone.


class Processes:
    """Runs commands. `stop` ends those that are running, each with the group that it leads."""

    def __init__(self):
        self.stopped = threading.Event()
        self.running = {}
        self.lock = threading.Lock()

    def __call__(self, command, environment, timeout):
        """Returns the exit status (None: too slow), the output and the seconds that it took."""
        begin = time.monotonic()
        with self.lock:
            if self.stopped.is_set():
                return -signal.SIGTERM, "", 0
            try:
                process = subprocess.Popen(command, cwd=ROOT, env={**os.environ, **environment},
                                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                           stderr=subprocess.STDOUT, start_new_session=True)
            except OSError as error:
                return 127, str(error), 0
            self.running[process.pid] = process
        try:
            output, status = process.communicate(timeout=timeout)[0], process.returncode
        except subprocess.TimeoutExpired:
            self.end(process)
            output, status = process.communicate()[0], None
        finally:
            with self.lock:
                del self.running[process.pid]
        return status, output.decode("utf-8", "replace"), time.monotonic() - begin

    @staticmethod
    def end(process):
        try:
            os.killpg(process.pid, signal.SIGTERM)
            process.wait(timeout=5)
        except (ProcessLookupError, subprocess.TimeoutExpired):
            pass
        try:
            os.killpg(process.pid, signal.SIGKILL)  # Those of the group that are still there.
        except ProcessLookupError:
            pass

    def stop(self, *_):
        """A signal handler, so a thread waits for the processes."""
        self.stopped.set()
        threading.Thread(target=self.end_all).start()

    def end_all(self):
        with self.lock:
            running = list(self.running.values())
        for process in running:
            self.end(process)


class Interrupted(Exception):
    pass


class Proof:
    def __init__(self, stages, state, path, jobs, run):
        self.stages, self.state, self.path = stages, state, path
        self.jobs, self.run_command = jobs, run
        self.total = state["minutes"] * 60 * jobs  # Seconds of jobs.

    def run(self, publish=lambda state: None):
        """Returns the number of findings. The proof has ended when `publish` has kept its figures."""
        for stage in self.stages:
            commands = self.prepare(stage)
            if commands:
                self.run_stage(stage, commands)
        publish(self.state)
        self.state["finished"] = True
        self.save()
        return self.findings()

    def of(self, stage):
        empty = {"built": 0, "error": None, "units": {}}
        return self.state["stages"].setdefault(stage.name, empty)

    def findings(self):
        stages = self.state["stages"].values()
        return sum((stage["error"] is not None) +
                   sum(len(unit["findings"]) for unit in stage["units"].values())
                   for stage in stages)

    def save(self):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        new = self.path.with_suffix(".new")
        new.write_text(json.dumps(self.state, indent=1), encoding="utf-8")
        new.replace(self.path)

    def say(self, text):
        left = max(0, self.total - sum(self.seconds(stage) for stage in self.stages)) / self.jobs
        print(f"proof: {text}; {left / 60:.1f} min left, {self.findings()} findings", flush=True)

    def seconds(self, stage):
        return sum(unit["seconds"] for unit in self.of(stage)["units"].values())

    def prepare(self, stage):
        """Builds a stage. Returns its units; none where that failed, which is a finding."""
        record = self.of(stage)
        record["error"] = None
        self.say(f"building {stage.name}")
        for command in stage.build:
            status, output, seconds = self.run_command(command, {}, None)
            record["built"] += seconds
            if status != 0:
                break
        try:
            if self.run_command.stopped.is_set():
                raise Interrupted
            if status != 0:
                raise ValueError("\n".join(output.splitlines()[-5:]))
            commands = stage.units(output)
            if not commands:
                raise ValueError("it has no units")
        except (ValueError, AttributeError, KeyError) as error:
            record["error"] = f"not run: {shlex.join(command)}: {error}"
            self.say(f"{stage.name}: {record['error']}")
            commands = {}
        for unit in commands:
            record["units"].setdefault(
                unit, {"seconds": 0, "count": 0, "asked": 0, "goal": stage.goal, "findings": []})
        self.save()
        return commands

    def budget(self, stage):
        """The share of a stage, in what the stages before it have left."""
        at = self.stages.index(stage)
        used = sum(self.seconds(before) for before in self.stages[:at])
        return (self.total - used) * stage.share / sum(each.share for each in self.stages[at:])

    def run_stage(self, stage, commands):
        budget, running = self.budget(stage), {}
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            while True:
                while len(running) < self.jobs and (job := self.next_job(stage, budget, running)):
                    unit, seconds = job
                    done = self.of(stage)["units"][unit]
                    piece = stage.slice(commands[unit], seconds, done, self.state["seed"])
                    done["asked"] += piece.rounds
                    running[pool.submit(self.run_command, piece.command, piece.environment,
                                        10 * seconds + 120)] = unit, seconds, piece
                if not running:
                    break
                ended, _ = concurrent.futures.wait(
                    running, 0.5, return_when=concurrent.futures.FIRST_COMPLETED)
                for future in ended:
                    unit, _, piece = running.pop(future)
                    self.record(stage, unit, piece, *future.result())
        if self.run_command.stopped.is_set():
            raise Interrupted

    def next_job(self, stage, budget, running):
        """The unit that had the least time so far, and its seconds; None when all is done."""
        units = self.of(stage)["units"]
        busy = {unit for unit, _, _ in running.values()}
        open_units = [
            unit for unit, done in units.items()
            if unit not in busy and len(done["findings"]) < FINDINGS_OF_A_UNIT
            and (stage.goal is None or done["count"] < stage.goal)]
        left = budget - self.seconds(stage) - sum(seconds for _, seconds, _ in running.values())
        if not open_units or left < 1 or self.run_command.stopped.is_set():
            return None
        fair = max(1, budget / len(units) / 2)
        unit = min(open_units, key=lambda each: units[each]["seconds"])
        return unit, min(left, stage.slice_seconds, fair)

    def record(self, stage, unit, piece, status, output, seconds):
        done = self.of(stage)["units"][unit]
        if self.run_command.stopped.is_set() and status != 0:
            done["asked"] -= piece.rounds  # Cut off: asked for again.
            return
        count = piece.count(output)
        done["seconds"] += seconds
        done["count"] += count
        if status != 0 or count == 0:
            done["findings"].append(finding(piece, status, output))
        self.save()
        self.say(f"{stage.name} {unit}: {done['count']:,} {stage.counted}")


def finding(piece, status, output):
    """What went wrong, in a line or two, and the command that shows it again."""
    tells = r"assertion failed|Assertion|ERROR: |WARNING: ThreadSanitizer|runtime error|Failure"
    lines = [line.strip() for line in output.splitlines() if line.strip()]
    at = next((i for i, line in enumerate(lines) if re.search(tells, line)), len(lines) - 2)
    what = "too slow" if status is None else f"exit status {status}"
    if status == 0:
        what = "nothing was run"
    command = re.search(r"^reproduce: (.*)$", output, re.MULTILINE)
    environment = dict(piece.environment)
    seed = re.search(r"PAVO_TEST_SEED=(\d+)$", output, re.MULTILINE)
    if seed:  # One round, and not all that the command was asked for.
        environment["PAVO_TEST_SEED"] = seed[1]
        environment.pop("PAVO_TEST_ROUNDS", None)
    words = [f"{name}={shlex.quote(value)}" for name, value in environment.items()]
    again = " ".join([*words, shlex.join(piece.command)])
    if command and "tools/fuzz" in piece.command:
        again = " ".join([*piece.command[:piece.command.index("tools/fuzz")], command[1]])
    return {"what": "; ".join([what, *(line[:200] for line in lines[max(0, at):at + 2])]),
            "reproduce": again.replace(f"{ROOT}/", "")}


def git(*arguments):
    return subprocess.run(["git", "-C", ROOT, *arguments], check=True, capture_output=True,
                          text=True).stdout.strip()


def version():
    """The commit, and what of the work tree is not in it; not what the proof itself writes."""
    changes = git("diff", "HEAD", "--", ".", ":!docs/proof.md")
    mark = hashlib.sha256(changes.encode()).hexdigest()[:8]
    return git("rev-parse", "--short=12", "HEAD") + (f" with changes ({mark})" if changes else "")


def load(path, version, minutes):
    """The state of an interrupted proof of this version and minutes, or a new one."""
    here = {"version": version, "minutes": minutes}
    try:
        state = json.loads(path.read_text(encoding="utf-8"))
        if here.items() <= state.items() and not state["finished"]:
            print(f"proof: goes on with the proof begun at {state['begun']}")
            return state
    except (OSError, ValueError, KeyError, AttributeError):
        pass
    return {**here, "seed": int(time.time()), "begun": time.strftime("%Y-%m-%d %H:%M"),
            "finished": False, "stages": {}}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=90)
    minutes = parser.parse_args().minutes
    if not 0 < minutes < math.inf:
        parser.error("--minutes has to be a number above 0")
    jobs = int(os.environ.get("PAVO_JOBS") or os.cpu_count())
    path = FOLDER / "state.json"
    processes = Processes()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, processes.stop)
    state = load(path, version(), minutes)
    proof = Proof(proof_stages.STAGES, state, path, jobs, processes)
    page = ROOT / "docs/proof.md"
    machine = bench_table.machine()
    try:
        findings = proof.run(lambda state: page.write_text(
            proof_page.page(state, proof_stages.STAGES, jobs, machine), encoding="utf-8"))
    except Interrupted:
        proof.save()
        print("proof: interrupted; ./dev proof with the same --minutes goes on from here")
        return 130
    print(f"proof: {findings} findings; the figures are in {page.relative_to(ROOT)}")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
