"""Argument types the examples share. Not an example itself: each example
imports it from its own folder, which Python puts first on the path when it
runs a script, so the examples run as they are, from anywhere."""
import argparse


def seconds_arg(text: str) -> float:
    """A finite number of seconds, 0 or more, for argparse."""
    value = float(text)
    if not 0 <= value < float("inf"):
        raise argparse.ArgumentTypeError(f"{text!r} is not a number of seconds, 0 or more")
    return value
