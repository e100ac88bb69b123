#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What is installed: that it runs, that its manuals and completions name every option.

usage: installed_test.py BUILD-FOLDER. With QRN_LONG_TESTS, as root, also the Debian packages in a bare system."""
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = sys.argv.pop(1)
MANUALS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/man")
PROGRAMS = ("qrn-server", "qrn-ctl", "qrn-station", "qrn-image")

# Image, area, server, workstation, and every byte compared.
MAIN_JOB = r"""set -e
cd "$1"
head -c 3000000 /dev/urandom >image && truncate -s 4M image
qrn-image create area --from image >/dev/null
qrn-server --listen 127.0.0.1:0 --disk image,image=area --boot-block boot.block >server.out &
server=$!
until grep -q ^ready server.out; do kill -0 $server; sleep 0.1; done
qrn-station --boot-block boot.block --nbd unix:nbd.sock $2 >station.out &
station=$!
until grep -q ^ready station.out; do kill -0 $station; sleep 0.1; done
qrn-image compare "nbd+unix:///lun0?socket=nbd.sock" area
kill $station && wait $station
kill $server && wait $server
"""


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}: {done.returncode}\n{done.stdout[-3000:]}")
    return done.stdout


def options_of(text):
    return set(re.findall(r"(?<![\w-])(--[a-z][a-z-]*[a-z])", text))


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="qrn-installed-")
        cls.root = f"{cls.folder}/root"
        for component in ("server", "station", "tools", "windows"):
            run("cmake", "--install", BUILD, "--component", component, "--prefix", "/usr",
                env={**os.environ, "DESTDIR": cls.root})
        cls.environment = {**os.environ, "PATH": f"{cls.root}/usr/bin:{os.environ['PATH']}"}

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder)

    def test_Main_job_runs_from_where_it_is_installed(self):
        driver = f"{self.root}/usr/share/qrndisk/windows/qrndisk.sys"
        for number, arguments in enumerate(("", f"--driver {driver}")):
            work = f"{self.folder}/work{number}"
            os.mkdir(work)
            self.assertIn("0 sectors differ",
                          run("sh", "-c", MAIN_JOB, "sh", work, arguments, env=self.environment, timeout=60))

    def test_Everything_has_its_place(self):
        for path in ("lib/systemd/system/qrn-server.service", "share/qrndisk/qrndisk.lua", "share/qrndisk/qrnboot.pxe",
                     "share/qrndisk/windows/qrndisk.inf", "share/qrndisk/windows/txtsetup.oem",
                     "share/doc/qrndisk-windows/copyright", "share/doc/qrn-server/third-party.md"):
            self.assertTrue(os.path.exists(f"{self.root}/usr/{path}"), path)
        self.assertTrue(os.path.exists(f"{self.root}/etc/default/qrn-server"))

    def test_Manuals_and_help_name_the_same_options(self):
        for program in PROGRAMS:
            with self.subTest(program):
                help_text = run(program, "--help", env=self.environment)
                with open(f"{MANUALS}/{program}.1.scd") as file:
                    manual = file.read()
                described = set(re.findall(r"^\*(--[a-z-]+)\*", manual, re.M))
                self.assertEqual(described, options_of(help_text))
                self.assertLessEqual(options_of(manual), described)
        commands = set(re.findall(r"^([a-z]+)(?:, [a-z]+)?$", run("qrn-image", "--help", env=self.environment), re.M))
        with open(f"{MANUALS}/qrn-image.1.scd") as file:
            self.assertEqual(set(re.findall(r"^\*qrn-image\* \*([a-z]+)\*", file.read(), re.M)), commands)
        with open(f"{MANUALS}/qrn-server.1.scd") as file:
            manual = file.read()
        for option in re.findall(r"^  ([a-z_]+=?)[A-Z:]* ", run("qrn-server", "--help", env=self.environment), re.M):
            self.assertIn(f"*{option}*", manual)

    def complete(self, *words):
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
                  '_qrndisk "$1" "${@: -1}" "${@: -2:1}"; printf "%s\\n" "${COMPREPLY[@]}"')
        path = f"{self.root}/usr/share/bash-completion/completions/qrn-image"
        return set(run("bash", "-c", script, "bash", path, *words, env=self.environment, cwd=self.root).split())

    def test_Shells_complete_what_help_names(self):
        self.assertEqual(self.complete("qrn-server", "--"), options_of(run("qrn-server", "--help", env=self.environment)))
        self.assertEqual(self.complete("qrn-station", "--st"), {"--stats-json", "--status"})
        self.assertEqual(self.complete("qrn-image", "re"), {"repair", "resize"})
        self.assertEqual(self.complete("qrn-image", "extract", "--a"), {"--allow-absent"})
        self.assertEqual(self.complete("qrn-image", "check", "--output", ""), {"text", "json"})
        if shutil.which("zsh"):
            run("zsh", "-n", f"{self.root}/usr/share/zsh/vendor-completions/_qrndisk")

    def test_Manuals_can_be_read(self):
        if not shutil.which("scdoc"):
            self.skipTest("takes scdoc")
        for source in glob.glob(f"{MANUALS}/*.scd"):
            page = os.path.basename(source)[:-4]
            path = f"{self.root}/usr/share/man/man{page[-1]}/{page}"
            with open(path) as file:
                self.assertIn(".SH NAME", file.read())


@unittest.skipUnless(os.environ.get("QRN_LONG_TESTS") and os.geteuid() == 0 and shutil.which("debootstrap"),
                     "only with --long, as root, with debootstrap")
class Packages(unittest.TestCase):
    def test_Packages_install_in_a_bare_system_and_do_the_main_job(self):
        folder = tempfile.mkdtemp(prefix="qrn-packages-", dir="/var/tmp")
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        system = f"{folder}/system"
        run("cpack", "--config", f"{BUILD}/CPackConfig.cmake", "-B", f"{folder}/packages")
        packages = glob.glob(f"{folder}/packages/*.deb")
        self.assertEqual(len(packages), 4, packages)
        mirror = run("sh", "-c", "apt-get indextargets --format '$(REPO_URI) $(RELEASE)' | "
                     "awk '$2 == \"bookworm\" { print $1; exit }'").strip() or "https://deb.debian.org/debian/"
        run("debootstrap", "--variant=minbase", "bookworm", system, mirror)
        for name in ("apt.conf", "apt.conf.d"):
            if os.path.exists(f"/etc/apt/{name}"):
                run("cp", "-r", f"/etc/apt/{name}", f"{system}/etc/apt/")
        os.makedirs(f"{system}/packages")
        os.makedirs(f"{system}/work")
        for package in packages:
            shutil.copy(package, f"{system}/packages")
        chroot = ("chroot", system, "sh", "-c")
        environment = {**os.environ, "DEBIAN_FRONTEND": "noninteractive", "LC_ALL": "C"}
        run(*chroot, "apt-get install -y --no-install-recommends /packages/*.deb", env=environment)
        job = MAIN_JOB.replace("'", "'\\''")
        for arguments in ("", "--driver /usr/share/qrndisk/windows/qrndisk.sys"):
            self.assertIn("0 sectors differ",
                          run(*chroot, f"sh -c '{job}' sh /work '{arguments}'", env=environment, timeout=60))
            run(*chroot, "rm -rf /work/*")
        self.assertIn("qrn-server", run(*chroot, "getent passwd qrn-server; stat -c %U /var/lib/qrndisk"))
        run(*chroot, "dpkg --purge qrn-server qrn-station qrn-tools qrndisk-windows", env=environment)
        self.assertEqual(run(*chroot, "getent passwd qrn-server; ls /usr/bin/qrn-* /etc/default/qrn-server 2>/dev/null;"
                             " true"), "")


if __name__ == "__main__":
    unittest.main()
