"""Deliberate loss: its files, and a plain model of the fixed pattern."""

import pathlib


def toggle_file(instance):
    return pathlib.Path(f"/var/run/tx_proxy{instance}.imp")


def settings_file(instance):
    return pathlib.Path(f"/var/run/tx_proxy{instance}.imp.conf")


def clear_file(instance):
    return pathlib.Path(f"/var/run/tx_proxy{instance}.clear")


def write_settings(instance, **settings):
    settings_file(instance).write_text("".join(f"{key}={value}\n" for key, value in settings.items()), "ascii")


def toggle(instance):
    toggle_file(instance).touch()


def fixed_pattern(count, min_dist=100, min_drop=1):
    """For each of `count` packets after switching on in mode 1: True when it is withheld."""
    pattern = [False] * (min_dist - 1)
    while len(pattern) < count:
        pattern += [True] * min_drop + [False] * min_dist
    return pattern[:count]
