"""scripts/release on a clone of its own: what it writes, and what it refuses."""

import hashlib
import os
import pathlib
import pathlib
import re
import subprocess
import tarfile

import pytest

from txproxy.packages import project_version

pytestmark = pytest.mark.release_only

ROOT = pathlib.Path(__file__).resolve().parents[2]
IDENTITY = {f"GIT_{who}_{what}": value for who in ("AUTHOR", "COMMITTER")
            for what, value in (("NAME", "Somebody"), ("EMAIL", "somebody@example.org"))}  # fmt: skip


def git(folder, *arguments):
    command = ["git", "-c", "safe.directory=*", "-C", folder, *arguments]
    return subprocess.run(command, check=True, capture_output=True, text=True, env={**os.environ, **IDENTITY}).stdout


@pytest.fixture
def clone(tmp_path):
    """The sources as they lie here, as the one commit of a repository."""
    folder = tmp_path / "sources"
    listed = git(ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard").split("\0")
    there = "\0".join(name for name in listed if name and (ROOT / name).is_file())
    folder.mkdir()
    packed = subprocess.run(["tar", "-C", ROOT, "--null", "-T", "-", "-c"], input=there.encode(), check=True, capture_output=True)
    subprocess.run(["tar", "-C", folder, "-x"], input=packed.stdout, check=True)
    git(folder, "init", "-q", "-b", "main")
    git(folder, "add", "-A")
    git(folder, "commit", "-q", "-m", "everything")
    return folder


def release(clone, *arguments, path=None):
    environment = {**os.environ, **IDENTITY, "GIT_CONFIG_COUNT": "1", "GIT_CONFIG_KEY_0": "safe.directory",
                   "GIT_CONFIG_VALUE_0": "*"}  # fmt: skip
    if path:
        environment["PATH"] = f"{path}:{environment['PATH']}"
    return subprocess.run([clone / "scripts/release", *arguments], capture_output=True, text=True, env=environment)


def refused(result, why):
    return result.returncode == 1 and result.stderr.startswith(f"release: {why}")


def test_prepare_puts_the_version_everywhere_and_gives_the_changes_its_heading(clone):
    old = project_version(clone)
    before = git(clone, "grep", "-lF", old, "--", "deploy", "docs").splitlines()
    assert before
    assert release(clone, "prepare", "9.8.7").returncode == 0
    assert project_version(clone) == "9.8.7"
    assert git(clone, "grep", "-lF", "9.8.7", "--", "deploy", "docs").splitlines() == before
    changes = (clone / "CHANGELOG.md").read_text()
    assert re.search(r"^## \[Unreleased\]\n\n## \[9\.8\.7\] - \d{4}-\d\d-\d\d\n\n### Added\n", changes, re.MULTILINE)
    assert git(clone, "log", "-1", "--format=%s") == "Release 9.8.7\n"
    assert git(clone, "status", "--porcelain") == ""


def test_prepare_refuses_no_version_an_older_one_uncommitted_changes_and_nothing_new(clone):
    assert refused(release(clone, "prepare", "1.2"), "1.2 is no version")
    assert refused(release(clone, "prepare", "0.0.1"), f"0.0.1 is older than {project_version(clone)}")
    (clone / "README.md").write_text("changed")
    assert refused(release(clone, "prepare", "9.8.7"), "there are changes that are not committed")
    git(clone, "checkout", "README.md")
    assert release(clone, "prepare", "9.8.7").returncode == 0
    assert refused(release(clone, "prepare", "9.8.8"), "CHANGELOG.md has nothing under Unreleased")
    git(clone, "tag", "v9.8.8")
    assert refused(release(clone, "prepare", "9.8.8"), "the tag v9.8.8 is there already")


def test_make_refuses_what_is_not_prepared_not_committed_or_made_before(clone, tmp_path):
    out = tmp_path / "out"
    assert refused(release(clone, "make", "--out", out, "--checked"), f"CHANGELOG.md has no section for {project_version(clone)}")
    release(clone, "prepare", "9.8.7")
    (clone / "new").write_text("not committed")
    assert refused(release(clone, "make", "--out", out, "--checked"), "there are changes that are not committed")
    (clone / "new").unlink()
    out.mkdir()
    assert refused(release(clone, "make", "--out", out, "--checked"), f"{out} is there already")
    git(clone, "tag", "v9.8.7")
    assert refused(release(clone, "make", "--out", out, "--checked"), "the tag v9.8.7 is there already")


def stand_in(folder, name, text):
    folder.mkdir(exist_ok=True)
    (folder / name).write_text(f"#!/bin/sh\n{text}\n")
    (folder / name).chmod(0o755)
    return folder


def everything_but(folder, missing):
    """A folder with the system's programs but for one."""
    folder.mkdir()
    for program in pathlib.Path("/usr/bin").iterdir():
        if program.name != missing:
            (folder / program.name).symlink_to(program)
    return folder


def with_quick_steps(clone, check="exit 0"):
    """In place of the long steps commands that only say that they were there: others test what those do."""
    (clone / "check").write_text(f'#!/bin/sh\necho "$@" >"$TX_PROXY_SEEN"\n{check}\n')
    (clone / "scripts/build_packages").write_text('#!/bin/sh\nmkdir -p "$2" && echo package >"$2/tx-proxy_9.8.7_all.deb"\n')
    git(clone, "commit", "-qam", "quick steps")


def test_make_checks_packs_sums_and_tags_the_commit(clone, tmp_path, monkeypatch):
    seen, out = tmp_path / "seen", tmp_path / "out"
    monkeypatch.setenv("TX_PROXY_SEEN", str(seen))
    release(clone, "prepare", "9.8.7")
    with_quick_steps(clone)
    made = release(clone, "make", "--out", out, path=stand_in(tmp_path / "bin", "lintian", 'test "$1" = --fail-on'))
    assert made.returncode == 0, made.stderr
    assert seen.read_text() == "--long\n"
    assert git(clone, "rev-parse", "v9.8.7^{commit}") == git(clone, "rev-parse", "HEAD")
    sums = dict(reversed(line.split("  ")) for line in (out / "SHA256SUMS").read_text().splitlines())
    assert sums == {path.name: hashlib.sha256(path.read_bytes()).hexdigest() for path in out.iterdir() if path.name != "SHA256SUMS"}
    assert set(sums) == {"notes.md", "tx_proxy-9.8.7.tar.gz", "tx-proxy_9.8.7_all.deb"}
    assert (out / "notes.md").read_text().startswith("### Added\n")
    with tarfile.open(out / "tx_proxy-9.8.7.tar.gz") as sources:
        names = set(sources.getnames())
    assert {f"tx_proxy-9.8.7/{name}" for name in git(clone, "ls-files").splitlines()} <= names
    assert "git push origin HEAD v9.8.7" in made.stdout


def test_make_ends_without_a_tag_when_the_checks_fail_or_lintian_objects(clone, tmp_path, monkeypatch):
    monkeypatch.setenv("TX_PROXY_SEEN", str(tmp_path / "seen"))
    release(clone, "prepare", "9.8.7")
    with_quick_steps(clone, check="exit 1")
    with monkeypatch.context() as bare:
        bare.setenv("PATH", str(everything_but(tmp_path / "programs", "lintian")))
        assert refused(release(clone, "make", "--out", tmp_path / "out"), "lintian is not installed")
    assert not (tmp_path / "seen").exists()  # known before the long steps
    assert refused(release(clone, "make", "--out", tmp_path / "out"), "./check has failed")
    objecting = stand_in(tmp_path / "bin", "lintian", "exit 1")
    assert refused(release(clone, "make", "--out", tmp_path / "out", "--checked", path=objecting), "lintian objects")
    assert git(clone, "tag") == "" and not (tmp_path / "out").exists()
