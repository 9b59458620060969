"""Reads the command catalogue and writes everything that follows from it.

load -> notation -> model (with names) -> validate -> emit_*. Standard library only.
"""
