"""The Debian packages in a Debian system: installed, upgraded under a running channel, removed and purged.

The commands are those of docs/install.md. The usual run is in a copy of this machine's own root; the long one in a bare
Debian root, where what the packages need comes from the mirror.
"""

import os
import re
import shutil

import pytest

from txproxy import debian_root, packages, rtp
from txproxy.page import Page, quoted
from txproxy.packages import PROXY, TOOLS
from txproxy.proxy import Proxy
from txproxy.receiver import pump
from txproxy.traffic import Steady

pytestmark = [pytest.mark.release_only, pytest.mark.large, pytest.mark.xdist_group("packages")]

PACKETS_PER_SECOND = 1000
OLDER = "0.0.9"
SAMPLE = "/usr/share/doc/tx_proxy/examples/tx_proxy.default"
# Notes what systemd would be told, and whether a channel could tell its receivers at that moment.
SYSTEMCTL = '#!/bin/sh\necho "$@" $(test -x /usr/bin/arqctl && echo "with arqctl") >>/tmp/told_systemd\n'


def commands(heading):
    """The lines of the blocks below a heading of the page, without remarks."""
    blocks = re.findall(r"(?ms)^```\n(.*?)^```$", Page("install.md").section(heading))
    assert blocks, f"no commands below {heading}"
    return [line.partition("  #")[0].strip() for block in blocks for line in block.splitlines()]


@pytest.fixture(scope="module")
def bare(tmp_path_factory):
    needed = set().union(*(packages.names(package.field("Depends")) for package in packages.both()))
    return debian_root.make_bare(tmp_path_factory.mktemp("debian"), sorted(needed))


@pytest.fixture(params=["this machine's root", pytest.param("a bare root", marks=pytest.mark.long)])
def root(request, tmp_path, closing):
    """A Debian system without our packages, but with the files of both in /tmp."""
    below = {} if request.param == "this machine's root" else {"below": request.getfixturevalue("bare")}
    system = closing(debian_root.DebianRoot(tmp_path, **below))
    for name in (PROXY, TOOLS):
        if system.state(name):
            system.run(f"dpkg --purge {name}")
    for package in packages.both():
        shutil.copy(package.path, system.path("/tmp"))
    return system


@pytest.fixture
def older(root, tmp_path):
    """Puts packages of an older version in the place of ours; returns their names in the system."""
    names = []
    for package in packages.both():
        path = package.as_version(OLDER, tmp_path)
        shutil.copy(path, root.path("/tmp"))
        names.append(f"/tmp/{path.name}")
    return names


@pytest.fixture
def channel(root, net):
    """channel() starts the installed proxy in the system, as itself: no shell between."""
    started = []

    def start(*options):
        proxy = Proxy("-I", net.instance, "-p", net.destination, "-r", net.request, *options, net.input,
                      program="/usr/bin/tx_proxy", preexec=root.enter)
        started.append(proxy)
        return proxy.wait_ready()

    yield start
    for proxy in started:
        proxy.kill()


def installed_version(root, package):
    return root.run(f"dpkg-query -f '${{Version}}' -W {package}")


def install(root):
    """What the page's command leads to, without its search for what is missing."""
    return root.run(f"dpkg --install {' '.join(f'/tmp/{package.path.name}' for package in packages.both())}")


def program_of(process):
    return os.readlink(f"/proc/{process.pid}/exe")


def files_of_ours(root):
    """What the packages' archives hold and is there, folders apart."""
    names = [name for package in packages.both() for name, member in package.members.items() if not member.isdir()]
    return [name for name in names if os.path.lexists(root.path(name))]


def test_installing_by_the_page_puts_everything_there_and_starts_nothing(root):
    for command in commands("Install"):
        root.run(f"cd /tmp && {command}")
    assert {root.state(PROXY), root.state(TOOLS)} == {"ii"}
    assert len(files_of_ours(root)) == sum(not member.isdir() for package in packages.both()
                                           for member in package.members.values())
    assert root.processes() == []
    assert root.run("dpkg --verify tx-proxy tx-proxy-tools") == ""
    assert root.run("ldd /usr/bin/arqctl /usr/bin/arqrx /usr/bin/arqlink /usr/bin/tx_proxy").count("not found") == 0
    assert packages.project_version() in root.run("arqctl --version && arqrx --version && arqlink --version")


def test_the_sample_settings_are_where_the_page_says(root):
    install(root)
    for command in commands("A first channel"):
        if command.startswith("systemctl"):
            continue
        root.run(command)
    assert root.path("/etc/default/tx_proxy-1").read_text() == root.path(SAMPLE).read_text()


def test_an_upgrade_under_a_running_channel_loses_no_packet_and_says_how_to_change_over(
    root, older, channel, net, sender, receive, closing
):
    root.run(f"dpkg --install {' '.join(older)}")
    assert installed_version(root, PROXY) == OLDER
    root.write("/etc/default/tx_proxy-1", "# an administrator's\n")
    old = channel("-a", "127.0.0.2")
    receiver = receive()
    source = closing(Steady(sender, lambda i: rtp.packet(i, i.to_bytes(4, "big") * 47), PACKETS_PER_SECOND))
    receiver.wait_count(100)

    said = ""
    for command in commands("Upgrade"):
        if command.startswith("systemctl"):
            continue
        before = receiver.count()
        said += root.run(f"rm -f {' '.join(older)}; cd /tmp && {command}")
        receiver.wait_count(before + 100)
    assert (installed_version(root, PROXY), root.state(PROXY)) == (packages.project_version(), "ii")
    source.close()
    arrived = receiver.wait_count(source.sent)
    assert [rtp.payload(data)[:4] for data in arrived] == [number.to_bytes(4, "big") for number in range(source.sent)]

    assert program_of(old).endswith("/usr/bin/tx_proxy (deleted)")
    goes_on = f"process {old.pid} goes on with the former tx_proxy, nothing it sends or receives is touched."
    assert f"{PROXY}: {goes_on}\n" in said
    assert f"to change over, end it and start it again: /usr/bin/tx_proxy -I {net.instance} " in said
    assert root.path("/etc/default/tx_proxy-1").read_text() == "# an administrator's\n"
    old.stop()
    new = channel("-a", "127.0.0.2")
    assert program_of(new).endswith("/usr/bin/tx_proxy")
    new.stop()


def test_an_upgrade_under_systemd_reloads_the_units_restarts_none_and_names_the_one_to_restart(root, older, channel):
    root.run(f"dpkg --install {' '.join(older)}")
    root.run("mkdir -p /run/systemd/system")
    root.write("/usr/bin/systemctl", SYSTEMCTL, 0o755)
    old = channel("-a", "127.0.0.2")
    # What systemd would have put it into.
    root.write("/tmp/cgroup", "0::/system.slice/system-tx_proxy.slice/tx_proxy@7.service\n")
    root.run(f"mount --bind /tmp/cgroup /proc/{old.pid}/cgroup")
    said = install(root)
    assert f"{PROXY}: to change over: systemctl restart tx_proxy@7.service\n" in said
    told = root.path("/tmp/told_systemd").read_text().splitlines()
    assert told and set(told) == {"--system daemon-reload with arqctl"}
    old.stop()


def test_an_installation_speaks_of_processes_of_a_former_one_only(root, channel):
    install(root)
    old = channel("-a", "127.0.0.2")
    root.run(f"dpkg --purge {PROXY} {TOOLS}")
    assert f"process {old.pid} goes on with the former tx_proxy" in install(root)
    old.stop()
    new = channel("-a", "127.0.0.2")
    root.run(f"dpkg --purge {TOOLS}")
    assert "goes on" not in root.run(f"dpkg --install /tmp/{packages.package(TOOLS).path.name}")
    new.stop()


def test_removing_keeps_settings_and_purging_takes_them_and_leaves_nothing_of_ours(root):
    install(root)
    settings = ["/etc/default/tx_proxy-1", "/etc/default/arqctl-1", "/etc/default/arqrx-studio"]
    enabled = "/etc/systemd/system/multi-user.target.wants/tx_proxy@1.service"
    for name in settings:
        root.write(name, "# an administrator's\n")
    root.write("/etc/default/tx_proxyother", "# somebody else's\n")
    root.run(f"mkdir -p {os.path.dirname(enabled)} && ln -s /lib/systemd/system/tx_proxy@.service {enabled}")
    remove, purge = commands("Remove")
    root.run(remove)
    assert (root.state(PROXY), root.state(TOOLS)) == ("rc", "rc")
    assert files_of_ours(root) == []
    assert all(root.path(name).exists() for name in settings)
    root.run(purge)
    assert (root.state(PROXY), root.state(TOOLS)) == ("", "")
    left = [name for name in [*settings, enabled] if os.path.lexists(root.path(name))]
    assert not left
    assert root.path("/etc/default/tx_proxyother").exists()
    assert not root.path("/usr/share/doc/tx-proxy").exists()


def test_a_removal_under_systemd_stops_the_instances_of_our_units_while_they_can_still_tell_their_receivers(root):
    install(root)
    root.run("mkdir -p /run/systemd/system")
    root.write("/usr/bin/systemctl", SYSTEMCTL, 0o755)
    root.path("/usr/sbin/policy-rc.d").unlink()
    root.run(commands("Remove")[0])
    told = root.path("/tmp/told_systemd").read_text()
    assert re.search(r"(?m)^.*\bstop tx_proxy\*@\*\.service with arqctl$", told), told
    for program in ("arqrx", "arqctl"):
        assert re.search(rf"(?m)^.*\bstop {program}\*@\*\.service", told), told
    assert told.endswith("--system daemon-reload\n")


def test_a_removal_leaves_a_proxy_alone_that_was_started_by_hand(root, channel, sender, receive):
    install(root)
    proxy = channel("-a", "127.0.0.2")
    root.run(commands("Remove")[0])
    pump(sender, [receive()], [rtp.packet(i, b"still") for i in range(50)])
    proxy.stop()


def is_at(file, place):
    """A place is a folder, with a slash at its end, or a file; either may lack the folders before it."""
    end = "" if place.endswith("/") else "$"
    return re.search(("^" if place.startswith("/") else "/") + re.escape(place) + end, file)


def test_the_page_names_every_place_of_the_packages_and_no_other():
    named = [name for cell, _ in Page("install.md").rows("Install") for name in quoted(cell)]
    files = [name for package in packages.both() for name, member in package.members.items() if not member.isdir()]
    places = {name: [file for file in files if is_at(file, name)] for name in named}
    assert [name for name, found in places.items() if not found] == []
    aside = ("/usr/share/doc/tx-proxy", "/usr/share/lintian/")
    assert {file for file in files if not file.startswith(aside)} == set().union(*places.values())
    units = next(cell for place, cell in Page("install.md").rows("Install") if "systemd" in place)
    assert sorted(quoted(units)) == sorted(os.path.basename(file) for file in files if file.endswith(".service"))


@pytest.mark.long
def test_building_from_source_by_the_page_installs_the_same_files_below_usr_local_and_removes_them(tmp_path, closing):
    system = closing(debian_root.DebianRoot(tmp_path))
    packages.copy_of_the_tree(system.path("/tmp/sources"))
    system.run("rm -rf /usr/local/*")
    *build, remove = commands("From source")
    for command in build:
        system.run(f"cd /tmp/sources && {command}")
    find = "cd /usr/local && find . ! -type d"
    names = [f"./{name.removeprefix('/usr/')}" for package in packages.both() for name in package.files
             if not packages.DEBIAN_ONLY.fullmatch(name)]
    # Libraries are in a folder of their architecture below /usr only.
    flat = [re.sub(r"^\./lib/[^/]+/(lib[^/]+\.a)$", r"./lib/\1", name) for name in names]
    assert sorted(system.run(find).split()) == sorted(flat)
    unit = system.path("/usr/local/lib/systemd/system/tx_proxy@.service").read_text()
    assert "\nExecStart=/usr/local/lib/tx_proxy/channel start %i\n" in unit
    assert packages.project_version() in system.run("/usr/local/bin/arqctl --version")
    system.run(f"cd /tmp/sources && {remove}")
    assert system.run(find) == ""
