"""The proof goes on after findings, keeps its time, resumes, and writes down what was done."""

import json
import pathlib
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tools"))
import proof  # noqa: E402
import proof_page  # noqa: E402
import proof_stages  # noqa: E402

RATE = 50  # Rounds a second of the tests below.


def stage(name, share, goal=None, units=("A.a", "B.b")):
    return proof_stages.Stage(
        name, name, "seeds", share, (("build", name),),
        lambda output: {unit: (unit,) for unit in units}, proof_stages.seeds_slice("tsan"), goal)


class Machine:
    """Runs nothing: each test makes its rounds in the time that they take. C.c fails."""

    def __init__(self, stop_after=None):
        self.stopped = threading.Event()
        self.stop_after = stop_after
        self.seeds = {}

    def __call__(self, command, environment, timeout):
        if command[0] == "build":
            return int(command[1] == "broken"), "no such target\n", 7
        if self.stop_after == 0:
            self.stopped.set()
            return -15, "", 3
        if self.stop_after:
            self.stop_after -= 1
        if command[0] == "C.c":
            return 1, "x.cpp:5: Failure\nnot 5\nalone: PAVO_TEST_SEED=1005\n0 rounds passed", 1
        first, rounds = (int(environment[f"PAVO_TEST_{name}"]) for name in ("SEED", "ROUNDS"))
        self.seeds.setdefault(command[0], []).extend(range(first, first + rounds))
        return 0, f"{rounds} rounds passed, from seed {first}\n", rounds / RATE


class ProofTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "state.json"

    def proof(self, machine, *stages):
        made = proof.Proof(stages, proof.load(self.path, "commit", 10), self.path, 1, machine)
        made.state["seed"] = 1000
        made.say = lambda text: None
        return made

    def test_goes_on_after_findings_and_gives_the_time_left_to_later_stages(self):
        stages = [stage("quick", 1, goal=1000), stage("broken", 1),
                  stage("failing", 1, units=("A.a", "C.c")), stage("rest", 1)]
        made = self.proof(Machine(), *stages)
        self.assertEqual(made.run(), 4)
        seconds = [round(made.seconds(each)) for each in stages]
        self.assertEqual(seconds[:2], [40, 0])
        self.assertAlmostEqual(seconds[2], 280, delta=2)
        self.assertAlmostEqual(sum(seconds), 600, delta=2)
        page = proof_page.page(made.state, stages, 1, "a machine")
        for line in ("| quick | 0.01 | 2,000 seeds | 1,000 in 2 of 2 | 0 |",
                     "not run: build broken: no such target",
                     "- failing, `C.c`: exit status 1; x.cpp:5: Failure; not 5",
                     "| `C.c` | 0 | 0.1 | 3 |"):
            self.assertIn("\n" + line + "\n", page)
        self.assertRegex(page, "PAVO_TEST_SEED=1005 .*C.c`")
        self.assertNotIn("PAVO_TEST_ROUNDS", page)

    def test_goes_on_where_it_was_interrupted(self):
        stages = [stage("first", 1, units=("A.a",)), stage("second", 1, units=("B.b",))]
        machine = Machine()
        self.assertEqual(self.proof(machine, *stages).run(), 0)
        seeds = {}
        for stop_after in (3, 9):
            interrupted = Machine(stop_after)
            with self.assertRaises(proof.Interrupted):
                self.proof(interrupted, *stages).run()
            for unit, done in interrupted.seeds.items():
                seeds.setdefault(unit, []).extend(done)
        last = Machine()
        resumed = self.proof(last, *stages)
        self.assertEqual(resumed.run(), 0)
        for unit, done in last.seeds.items():
            seeds.setdefault(unit, []).extend(done)
        self.assertEqual(seeds, machine.seeds)
        self.assertTrue(json.loads(self.path.read_text(encoding="utf-8"))["finished"])
        self.assertEqual(proof.load(self.path, "commit", 10)["stages"], {})  # The next one is new.

    def test_finds_a_test_that_runs_nothing(self):
        nothing = proof_stages.Slice(("ctest",), proof_stages.number_of(r"^(\d+) rounds"))
        self.assertEqual(nothing.count("[  PASSED  ] 0 tests."), 0)
        self.assertIn("nothing was run", proof.finding(nothing, 0, "")["what"])


if __name__ == "__main__":
    unittest.main()
