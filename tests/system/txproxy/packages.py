"""The Debian packages under test.

TX_PROXY_PACKAGES names the folder that scripts/build_packages has put them into. They are built first when it is not set,
or when they are not there yet.
"""

import functools
import io
import os
import pathlib
import re
import shutil
import subprocess
import tarfile

from .page import ROOT

PROXY = "tx-proxy"
TOOLS = "tx-proxy-tools"
# What only a package has, and no `cmake --install`.
DEBIAN_ONLY = re.compile(r"/usr/share/(doc/tx-proxy(-tools)?/(changelog\.gz|copyright|pages)|lintian/overrides/.*)")
BUILD_FOLDER = pathlib.Path(os.environ["TX_PROXY_BIN"]).resolve().parent


def output_of(*command, **keywords):
    """The standard output of a command that succeeds."""
    return subprocess.run([*map(str, command)], check=True, capture_output=True, **keywords).stdout


@functools.lru_cache(maxsize=None)
def folder():
    given = os.environ.get("TX_PROXY_PACKAGES")
    place = pathlib.Path(given or ROOT / "build" / "packages").resolve()
    if not given or len(list(place.glob("*.deb"))) < 2:
        subprocess.run([ROOT / "scripts" / "build_packages", "--built", BUILD_FOLDER, "--out", place], check=True, capture_output=True)
    return place


def project_version(tree=ROOT):
    """The one place where the version is written."""
    return re.search(r"(?m)^project\(tx_proxy VERSION ([\d.]+)", (tree / "CMakeLists.txt").read_text()).group(1)


def last_commit():
    """Its time in seconds since 1970, as a text."""
    return output_of("git", "-C", ROOT, "-c", "safe.directory=*", "log", "-1", "--format=%ct", text=True).strip()


@functools.lru_cache(maxsize=None)
def package(name):
    """The one package of this name; it is read once."""
    paths = list(folder().glob(f"{name}_*.deb"))
    assert len(paths) == 1, f"{name}: {paths} in {folder()}"
    return Package(paths[0])


def both():
    return [package(PROXY), package(TOOLS)]


def names(relations):
    """The package names of a field of dependencies."""
    return {re.match(r"[^ (:]+", part.strip()).group() for part in re.split("[,|]", relations) if part.strip()}


def copy_of_the_tree(directory):
    """The files that Git has or would have, in another folder."""
    listed = output_of("git", "-C", ROOT, "-c", "safe.directory=*", "ls-files", "-z", "--cached", "--others",
                                "--exclude-standard").decode().split("\0")
    for name in filter(None, listed):
        if (ROOT / name).is_file():
            (directory / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, directory / name)
    return directory


class Package:
    """`members` are the entries of its archive by absolute path, `files` the contents of the regular ones."""

    def __init__(self, path):
        self.path = path
        data = tarfile.open(fileobj=io.BytesIO(output_of("dpkg-deb", "--fsys-tarfile", path)))
        self.members = {f"/{member.name.removeprefix('./')}": member for member in data.getmembers()}
        self.files = {name: data.extractfile(member).read() for name, member in self.members.items() if member.isfile()}
        control = tarfile.open(fileobj=io.BytesIO(output_of("dpkg-deb", "--ctrl-tarfile", path)))
        self.control = {
            member.name.removeprefix("./"): control.extractfile(member).read().decode()
            for member in control.getmembers() if member.isfile()
        }

    def field(self, name):
        return output_of("dpkg-deb", "--field", self.path, name, text=True).strip()

    @property
    def name(self):
        return self.field("Package")

    def programs(self):
        """The paths of everything that is machine code with a start address."""
        return [name for name, data in self.files.items() if data.startswith(b"\x7fELF")]

    def unpack(self, directory):
        """Its files below `directory`; returns that."""
        subprocess.run(["dpkg-deb", "--extract", self.path, directory], check=True)
        return directory

    def as_version(self, version, directory):
        """The same package with an earlier version and programs of other bytes, which run as well; returns its path."""
        tree = directory / f"{self.path.stem}_as_{version}"
        subprocess.run(["dpkg-deb", "--raw-extract", self.path, tree], check=True)
        control = tree / "DEBIAN" / "control"
        control.write_text(re.sub(r"(?m)^Version: .*$", f"Version: {version}", control.read_text()))
        for name in self.programs():
            with open(tree / name.lstrip("/"), "ab") as program:
                program.write(version.encode())
        (tree / "DEBIAN" / "md5sums").unlink()
        path = directory / re.sub("_[^_]*_", f"_{version}_", self.path.name)
        output_of("dpkg-deb", "--root-owner-group", "-Znone", "--build", tree, path)
        return path
