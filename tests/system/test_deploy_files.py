"""deploy/: what its files say holds together, and agrees with what others have published about such files.

Kubernetes' own models (python3-kubernetes, made from its API's description) know every key; docker-compose has the schema
of compose files. No package has Nomad's, so the keys that we use stand here, as its documentation spells them.
"""

import importlib
import json
import pathlib
import re
import subprocess

import pytest
import yaml

from txproxy import container, fleet
from txproxy.page import ROOT

pytestmark = pytest.mark.release_only

FOLDER = ROOT / "deploy"
CONTAINER = FOLDER / "container"
COMPOSE = CONTAINER / "compose.yml"
DPKG = pathlib.Path("/var/lib/dpkg/info")
YAML_STYLE = {
    "extends": "default",
    "rules": {"line-length": {"max": 180}, "document-start": "disable", "comments": {"min-spaces-from-content": 1}},
}
PLAIN = {"str": str, "int": int, "bool": bool, "object": object, "dict(str, str)": dict}
# In every Debian: apt and dpkg need them.
BASE_PACKAGES = {"libc6", "libgcc-s1", "libstdc++6", "libtinfo6", "zlib1g"}
NOMAD_KEYS = {
    "job": "datacenters type update group",
    "update": "max_parallel health_check min_healthy_time healthy_deadline progress_deadline",
    "group": "count network task",
    "network": "mode port",
    "port": "static",
    "task": "driver config env template kill_signal kill_timeout service resources lifecycle",
    "lifecycle": "hook sidecar",
    "config": "image network_mode pid_mode command args cap_drop security_opt readonly_rootfs volumes mount",
    "mount": "type target",
    "template": "destination data",
    "service": "name provider port address_mode check",
    "check": "name type task command args path interval timeout on_update check_restart",
    "check_restart": "limit grace",
    "resources": "cpu memory",
}
LABELLED = {"group", "task", "port"}


def test_the_yaml_files_are_tidy():
    files = sorted(path for kind in ("*.yml", "*.yaml") for path in FOLDER.rglob(kind))
    run = subprocess.run(["yamllint", "--strict", "--format", "parsable", "--config-data", json.dumps(YAML_STYLE), *files],
                         capture_output=True, text=True, check=False)  # fmt: skip
    assert len(files) == 4 and (run.returncode, run.stdout) == (0, "")


def check_model(name, value, place):
    """The value is what the API's model of this name takes: keys, types, and all that is required."""
    if name in PLAIN:
        fits = isinstance(value, PLAIN[name]) and (name != "int" or not isinstance(value, bool))
        assert fits, f"{place}: {value!r} is no {name}"
        return
    if match := re.fullmatch(r"list\[(.+)\]", name):
        assert isinstance(value, list), f"{place}: not a list"
        for index, one in enumerate(value):
            check_model(match.group(1), one, f"{place}[{index}]")
        return
    if match := re.fullmatch(r"dict\(str, (.+)\)", name):
        for key, one in value.items():
            check_model(match.group(1), one, f"{place}.{key}")
        return
    # Not at the head: that is a quarter of a second for each process that only collects the tests.
    model = getattr(importlib.import_module("kubernetes.client"), name)
    attributes = {key: attribute for attribute, key in model.attribute_map.items()}
    assert set(value) <= set(attributes), f"{place}: {name} has no {set(value) - set(attributes)}"
    # The model's constructor refuses what lacks a required field, and values that are none of an enumeration.
    model(**{attributes[key]: one for key, one in value.items()})
    for key, one in value.items():
        check_model(model.openapi_types[attributes[key]], one, f"{place}.{key}")


def model_of(document):
    version = document["apiVersion"].rpartition("/")[2]
    return version.capitalize() + document["kind"]


def test_kubernetes_knows_every_key_of_the_manifest():
    documents = fleet.documents()
    kinds = [document["kind"] for document in documents]
    assert kinds == ["Namespace", "ConfigMap", *["Service", "StatefulSet"] * 2, "PodDisruptionBudget"]
    for document in documents:
        check_model(model_of(document), document, document["kind"])


@pytest.mark.parametrize(
    "place, key, value, text",
    [
        ("spec.template.spec", "hostNetwork", "yes", "is no bool"),
        ("spec.template.spec", "gracePeriod", 3, "has no {'gracePeriod'}"),
        ("spec", "selector", None, "must not be `None`"),
    ],
)
def test_what_kubernetes_would_refuse_is_found(place, key, value, text):
    document = fleet.of_kind("StatefulSet")[0]
    target = document
    for step in place.split("."):
        target = target[step]
    if value is None:
        del target[key]
    else:
        target[key] = value
    with pytest.raises((AssertionError, ValueError), match=re.escape(text)):
        check_model("V1StatefulSet", document, "StatefulSet")


def test_services_sets_and_their_pods_belong_together():
    services = {one["metadata"]["name"]: one for one in fleet.of_kind("Service")}
    for one in fleet.of_kind("StatefulSet"):
        wanted, template = one["spec"], one["spec"]["template"]
        labels = template["metadata"]["labels"]
        service = services[wanted["serviceName"]]["spec"]
        assert wanted["selector"]["matchLabels"] == service["selector"] == labels
        assert (service["clusterIP"], service["publishNotReadyAddresses"]) == ("None", True)
        ports = {port["name"]: port for box in template["spec"]["containers"] for port in box.get("ports", [])}
        for port in ports.values():
            assert port["containerPort"] == port["hostPort"]
        for port in service["ports"]:
            assert (port["port"], port["protocol"]) == (ports[port["name"]]["hostPort"], ports[port["name"]]["protocol"])
        annotations = template["metadata"]["annotations"]
        assert (annotations["prometheus.io/scrape"], annotations["prometheus.io/path"]) == ("true", "/metrics")
        assert annotations["prometheus.io/port"] == str(ports["metrics"]["hostPort"])
    (budget,) = fleet.of_kind("PodDisruptionBudget")
    assert budget["spec"]["selector"]["matchLabels"] == labels


def every_container():
    return [box for one in fleet.of_kind("StatefulSet") for box in one["spec"]["template"]["spec"]["containers"]]


def test_containers_have_no_right_beyond_their_own_files():
    for box in every_container():
        rights = box["securityContext"]
        assert rights["capabilities"] == {"drop": ["ALL"]} and rights["readOnlyRootFilesystem"] is True
        assert rights["allowPrivilegeEscalation"] is False and "privileged" not in rights
    for _, task in nomad_tasks():
        config = task["config"]
        assert (config["cap_drop"], config["readonly_rootfs"]) == (["all"], True)
        assert config["security_opt"] == ["no-new-privileges"]
    for service in own_services().values():
        assert (service["cap_drop"], service["read_only"]) == (["ALL"], True)
        assert service["security_opt"] == ["no-new-privileges:true"]


def nomad_tasks():
    return [pair for _, group in fleet.blocks(fleet.job()["group"]) for pair in fleet.blocks(group["task"])]


def check_nomad(kind, body):
    assert set(body) <= set(NOMAD_KEYS[kind].split()), f"{kind}: {set(body) - set(NOMAD_KEYS[kind].split())}"
    for key, value in body.items():
        if key in NOMAD_KEYS and not isinstance(value, str):
            inner = [pair[1] for pair in fleet.blocks(value)] if key in LABELLED else fleet.as_list(value)
            for one in inner:
                check_nomad(key, one)


def test_the_nomad_job_has_the_keys_that_nomad_documents():
    check_nomad("job", fleet.job())


def test_nomad_starts_the_channels_of_kubernetes_with_the_same_settings():
    def settings(instances):
        names = {name: "ROOT" for name in instances[0].names}
        pattern = "|".join(map(re.escape, names))
        return {
            (name, re.sub(pattern, "ROOT", text)) for one in instances for name, text in one.files.items() if text
        }

    addresses = ["10.79.0.1", "10.79.0.2", "10.79.0.3"]
    assert settings(fleet.nomad(addresses)) == settings(fleet.kubernetes(addresses))


def test_tasks_of_nomad_see_the_settings_of_all_channels_that_they_may_be():
    for name, group in fleet.blocks(fleet.job()["group"]):
        for task_name, task in fleet.blocks(group["task"]):
            first = int(task["env"]["CHANNEL_FIRST"])
            files = {one["destination"] for one in fleet.as_list(task["template"])}
            wanted = {f"local/default/tx_proxy-{first + index}" for index in range(group["count"])}
            assert wanted <= files, (name, task_name)


def compose():
    """What docker-compose makes of the file: it checks it against the schema first."""
    run = subprocess.run(["docker-compose", "--file", COMPOSE, "config"], capture_output=True, text=True, check=False)
    assert run.returncode == 0, run.stderr
    return yaml.safe_load(run.stdout)


def own_services():
    services = yaml.safe_load(COMPOSE.read_text("utf-8"))["services"]
    return {name: one for name, one in services.items() if one["image"].startswith("registry.example/")}


def test_compose_takes_its_file_and_finds_what_it_mounts():
    services = compose()["services"]
    assert set(services) == {"proxy", "monitor", "prometheus", "dashboard"}
    mounted = {one.split(":")[1]: one.split(":")[0] for service in services.values() for one in service["volumes"]
               if one.startswith("/")}  # fmt: skip
    tails = {"alerts.yml", "prometheus.yml", "dashboard.json", "default", "datasource.yml", "dashboards.yml"}
    assert {path.rpartition("/")[2] for path in mounted.values()} == tails
    for path in mounted.values():
        assert (ROOT / path).exists(), path
    # Prometheus finds the rules beside its file, and the monitor where that looks.
    rules = yaml.safe_load((ROOT / "monitoring" / "prometheus.yml").read_text("utf-8"))
    assert {f"/etc/prometheus/{name}" for name in rules["rule_files"]} <= set(mounted)
    (targets,) = rules["scrape_configs"][0]["static_configs"]
    assert targets["targets"] == re.findall(r"MONITOR_LISTEN:-(\S+)\}", (CONTAINER / "monitor").read_text("utf-8"))
    # Grafana finds Prometheus and the folder of the dashboard.
    source = yaml.safe_load((CONTAINER / "grafana" / "datasource.yml").read_text("utf-8"))["datasources"][0]
    assert f"--web.listen-address={source['url'].removeprefix('http://')}" in services["prometheus"]["command"]
    provider = yaml.safe_load((CONTAINER / "grafana" / "dashboards.yml").read_text("utf-8"))["providers"][0]
    assert f"{provider['options']['path']}/tx_proxy.json" in mounted
    assert services["monitor"]["pid"] == "service:proxy"


def steps(name):
    return [text for instruction, text in container.instructions() if instruction == name]


def apt_packages(step):
    return {word for word in step.split("--no-install-recommends")[1].split("&&")[0].split() if not word.startswith("-")}


def names_in(package):
    """Of the files that a package has put on this machine."""
    lists = [*DPKG.glob(f"{package}.list"), *DPKG.glob(f"{package}:*.list")]
    return {line.rpartition("/")[2] for path in lists for line in path.read_text("utf-8").splitlines()}


def test_the_image_has_the_packages_that_its_programs_load_and_no_more():
    build, image = map(apt_packages, (step for step in steps("RUN") if "apt-get" in step))
    assert build <= set((ROOT / "scripts" / "packages").read_text("utf-8").splitlines())
    programs = [container.build_folder() / name for name in ("tx_proxy", "arqctl", "arqrx", "arqlink")]
    loaded = {path.rpartition("/")[2] for program in programs for path in container.libraries(program)}
    in_base = set().union(*map(names_in, BASE_PACKAGES))
    for package in image:
        assert loaded & names_in(package) and not image & BASE_PACKAGES, f"{package} is there for nothing"
    missing = loaded - in_base - set().union(*map(names_in, image))
    assert not missing, f"the image lacks the package of {missing}"


def test_the_containerfile_keeps_the_rules_that_linters_have():
    known = {"FROM", "RUN", "COPY", "ENV", "USER", "STOPSIGNAL", "CMD"}
    assert {name for name, _ in container.instructions()} == known
    assert all(":" in text.split()[0] and not text.split()[0].endswith(":latest") for text in steps("FROM"))
    for step in (step for step in steps("RUN") if "apt-get" in step):
        parts = [part.strip() for part in step.split("&&")]
        assert parts[0] == "apt-get update" and parts[-1] == "rm -rf /var/lib/apt/lists/*"
        assert parts[1].startswith("apt-get install --yes --no-install-recommends ") and len(parts) == 3
    assert isinstance(json.loads(steps("CMD")[-1]), list), "with a shell around it no signal reaches the program"
    assert not any("sudo" in text for text in steps("RUN"))


def test_the_image_ends_by_the_signal_that_its_command_waits_for():
    first, second = steps("FROM")
    assert first == f"{second} AS build" and second.endswith("debian:12-slim")
    assert steps("STOPSIGNAL") == ["SIGTERM"] and json.loads(steps("CMD")[0]) == ["ordinal", "drain-first"]
    assert steps("USER") == ["root"] and steps("COPY") == [". /source", "--from=build /image/ /"]


def test_what_the_image_is_built_from_is_enough_to_configure_it(tmp_path):
    source = tmp_path / "source"
    source.mkdir()
    listed = (CONTAINER / "Containerfile.dockerignore").read_text("utf-8").splitlines()
    for name in (line[1:] for line in listed if line.startswith("!")):
        (source / name).symlink_to(ROOT / name)
    (step,) = [text for text in steps("RUN") if "cmake -S" in text]
    command = step.partition("&&")[0].replace("/source", str(source)).replace("/build", str(tmp_path / "build"))
    run = subprocess.run(["sh", "-c", command], cwd=tmp_path, capture_output=True, text=True, check=False)
    assert run.returncode == 0, run.stderr
