# SPDX-License-Identifier: MIT
"""A copy of the tree in which one mutant at a time is built and tested."""
import hashlib
import os
import pathlib
import resource
import shutil
import signal
import subprocess

from operators import apply

BUILD_LIMIT_S = 600
CAMPAIGN_SEED_LIMIT_S = 60

# What is linked and run, by what was changed; those that find most there come first as figures come in.
TESTS = {
    "driver": ["driver_queues_test", "driver_exchange_test", "driver_sector_flags_test", "driver_locks_test",
               "driver_memory_object_test", "driver_page_pool_test", "driver_cache_layer_test",
               "driver_memory_probe_test", "driver_disk_table_test", "driver_settings_test",
               "driver_request_end_test", "image_header", "image_overlay", "image_route", "image_sync",
               "scenario_requests_test", "scenario_wire_test", "scenario_timeouts_test", "scenario_receive_test",
               "scenario_startup_test", "scenario_disks_found_test", "scenario_adapter_test",
               "scenario_scsi_commands_test", "scenario_completion_test", "scenario_shutdown_test",
               "scenario_failover_test", "scenario_port_driver_test", "scenario_sharing_test",
               "scenario_cache_test", "scenario_local_boot_test"],
    "server": ["server_core_64", "server_program", "scenario_requests_test", "scenario_timeouts_test",
               "scenario_failover_test", "scenario_shutdown_test"],
    "tools": ["image_tool"],
}
# The first to be tried before there are figures.
FIRST = {
    "driver/cache": ["driver_cache_layer_test", "driver_memory_object_test", "driver_page_pool_test"],
    "driver/image": ["image_sync", "image_overlay", "image_header", "image_route"],
    "driver/net": ["scenario_timeouts_test", "scenario_receive_test", "scenario_wire_test"],
    "driver/engine": ["scenario_requests_test", "scenario_sharing_test", "driver_queues_test"],
    "driver/miniport": ["scenario_scsi_commands_test", "scenario_port_driver_test", "scenario_adapter_test"],
    "driver/request": ["driver_queues_test", "driver_request_end_test", "scenario_sharing_test"],
    "driver/state": ["driver_disk_table_test", "driver_settings_test", "driver_memory_probe_test"],
    "driver/block": ["driver_sector_flags_test", "image_overlay", "driver_cache_layer_test"],
    "driver/kernel": ["driver_locks_test", "driver_settings_test"],
    "driver/startup": ["scenario_disks_found_test", "scenario_startup_test", "driver_settings_test"],
}


def folder_of(path):
    return "/".join(path.split("/")[:2]) if path.startswith("driver/") else path.split("/")[0]


def ordered_tests(path, found_by):
    """found_by: how many mutants of the folder each test noticed so far."""
    folder = folder_of(path)
    tests = TESTS[path.split("/")[0]]
    first = [t for t in FIRST.get(folder, []) if t in tests]
    rest = first + [t for t in tests if t not in first]
    return sorted(rest, key=lambda t: -found_by.get(folder, {}).get(t, 0))


def run(command, limit_s, **more):
    """The exit status, "time" past the limit. What it prints is thrown away."""
    def limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL, start_new_session=True, preexec_fn=limits, **more)
    try:
        return child.wait(limit_s)
    except subprocess.TimeoutExpired:
        return "time"
    finally:
        # What it started itself goes with it.
        try:
            os.killpg(child.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        child.wait()


class Bench:
    def __init__(self, source, folder, seeds, test_limit_s):
        self.source, self.tree = pathlib.Path(source), pathlib.Path(folder) / "tree"
        self.build = self.tree / "build" / "host"
        self.seeds, self.test_limit_s = seeds, test_limit_s

    def copy_tree(self):
        """The work tree as it is, changes that are not committed included; files that stayed keep their age.
        Returns a digest of it."""
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                cwd=self.source, check=True, capture_output=True).stdout
        names = {os.fsdecode(n) for n in listed.split(b"\0") if n}
        names = {n for n in names if (self.source / n).is_file()}
        digest = hashlib.sha1()
        for name in sorted(names):
            digest.update(name.encode() + b"\0" + (self.source / name).read_bytes() + b"\0")
            origin, copy = self.source / name, self.tree / name
            if not copy.is_file() or copy.read_bytes() != origin.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(origin, copy)
        for top, folders, files in os.walk(self.tree):
            if pathlib.Path(top) == self.tree:
                folders[:] = [f for f in folders if f != "build"]
            for file in files:
                place = pathlib.Path(top) / file
                if str(place.relative_to(self.tree)) not in names:
                    place.unlink()
        return digest.hexdigest()[:12]

    def prepare(self, targets):
        """Builds everything unchanged; tests that fail then could notice nothing."""
        digest = self.copy_tree()
        if run(["cmake", "--preset", "host", "-DQRN_LINKED_DRIVER_ALONE=ON", "-DCMAKE_EXE_LINKER_FLAGS=-Wl,-S",
                "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"], BUILD_LIMIT_S, cwd=self.tree) != 0:
            raise SystemExit(f"cmake fails in {self.tree}")
        if self.make(targets, limit_s=10 * BUILD_LIMIT_S) != 0:
            raise SystemExit(f"the unchanged tree does not build in {self.tree}")
        proved = self.tree.parent.parent / f"proved-{digest}"
        for target in targets if not proved.exists() else ():
            if target != "qrn-campaign" and self.test(target) != 0:
                raise SystemExit(f"{target} fails without any change")
        proved.touch()

    def make(self, targets, limit_s=BUILD_LIMIT_S):
        # Mutants are no use to others who share a compiler cache.
        return run(["ninja", "-j", "1", *targets], limit_s, cwd=self.build,
                   env={**os.environ, "CCACHE_READONLY": "1"} if limit_s == BUILD_LIMIT_S else None)

    def test(self, target):
        return run([self.build / "tests" / target, "--gtest_fail_fast", "--gtest_brief=1"], self.test_limit_s)

    def campaign(self):
        return run([self.tree / "build" / "bin" / "qrn-campaign", "--seeds", str(self.seeds), "--jobs", "1",
                    "--seed-timeout", str(CAMPAIGN_SEED_LIMIT_S)],
                   self.seeds * CAMPAIGN_SEED_LIMIT_S + 60)

    def code(self, path):
        """What the compiler made of a source, without what tells lines; None of a header."""
        objects = list(self.build.rglob(f"*{path.removeprefix(path.split('/')[0])}.o"))
        if not path.endswith(".cpp") or not objects:
            return None
        parts = []
        for place in sorted(objects):
            bare = self.build / "bare.o"
            subprocess.run(["strip", "--strip-debug", "-o", bare, place], check=True)
            parts.append(bare.read_bytes())
        return parts

    def judge(self, path, mutant, found_by):
        """What notices the mutant: a test, "campaign", None; "rejected" by the compiler, or "same" code."""
        place = self.tree / path
        text = place.read_text()
        before = self.code(path)
        place.write_text(apply(text, mutant))
        try:
            return self.noticed_by(path, before, found_by)
        finally:
            place.write_text(text)
            # An object that is older than the text would pass for the unchanged one's.
            self.make(self.libraries(path))

    def libraries(self, path):
        return {"driver": ["qrn_driver"], "server": ["qrn_server_core_64", "qrn_server_core_32", "qrn-server"],
                "tools": ["qrn_image_core", "qrn-image"]}[path.split("/")[0]]

    def noticed_by(self, path, before, found_by):
        built = self.make(self.libraries(path))
        if built != 0:
            return "rejected"
        if before is not None and self.code(path) == before:
            return "same"
        tests = ordered_tests(path, found_by)
        for batch in (tests[:1], tests[1:3], tests[3:8], tests[8:]):
            if batch and self.make(batch) != 0:
                return "rejected"
            for test in batch:
                status = self.test(test)
                if status != 0:
                    return test + (" (time)" if status == "time" else "")
        if self.seeds and path.split("/")[0] != "tools":
            if self.make(["qrn-campaign"]) != 0:
                return "rejected"
            if self.campaign() != 0:
                return "campaign"
        return None
