"""The checks, a module for each thing that is looked at.

A check_... function takes the deployment, and in some groups one service or
account of it, and yields findings. It runs in a child process, so an OSError
that it does not expect costs no more than the rest of its group.
"""
