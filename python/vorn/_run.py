"""The vorn-run command of a pip-installed vorn: the wheel carries the program under vorn/bin,
beside the libraries it finds through its RPATH; this entry point only hands over to it."""
import os
import sys


def main():
    program = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bin", "vorn-run")
    os.execv(program, [program] + sys.argv[1:])
