"""The manifests of deploy/ as an orchestrator reads them: the containers of each instance, with environment and files,
what it is asked and how it is stopped. What an orchestrator would refuse, or what is not carried out here, fails."""

import collections
import re

import hcl
import yaml

from .page import ROOT

TREE_YAML = ROOT / "deploy" / "kubernetes" / "tree.yaml"
TREE_HCL = ROOT / "deploy" / "nomad" / "tree.nomad.hcl"

# names: those by which others find it; files: {name in /etc/default: text}; containers: {name: Task}; before_stop: a
# command or None; grace: seconds from there to the end.
Instance = collections.namedtuple(
    "Instance", "name level names files containers ready live before_stop grace shares_pids"
)
Task = collections.namedtuple("Task", "command env")


def documents():
    return list(yaml.safe_load_all(TREE_YAML.read_text("utf-8")))


def of_kind(kind):
    return [document for document in documents() if document["kind"] == kind]


def _value(entry, pod, address, known):
    if "valueFrom" in entry:
        field = entry["valueFrom"]["fieldRef"]["fieldPath"]
        return {"metadata.name": pod, "status.podIP": address}[field]
    return re.sub(r"\$\((\w+)\)", lambda name: known[name.group(1)], entry["value"])


def _environment(container, pod, address):
    known = {}
    for entry in container["env"]:
        known[entry["name"]] = _value(entry, pod, address, known)
    return known


def _pod(stateful_set, ordinal, address):
    """One pod; `address` is its node's."""
    name = stateful_set["metadata"]["name"]
    template = stateful_set["spec"]["template"]["spec"]
    pod = f"{name}-{ordinal}"
    (maps,) = [volume["configMap"]["name"] for volume in template["volumes"] if "configMap" in volume]
    (config,) = [one for one in of_kind("ConfigMap") if one["metadata"]["name"] == maps]
    (service,) = [one for one in of_kind("Service") if one["metadata"]["name"] == stateful_set["spec"]["serviceName"]]
    domain = f"{service['metadata']['name']}.{service['metadata']['namespace']}.svc.cluster.local"
    containers = {one["name"]: one for one in template["containers"]}
    proxy = containers["proxy"]
    return Instance(
        pod, name, [f"{pod}.{domain}"], config["data"],
        {key: Task(one["command"], _environment(one, pod, address)) for key, one in containers.items()},
        proxy["readinessProbe"]["exec"]["command"], proxy["livenessProbe"]["exec"]["command"],
        proxy["lifecycle"]["preStop"]["exec"]["command"], template["terminationGracePeriodSeconds"],
        template["shareProcessNamespace"],
    )  # fmt: skip


def kubernetes(addresses):
    """The pods of the tree, on nodes with these addresses."""
    left = iter(addresses)
    return [
        _pod(one, ordinal, next(left)) for one in of_kind("StatefulSet") for ordinal in range(one["spec"]["replicas"])
    ]


def blocks(found):
    """[(label, body)] of what the parser gives for labelled blocks that may be there several times."""
    merged = found if isinstance(found, list) else [found]
    return [pair for one in merged for pair in one.items()]


def job():
    with TREE_HCL.open(encoding="utf-8") as file:
        return hcl.load(file)["job"]["tx-proxy"]


def as_list(found):
    return found if isinstance(found, list) else [found]


def _allocation(level, group, index, address):
    tasks = dict(blocks(group["task"]))
    ports = {label: body["static"] for label, body in blocks(group["network"]["port"])}
    known = {f"${{NOMAD_ADDR_{label}}}": f"{address}:{port}" for label, port in ports.items()}

    def environment(task):
        env = {name: known.get(value, value) for name, value in task["env"].items()}
        return {**env, "NOMAD_ALLOC_INDEX": str(index)}

    files = {}
    for task in tasks.values():
        for template in as_list(task["template"]):
            name = template["destination"].removeprefix("local/default/")
            files[name] = template["data"] + "\n"
    proxy = tasks["proxy"]
    service = proxy["service"]
    checks = {check["name"]: check for check in as_list(service["check"])}
    command = {name: [check["command"], *check["args"]] for name, check in checks.items()}
    assert proxy["kill_signal"] == "SIGTERM"
    return Instance(
        f"{level}-{index}", level, [f"{service['name']}.service.consul"], files,
        {name: Task([one["config"]["command"], *one["config"]["args"]], environment(one)) for name, one in tasks.items()},
        command["ready"], command["live"], None, int(proxy["kill_timeout"].removesuffix("s")), False,
    )  # fmt: skip


def nomad(addresses):
    """The allocations of the tree, on clients with these addresses."""
    left = iter(addresses)
    return [
        _allocation(level, group, index, next(left))
        for level, group in blocks(job()["group"])
        for index in range(group["count"])
    ]
