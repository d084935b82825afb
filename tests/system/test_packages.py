"""The Debian packages as files: what they hold, what they need, and that building them again gives the same bytes."""

import gzip
import os
import pathlib
import re
import shutil
import stat
import subprocess

import pytest

from txproxy import packages, plugin_builder, rtp
from txproxy.elf import Elf
from txproxy.page import ROOT, links
from txproxy.packages import PROXY, TOOLS
from txproxy.receiver import pump

pytestmark = [pytest.mark.release_only, pytest.mark.large, pytest.mark.xdist_group("packages")]

LIBC = {"libc.so.6", "libm.so.6", "ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"}
VENDORED_LICENCES = sorted((ROOT / "tools").glob("*/page/vendor/*/LICENSE"))
# Whether machine code reads like a misspelt word depends on the compiler.
NOT_USED_BY_CHANCE = re.compile(r"N: |I: tx-proxy-tools: unused-override spelling-error-in-binary ")
BUFFERS = 1025  # with the smallest ring; the library is given what comes into a used one
MODES = {True: {0o755}, False: {0o644, 0o755}}


def needed(path):
    return {re.search(r"\[(.*)\]", value).group(1) for tag, value in Elf(path).dynamic if tag == "NEEDED"}


def words(text):
    """Without line breaks and the dots of empty lines: texts are indented where they are quoted."""
    return " ".join(re.sub(r"(?m)^ ?\.$", "", text).split())


def stripped(path, directory):
    target = directory / f"{path.name}.stripped"
    options = ("--strip-unneeded", "--remove-section=.comment", "--remove-section=.note")
    subprocess.run(["strip", *options, "-o", target, path], check=True)
    return target.read_bytes()


@pytest.fixture(scope="module")
def unpacked(tmp_path_factory):
    """Both packages below one root, as `dpkg -x` leaves them."""
    root = tmp_path_factory.mktemp("unpacked")
    for package in packages.both():
        package.unpack(root)
    return root


@pytest.mark.parametrize("name", [PROXY, TOOLS])
def test_name_version_and_architecture_are_in_the_file_name_and_the_version_is_the_projects(name):
    package = packages.package(name)
    architecture = packages.output_of("dpkg", "--print-architecture", text=True).strip()
    assert package.path.name == f"{name}_{packages.project_version()}_{architecture}.deb"
    assert (package.field("Version"), package.field("Architecture")) == (packages.project_version(), architecture)


def test_programs_say_the_version_of_their_package(unpacked):
    for program in ("arqrx", "arqctl", "arqlink"):
        said = packages.output_of(unpacked / "usr/bin" / program, "--version", text=True)
        assert packages.project_version() in said.split(), said


def test_the_proxy_depends_on_the_c_library_only_and_recommends_the_tools(unpacked):
    package = packages.package(PROXY)
    assert packages.names(package.field("Depends")) == {"libc6"}
    assert package.field("Recommends") == TOOLS
    assert package.programs() == ["/usr/bin/tx_proxy"]
    assert "libc.so.6" in needed(unpacked / "usr/bin/tx_proxy") <= LIBC


def test_the_tools_depend_on_the_package_of_every_library_they_are_linked_with(unpacked):
    package = packages.package(TOOLS)
    dependencies = packages.names(package.field("Depends"))
    libraries = set().union(*(needed(unpacked / name.lstrip("/")) for name in package.programs()))
    assert sorted(package.programs()) == ["/usr/bin/arqctl", "/usr/bin/arqlink", "/usr/bin/arqrx"]
    owners = packages.output_of("dpkg", "--search", *(f"*/{library}" for library in libraries), text=True)
    for library in libraries:
        owning = set(re.findall(rf"(?m)^([^:]+):.*/{re.escape(library)}$", owners))
        assert owning & dependencies, f"{library} of {owning}"
    assert PROXY not in dependencies, "a receiver's machine needs no proxy"


def test_the_packaged_proxy_loads_an_encryption_library_written_in_c(
    unpacked, tmp_path, monkeypatch, start_proxy, sender, receive
):
    monkeypatch.setenv("TX_PROXY_BIN", str(unpacked / "usr/bin/tx_proxy"))
    folders = plugin_builder.PrivateFolders(tmp_path, monkeypatch)
    folders.library(plugin_builder.INSTALLED_NAME, plugin_builder.build(tmp_path / "xor.so"))
    folders.start(start_proxy, "-Z", "secret", "-q", 1, "-a", "127.0.0.2")
    receiver = receive()
    pump(sender, [receiver], [rtp.packet(i, bytes(7 * 188)) for i in range(BUFFERS + 20)])
    assert folders.calls() == ["xor open 1 secret 6"] + ["xor data 1 1140"] * 20
    assert bytes([plugin_builder.XOR]) in receiver.payloads[-1]


@pytest.mark.parametrize("name", [PROXY, TOOLS])
def test_everything_is_roots_and_bears_the_time_of_the_sources_and_only_programs_may_be_run(name):
    package = packages.package(name)
    assert {(member.uid, member.gid, member.uname) for member in package.members.values()} == {(0, 0, "root")}
    assert len({member.mtime for member in package.members.values()}) == 1
    wrong = {path: oct(member.mode) for path, member in package.members.items()
             if not member.issym() and stat.S_IMODE(member.mode) not in MODES[member.isdir()]}
    assert not wrong
    runnable = {path for path, member in package.members.items() if member.isfile() and member.mode & 0o111}
    programs = {path for path, data in package.files.items() if data.startswith((b"\x7fELF", b"#!"))}
    assert {path for path in programs if not path.startswith("/usr/share/")} <= runnable <= programs


def test_no_path_of_the_machine_that_built_them_is_in_the_packages():
    for package in packages.both():
        texts = {**package.files, **{name: text.encode() for name, text in package.control.items()}}
        for place in (ROOT, packages.folder()):
            assert not [name for name, data in texts.items() if os.fsencode(place) in data]


def test_the_copyright_says_the_terms_of_the_project_and_of_everything_vendored():
    assert VENDORED_LICENCES
    for package in packages.both():
        text = package.files[f"/usr/share/doc/{package.name}/copyright"].decode()
        assert text.startswith("Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n")
        terms = words((ROOT / "LICENSE").read_text().partition("\n\n")[2].partition("\n\n")[2])
        assert terms in words(text)
        for licence in VENDORED_LICENCES:
            folder = licence.parent.relative_to(ROOT)
            holder = re.search(r"Copyright \(c\) (.*)", licence.read_text()).group(1)
            assert f"Files: {folder}/*\nCopyright: {holder}\nLicense: Expat\n" in text
            assert words(licence.read_text().partition(holder)[2]) in words(text), "other terms than the project's"


def test_the_changelog_is_that_of_the_project_with_its_version_on_top():
    for package in packages.both():
        text = gzip.decompress(package.files[f"/usr/share/doc/{package.name}/changelog.gz"]).decode()
        assert text.startswith(f"{package.name} ({packages.project_version()}) stable; urgency=medium\n")
        latest = words(re.search(r"(?ms)^## .*?^- (.*?)^(?=-|$)", (ROOT / "CHANGELOG.md").read_text()).group(1))
        assert f"* {latest}" in words(text)


def test_released_versions_of_the_changelog_keep_their_dates_and_what_is_unreleased_waits_for_the_next():
    pages = {
        "2.0.0": "## [Unreleased]\n\n- now\n\n## [1.9.0] - 2026-02-03\n\n- a very\n  old thing\n",
        "1.9.0": "## [Unreleased]\n\n- now\n\n## [1.9.0] - 2026-02-03\n\n- a very\n  old thing\n",
    }
    made = {}
    for version, page in pages.items():
        made[version] = packages.output_of(ROOT / "packaging/deb/debian_changelog", "thing", version, "Us <us@us>",
                                           text=True, input=page, env={**os.environ, "SOURCE_DATE_EPOCH": "86400"})
    form = "thing ({}) stable; urgency=medium\n\n  * {}\n\n -- Us <us@us>  {} 00:00:00 +0000\n\n"
    old = form.format("1.9.0", "a very old thing", "Tue, 03 Feb 2026")
    new = form.format("2.0.0", "now", "Fri, 02 Jan 1970")
    assert made == {"2.0.0": new + old, "1.9.0": old}


@pytest.mark.parametrize("name", [PROXY, TOOLS])
def test_what_is_below_etc_is_configuration_that_an_upgrade_keeps(name):
    package = packages.package(name)
    listed = package.control.get("conffiles", "").split()
    assert sorted(listed) == sorted(path for path in package.files if path.startswith("/etc/"))


def test_files_are_finished_alike_whatever_the_umask_and_those_below_etc_become_configuration(tmp_path):
    root = tmp_path / "proxy"
    given = {"etc/default/one": 0o600, "etc/default/two": 0o666, "usr/share/page": 0o640, "usr/lib/run": 0o700}
    for name, mode in given.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text("#!/bin/sh\n")
        (root / name).chmod(mode)
    (root / "usr/share/empty").mkdir(mode=0o700)
    (tmp_path / "control/thing").mkdir(parents=True)
    values = {"CPACK_TX_PROXY_SOURCE": ROOT, "CPACK_TX_PROXY_CONTROL": tmp_path / "control",
              "CPACK_TEMPORARY_DIRECTORY": tmp_path, "CPACK_COMPONENTS_ALL": "proxy", "CPACK_PACKAGE_VERSION": "1.2.3",
              "CPACK_PACKAGE_CONTACT": "Us <us@us>", "CPACK_DEBIAN_PROXY_PACKAGE_NAME": "thing"}
    packages.output_of("cmake", *(f"-D{name}={value}" for name, value in values.items()), "-P",
                       ROOT / "packaging/deb/finish.cmake")
    assert (tmp_path / "control/thing/conffiles").read_text() == "/etc/default/one\n/etc/default/two\n"
    modes = {str(path.relative_to(root)): stat.S_IMODE(path.stat().st_mode) for path in root.rglob("*")}
    assert "usr/share/empty" not in modes
    assert {name for name, mode in modes.items() if mode == 0o755 and (root / name).is_file()} == {"usr/lib/run"}
    assert set(modes.values()) == {0o755, 0o644}
    assert (root / "usr/share/doc/thing/copyright").read_text() == (ROOT / "packaging/deb/copyright").read_text()


def test_lintian_objects_to_nothing_and_each_override_has_its_reason():
    paths = [package.path for package in packages.both()]
    result = subprocess.run(["lintian", "--allow-root", "--tag-display-limit", "0", "--display-info", *paths],
                            capture_output=True, text=True, check=False)
    objections = [line for line in result.stdout.splitlines() if not NOT_USED_BY_CHANCE.match(line)]
    assert objections == [], result.stderr
    for overrides in (ROOT / "packaging/deb").glob("*.lintian-overrides"):
        paragraphs = overrides.read_text().strip().split("\n\n")
        assert all(re.fullmatch(r"(# .*\n)+(?!#).+", paragraph) for paragraph in paragraphs), overrides.name


def test_cmake_install_puts_the_files_of_both_packages(unpacked, tmp_path):
    """Programs apart, which it leaves with their symbols, byte for byte."""
    subprocess.run(["cmake", "--install", packages.BUILD_FOLDER], check=True, capture_output=True,
                   env={**os.environ, "DESTDIR": str(tmp_path)})
    installed = {f"/{path.relative_to(tmp_path)}": path for path in tmp_path.rglob("*") if not path.is_dir()}
    packed = {path: data for package in packages.both() for path, data in package.files.items()
              if not packages.DEBIAN_ONLY.fullmatch(path)}
    assert sorted(installed) == sorted(packed)
    for name, path in installed.items():
        if path.suffix == ".a":
            assert packages.output_of("ar", "t", path) == packages.output_of("ar", "t", unpacked / name.lstrip("/"))
            continue
        data = path.read_bytes()
        if data.startswith(b"\x7fELF"):
            shown = stripped(path, tmp_path)
            assert shown == packed[name], f"{name}: another program"
        else:
            assert data == packed[name], name
        assert (path.stat().st_mode & 0o111) == (os.stat(unpacked / name.lstrip("/")).st_mode & 0o111), name


def test_links_of_the_packaged_pages_lead_to_packaged_files():
    files = packages.package(PROXY).files
    folder = "/usr/share/doc/tx_proxy"
    pages = [path for path in files if path.startswith(f"{folder}/") and path.endswith(".md")]
    assert f"{folder}/README.md" in pages and f"{folder}/SECURITY.md" in pages
    named = {f"{folder}/{link.partition('#')[0]}" for page in pages for link in links(files[page].decode())} - {f"{folder}/"}
    assert named <= set(files)


def test_no_file_is_in_both_packages():
    proxy, tools = packages.both()
    assert not set(proxy.files) & set(tools.files)


def test_the_proxy_built_in_another_folder_has_the_same_bytes(tmp_path):
    tree = packages.copy_of_the_tree(tmp_path / "elsewhere")
    for command in (["cmake", "--preset", "package", "-DTX_PROXY_BUILD_TOOLS=OFF", "-DTX_PROXY_USE_CCACHE=OFF"],
                    ["cmake", "--build", "build/package", "--target", "tx_proxy"]):
        subprocess.run(command, cwd=tree, check=True, capture_output=True)
    assert stripped(tree / "build/package/tx_proxy", tmp_path) == packages.package(PROXY).files["/usr/bin/tx_proxy"]


def build_packages(*arguments, tree=ROOT, **environment):
    """(status, standard output, standard error) of the script in a tree."""
    clean = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
    result = subprocess.run([tree / "scripts/build_packages", *arguments], capture_output=True, text=True, check=False,
                            env={**clean, **environment})
    return result.returncode, result.stdout, result.stderr


def test_the_time_of_the_packages_is_the_last_commits_or_else_the_latest_releases_or_else_the_changelogs(tmp_path):
    commit = packages.last_commit()
    assert build_packages("--time") == (0, f"{commit}\n", "")
    assert build_packages("--time", SOURCE_DATE_EPOCH="7") == (0, "7\n", "")
    (tmp_path / "scripts").mkdir()
    shutil.copy(ROOT / "scripts/build_packages", tmp_path / "scripts")
    changelog = tmp_path / "CHANGELOG.md"
    changelog.write_text("## [Unreleased]\n")
    os.utime(changelog, (99, 99))
    assert build_packages("--time", tree=tmp_path) == (0, "99\n", "")
    changelog.write_text("## [Unreleased]\n\n## [0.2.0] - 1970-01-03\n\n## [0.1.0] - 1970-01-02\n")
    assert build_packages("--time", tree=tmp_path) == (0, "172800\n", "")


def test_what_building_needs_and_is_missing_is_installed_or_named_in_one_line(tmp_path):
    query = tmp_path / "dpkg-query"
    query.write_text('#!/bin/sh\ncase "$*" in *scdoc | *libfmt-dev) exit 1 ;; esac\nprintf "install ok installed"\n')
    query.chmod(0o755)
    called = tmp_path / "called"
    (tmp_path / "apt-get").write_text(f'#!/bin/sh\necho "$@" >>{called}\nexit 1\n')
    (tmp_path / "apt-get").chmod(0o755)
    refused = "Installing libfmt-dev scdoc\nCould not install: libfmt-dev scdoc\n"
    assert build_packages(PATH=f"{tmp_path}:{os.environ['PATH']}") == (1, "", refused)
    assert called.read_text().endswith(" update\n")


@pytest.mark.parametrize("wrong", [["--out"], ["--outside", "x"], ["there"]])
def test_build_packages_refuses_what_it_does_not_know(wrong):
    status, said, complaint = build_packages(*wrong)
    assert (status != 0, said) == (True, "") and complaint


@pytest.mark.long
def test_both_packages_built_in_another_folder_at_another_time_have_the_same_bytes(tmp_path):
    tree = packages.copy_of_the_tree(tmp_path / "elsewhere")
    environment = {**os.environ, "SOURCE_DATE_EPOCH": packages.last_commit(), "CCACHE_DISABLE": "1", "LC_ALL": "C",
                   "TZ": "Asia/Tokyo", "CXXFLAGS": "-g"}
    command = "umask 077; exec scripts/build_packages --out out"
    printed = packages.output_of("sh", "-c", command, cwd=tree, env=environment, text=True)
    assert printed.splitlines() == sorted(str(tree / "out" / package.path.name) for package in packages.both())
    for package in packages.both():
        assert pathlib.Path(tree, "out", package.path.name).read_bytes() == package.path.read_bytes(), package.name
