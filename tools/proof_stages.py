"""The stages of `./dev proof`: what each runs, how it is built, and how its figure is read."""

import dataclasses
import json
import os
import pathlib
import re
from collections.abc import Callable

ROOT = pathlib.Path(__file__).resolve().parent.parent
JOBS = os.environ.get("PAVO_JOBS", "2")
IN_CHROOT = ("env", "PAVO_CHROOT=fuzz", "tools/i386", "run")
RANDOM_PROGRAMS = ("agents-test", "arp-test", "interface-test", "kernel-test", "mox-test",
                   "packet-test", "pam-test", "tcp-test", "value-test")
LONG_PROGRAMS = ("mox-test", "pam-test", "tcp-test")


@dataclasses.dataclass(frozen=True)
class Slice:
    """One command of a unit: a fuzz target or a test, for some seconds."""

    command: tuple[str, ...]
    count: Callable[[str], int]  # What was done, as the output says; 0 where it does not.
    environment: dict[str, str] = dataclasses.field(default_factory=dict)
    rounds: int = 0  # That the command was asked for.


@dataclasses.dataclass(frozen=True)
class Stage:
    """A row of the table below."""

    name: str
    title: str
    counted: str  # What its figure counts.
    share: int  # Of the time, beside the other stages.
    # Commands that build it and, last, one that lists its units: {name: command} by `units`.
    build: tuple[tuple[str, ...], ...]
    units: Callable[[str], dict[str, tuple[str, ...]]]
    # The next slice of a unit: its command, seconds, and what the unit has done; the first seed.
    slice: Callable[[tuple[str, ...], float, dict, int], Slice]
    goal: int | None = None  # What each of its units counts to, where time suffices.
    slice_seconds: float = 60


def number_of(pattern):
    """Reads the sum of the numbers, or the number of matches, that a pattern finds."""
    return lambda output: sum(int(each) if each.isdigit() else 1
                              for each in re.findall(pattern, output, re.MULTILINE))


def preset_environment(preset):
    presets = json.loads((ROOT / "CMakePresets.json").read_text(encoding="utf-8"))["testPresets"]
    return next(each for each in presets if each["name"] == preset).get("environment", {})


def ctest_commands(output):
    """{test: its command} of what `ctest --show-only=json-v1` prints, after other lines or not."""
    tests = json.loads(output[re.search(r"^\{", output, re.MULTILINE).start():])["tests"]
    return {test["name"]: tuple(test["command"]) for test in tests if "command" in test}


def tests_with(call):
    """The tests in the sources whose body has a call, as Suite.Name."""
    for path in sorted((ROOT / "tests").rglob("*.cpp")):
        text = path.read_text(encoding="utf-8")
        for suite, name, body in re.findall(r"^TEST(?:_F)?\((\w+),\s*(\w+)\) \{$(.*?)^\}", text,
                                            re.MULTILINE | re.DOTALL):
            if call in body:
                yield f"{suite}.{name}"


def commands_with(call):
    """Units: the built tests whose body has a call."""

    def units(output):
        commands = ctest_commands(output)
        found = {}
        for test in tests_with(call):
            full = [name for name in commands if name.endswith("." + test)]
            if not full:
                raise ValueError(f"{test} is in none of the programs that are built")
            found[test] = commands[full[0]]
        return found

    return units


def seeds_slice(preset):
    """As many seeds as the seconds allow, by the time that the ones before took."""

    def next_slice(command, seconds, done, first_seed):
        most = 2
        if done["count"] > 0:
            most = min(done["count"] / max(done["seconds"], 0.01) * seconds, 50 * done["count"])
        rounds = max(2, int(most))
        if done.get("goal"):
            rounds = max(2, min(rounds, done["goal"] - done["count"]))
        environment = {"PAVO_TEST_SEED": str(first_seed + done["asked"]),
                       "PAVO_TEST_ROUNDS": str(rounds), "PAVO_REQUIRE_SANDBOX": "1",
                       **preset_environment(preset)}
        return Slice(command, number_of(r"^(\d+) rounds passed"), environment, rounds)

    return next_slice


def storm_slice(command, seconds, done, first_seed):
    """Seeds of a test that takes routes away and brings them, by default fewer."""
    few = seeds_slice("release")(command, seconds, done, first_seed)
    return dataclasses.replace(few, environment={**few.environment,
                                                 "PAVO_STORM_ROUTES": "100000"})


def repeated_slice(preset):
    """The whole test again and again."""

    def next_slice(command, seconds, done, first_seed):
        rate = done["count"] / max(done["seconds"], 0.01)
        rounds = max(1, int(min(rate * seconds, 50 * done["count"])))
        environment = {"PAVO_REQUIRE_SANDBOX": "1", **preset_environment(preset)}
        command = (*command, f"--gtest_repeat={rounds}", "--gtest_brief=1")
        return Slice(command, number_of(r"^\[  (PASSED)  \] 1 test"), environment, rounds)

    return next_slice


def fuzz_slice(*prefix):
    def next_slice(command, seconds, done, first_seed):
        before, target = command[:-1], command[-1]
        return Slice((*prefix, *before, str(max(1, int(seconds))), target),
                     number_of(rf"^{target} .*?(\d+) runs"))

    return next_slice


def fuzz_units(*command):
    return lambda output: {target: (*command, target) for target in output.split()}


LIST_TESTS = ("ctest", "--show-only=json-v1", "--preset")
LIST_TARGETS = ("./dev", "fuzz", "--list")

# The first ones reach their goals or end early; what they leave goes to those after them.
STAGES = (
    Stage("programs", "Long tests: random programs of everything that is notified", "programs", 9,
          (("./dev", "build", "release", *RANDOM_PROGRAMS), (*LIST_TESTS, "release")),
          commands_with("runPrograms("), seeds_slice("release"), goal=100_000),
    Stage("storm", "Storms of 100,000 changes of routes", "storms", 6,
          (("./dev", "build", "release", "kernel-test"), (*LIST_TESTS, "release")),
          commands_with("stormRoutes("), storm_slice, goal=20),
    Stage("random", "Random tests", "seeds", 8,
          (("./dev", "build", "release", *RANDOM_PROGRAMS), (*LIST_TESTS, "release")),
          commands_with("PavoTest::Seeds("), seeds_slice("release"), goal=1_000_000),
    Stage("asan", "Long tests under the address and undefined-behaviour sanitizers", "programs", 4,
          (("./dev", "build", "asan", *LONG_PROGRAMS), (*LIST_TESTS, "asan")),
          commands_with("runPrograms("), seeds_slice("asan")),
    Stage("threads", "Tests with threads under the thread sanitizer", "runs", 4,
          (("./dev", "threads", "--show-only=json-v1"),), ctest_commands,
          repeated_slice("tsan"), slice_seconds=20),
    Stage("fuzz-i386", "Fuzz targets as 32-bit programs", "executions", 10,
          ((*IN_CHROOT, "cmake", "--preset", "i386-fuzz"),
           (*IN_CHROOT, "cmake", "--build", "--preset", "i386-fuzz", "-j", JOBS),
           LIST_TARGETS),
          fuzz_units("tools/fuzz", "--no-keep", "build/i386-fuzz"), fuzz_slice(*IN_CHROOT)),
    Stage("fuzz", "Fuzz targets", "executions", 55,
          (("./dev", "build", "fuzz"), LIST_TARGETS),
          fuzz_units("tools/fuzz", "build/fuzz"), fuzz_slice(), slice_seconds=120),
)
