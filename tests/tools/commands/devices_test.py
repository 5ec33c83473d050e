"""zorvex devices, and --device of train, evaluate and recommend, with and without OpenCL; which kernel
file is compiled, and that nothing planted is."""

import csv
import json
import os
import shutil
import unittest

import tool

POCL = os.environ["ZORVEX_POCL"]
KERNELS = os.environ["ZORVEX_KERNELS"]
WITH_POCL = {**tool.ENVIRONMENT, "OCL_ICD_VENDORS": POCL}
NO_DEVICE = "--device opencl: OpenCL has no device that can be opened"
# Its build fails and shows this word.
PLANTED = "#error PLANTED\n"
BPR = ["--algorithm", "bpr", "--dim", "8", "--epochs", "8", "--learning-rate", "0.1"]
SPLIT = ["--holdout", "leave-one-out", "--write-train", "train.csv", "--write-test", "test.csv"]

with_pocl = unittest.skipUnless(os.path.exists(POCL), "no OpenCL device is installed")


class Devices(tool.Case):
    def test_without_opencl(self):
        result = self.tool("devices")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout, b"platform,device,type,memory,units,engine,kernels\n")
        self.assertEqual(result.stderr, "the engine computes on the CPU: OpenCL has no device that "
                                        "can be opened\n")
        self.assertEqual(self.good("--json", "devices"),
                         '{"platforms":[],"kernels_load":false,'
                         '"why_not":"OpenCL has no device that can be opened"}\n')
        self.assertEqual(self.tool("-q", "devices").stderr, "")

    @with_pocl
    def test_with_a_device(self):
        result = self.tool("devices", env=WITH_POCL)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        heading, row = csv.reader(result.stdout.decode().splitlines())
        self.assertEqual(heading,
                         ["platform", "device", "type", "memory", "units", "engine", "kernels"])
        self.assertEqual(row[0], "Portable Computing Language")
        self.assertEqual((row[2], row[5], row[6]), ("cpu", "takes", "load"))

        listed = json.loads(self.good("devices", "--json", env=WITH_POCL))
        self.assertEqual((listed["kernels_load"], listed["why_not"]), (True, None))
        platform, = listed["platforms"]
        self.assertEqual(platform["name"], row[0])
        self.assertRegex(platform["version"], "^OpenCL ")
        device, = platform["devices"]
        self.assertEqual(device, {"name": row[1], "type": "cpu", "memory": device["memory"],
                                  "compute_units": int(row[4]), "engine_takes": True})
        self.assertGreater(device["memory"], 0)

    def test_takes_no_operands(self):
        self.assertEqual(self.tool("devices", "all").returncode, 2)


class Choice(tool.Case):
    """A model, its split, and commands that have something to do for a device."""

    def setUp(self):
        super().setUp()
        self.good("generate", "--users", "700", "--items", "600", "--interactions", "30000", "-o",
                  "in.csv")
        self.good("-q", "train", "in.csv", "-o", "m.zxm", *BPR, *SPLIT)
        self.commands = {"train": ["train", "in.csv", "-o", "n.zxm", *BPR],
                         "evaluate": ["evaluate", "m.zxm", "--test", "test.csv", "--train",
                                      "train.csv"],
                         "recommend": ["recommend", "m.zxm", "--all", "--exclude", "train.csv"]}

    def test_an_unknown_device_is_a_usage_error(self):
        for command in self.commands.values():
            self.fails(2, "--device: gpu is none of auto|cpu|opencl (see --help)", *command,
                       "--device", "gpu")

    def test_a_device_that_cannot_be_had_is_status_7(self):
        before = self.files()
        als = ["train", "in.csv", "-o", "n.zxm"]
        few = ["recommend", "m.zxm", "--user", "1"]
        listed = ["evaluate", "m.zxm", "--negatives", self.write("neg.txt", "1 1 2\n")]
        for command in (*self.commands.values(), als, few, listed):
            with self.subTest(command):
                result = self.fails(7, NO_DEVICE, "-q", *command, "--device", "opencl")
                self.assertEqual(len(result.stderr.splitlines()), 1)
        self.assertEqual(self.files(), sorted([*before, "neg.txt"]))

    def results(self, *options, **more):
        """What each command gives: standard output, and the model."""
        outputs = [self.good("-q", *command, *options, **more)
                   for command in self.commands.values()]
        return outputs, tool.read(self.path("n.zxm"))

    @with_pocl
    def test_auto_does_not_take_a_processor_as_a_device(self):
        expected = self.results("--device", "cpu")
        self.assertEqual(self.results("--device", "auto", env=WITH_POCL), expected)
        self.assertEqual(self.results(env=WITH_POCL), expected)
        self.assertEqual(self.results("--device", "auto"), expected)
        self.assertEqual(self.results("--device", "cpu", env=WITH_POCL), expected)

    @with_pocl
    def test_a_device_trains_as_well_as_the_processor(self):
        # Two batches and a third one of 512 or more triples, and one of fewer, each epoch.
        for batch in ("9000", "14500"):
            with self.subTest(batch=batch):
                figures = []
                for device in ("cpu", "opencl"):
                    result = self.tool("--json", "train", "in.csv", "-o", device + ".zxm", *BPR,
                                       "--bias", "--batch", batch, "--holdout", "leave-one-out",
                                       "--device", device, env=WITH_POCL)
                    self.assertEqual(result.returncode, 0, result.stderr)
                    self.assertEqual("\ndevice " in result.stderr, device == "opencl")
                    figures.append(json.loads(result.stdout)["held_out"]["at"][0])
                for name in ("hit_rate", "ndcg"):
                    self.assertAlmostEqual(figures[0][name], figures[1][name], delta=0.03)
                self.assertNotEqual(tool.read(self.path("cpu.zxm")),
                                    tool.read(self.path("opencl.zxm")))
                # What is saved is what was measured last, and not the tables of an earlier side.
                saved = json.loads(self.good("--json", "evaluate", "opencl.zxm", "--train",
                                             "train.csv", "--test", "test.csv", "-k", "10"))
                self.assertEqual(saved["full"][0]["model"]["at"][0], figures[1])

    @with_pocl
    def test_a_device_ranks_as_the_processor_does(self):
        for name in ("evaluate", "recommend"):
            command = self.commands[name]
            cpu = list(csv.reader(self.good("-q", *command, "--device", "cpu").splitlines()))
            result = self.tool(*command, "--device", "opencl", env=WITH_POCL)
            self.assertEqual(result.returncode, 0)
            self.assertRegex(result.stderr, r"\Adevice [^\n]+\n\Z")
            device = list(csv.reader(result.stdout.decode().splitlines()))
            self.assertEqual(len(device), len(cpu))
            for expected, row in zip(cpu, device):
                for a, b in zip(expected, row):
                    if a != b:  # a score, or a figure that one changed place has moved
                        self.assertAlmostEqual(float(a), float(b), delta=1e-4)

    @with_pocl
    def test_a_demanded_device_without_work_is_a_warning(self):
        for command, work in [
                (["train", "in.csv", "-o", "n.zxm", "--dim", "4"],
                 "BPR batches of 512 triples or more"),
                ([*self.commands["train"], "--batch", "511"], "BPR batches of 512 triples or more"),
                (["evaluate", "m.zxm", "--negatives", self.write("neg.txt", "1 1 2\n")],
                 "full rankings of 512 items or more")]:
            with self.subTest(command):
                expected = self.good("-q", *command)
                result = self.tool(*command, "--device", "opencl", env=WITH_POCL)
                self.assertEqual((result.returncode, result.stdout.decode()), (0, expected))
                self.assertIn(f"zorvex: warning: only {work} run on a device; computing on the "
                              "CPU\n", result.stderr)


@with_pocl
class KernelFile(tool.Case):
    """Programs installed below the test's folder: prefix/bin/zorvex with its kernel file."""

    def setUp(self):
        super().setUp()
        os.makedirs(self.path("prefix/bin"))
        self.program = shutil.copy(tool.TOOL, self.path("prefix/bin/zorvex"))
        self.plant("prefix/share/zorvex/zorvex_kernels.cl", tool.read(KERNELS).decode())
        os.makedirs(self.path("user/folder"))

    def plant(self, name, text=PLANTED):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        self.write(name, text)
        return self.path(name)

    def installed(self, *arguments, folder="user/folder"):
        """Runs the installed program in a folder of a user."""
        return tool.run(*arguments, program=self.program, cwd=self.path(folder), env=WITH_POCL)

    def expect_kernels(self, folder="user/folder"):
        result = self.installed("--json", "devices", folder=folder)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertTrue(json.loads(result.stdout)["kernels_load"])

    def expect_none(self, why):
        """The last line of what is said, and standard error whole."""
        result = self.installed("--json", "devices")
        self.assertEqual(result.returncode, 0)
        listed = json.loads(result.stdout)
        self.assertEqual((listed["kernels_load"], listed["why_not"]), (False, why))
        self.assertEqual(result.stderr.splitlines()[-1], "the engine computes on the CPU: " + why)
        self.write("user/folder/in.csv", "a,x\nb,y\n")
        train = self.installed("train", "in.csv", "-o", "m.zxm", "--device", "opencl")
        return train, result.stderr

    def test_of_the_prefix_is_taken_whatever_the_users_folder_holds(self):
        self.expect_kernels()
        for name in ("user/folder/zorvex_kernels.cl", "user/folder/src/kernels/zorvex_kernels.cl",
                     "user/src/kernels/zorvex_kernels.cl", "user/share/zorvex/zorvex_kernels.cl"):
            self.plant(name)
        self.expect_kernels()
        self.good("generate", "-o", "user/folder/in.csv", "--users", "100", "--items", "600",
                  "--interactions", "2000")
        # Names of files are the user's own, before and behind the start of the engine.
        for command in (["train", "in.csv", "-o", "m.zxm", *BPR, *SPLIT],
                        ["evaluate", "m.zxm", "--test", "test.csv"],
                        ["recommend", "m.zxm", "--all", "-o", "best.csv"]):
            result = self.installed(*command, "--device", "opencl")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("device ", result.stderr)
            self.assertNotIn("PLANTED", result.stderr)
        self.assertLessEqual({"m.zxm", "m.zxm.ids", "train.csv", "best.csv"},
                             set(os.listdir(self.path("user/folder"))))

    def test_beside_the_program_is_a_reason_to_use_no_device(self):
        for place in ("prefix/bin", "prefix/bin/src/kernels", "prefix/src/kernels"):
            with self.subTest(place):
                path = self.plant(place + "/zorvex_kernels.cl")
                why = f'{path} stands where the engine looks before the installed kernel file'
                train, said = self.expect_none(why)
                self.assertEqual(train.returncode, 7)
                self.assertEqual(train.stderr.splitlines()[-1], "zorvex: --device opencl: " + why)
                self.assertNotIn("PLANTED", said + train.stderr)
                os.remove(path)
        self.expect_kernels()

    def test_that_a_stranger_may_change_is_not_compiled(self):
        for name in ("prefix/bin", "prefix", "prefix/share", "prefix/share/zorvex",
                     "prefix/share/zorvex/zorvex_kernels.cl"):
            with self.subTest(name):
                path = self.path(name)
                mode = os.stat(path).st_mode & 0o7777
                os.chmod(path, mode | 0o002)
                why = f'others than root, you and the program\'s owner may change {path}'
                train, _ = self.expect_none(why)
                self.assertEqual(train.stderr.splitlines()[-1], "zorvex: --device opencl: " + why)
                os.chmod(path, mode)
        self.expect_kernels()

    @unittest.skipUnless(os.geteuid() == 0, "only root can give files away")
    def test_of_a_stranger_is_not_compiled(self):
        path = self.path("prefix/share/zorvex/zorvex_kernels.cl")
        os.chown(path, 12345, -1)
        self.expect_none(f'others than root, you and the program\'s owner may change {path}')
        # One that owns the program as well is trusted with its kernels.
        os.chown(self.program, 12345, -1)
        self.expect_kernels()

    def test_that_does_not_build_is_reported(self):
        self.plant("prefix/share/zorvex/zorvex_kernels.cl")
        name = json.loads(self.good("--json", "devices", env=WITH_POCL))["platforms"][0]["devices"][
            0]["name"]
        why = f"the kernels of {name} do not load: Kernel compilation failed"
        train, said = self.expect_none(why)
        self.assertIn("PLANTED", said)
        self.assertEqual(train.returncode, 7)
        self.assertEqual(train.stderr.splitlines()[-1], "zorvex: --device opencl: " + why)

    def test_without_the_kernel_that_is_needed_fails_the_command(self):
        self.plant("prefix/share/zorvex/zorvex_kernels.cl",
                   "__kernel void relu(__global float* x, const int n) { x[0] = n; }\n")
        self.expect_kernels()
        self.good("generate", "-o", "user/folder/in.csv", "--users", "100", "--items", "600",
                  "--interactions", "2000")
        result = self.installed("train", "in.csv", "-o", "m.zxm", *BPR, "--device", "opencl")
        self.assertEqual(result.returncode, 7)
        self.assertEqual(result.stderr.splitlines()[-1],
                         "zorvex: --device opencl: the device fails at training: Kernel execution "
                         "failed; m.zxm is untouched")
        self.assertNotIn("m.zxm", os.listdir(self.path("user/folder")))

    def test_is_found_from_a_folder_that_cannot_be_read_or_is_gone(self):
        closed = self.path("closed")
        os.mkdir(closed, 0o311)
        self.addCleanup(os.chmod, closed, 0o700)
        self.expect_kernels("closed")
        gone = self.path("gone")
        os.mkdir(gone)
        result = tool.run("--json", "devices", program=self.program, env=WITH_POCL, cwd=gone,
                          preexec_fn=lambda: os.rmdir(gone))
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertTrue(json.loads(result.stdout)["kernels_load"])


if __name__ == "__main__":
    unittest.main()
