"""Checks a deployment of front ends made with libzancgi.

Reports each problem and its remedy in plain sentences. It is read-only: it creates,
changes and removes nothing, and does not run the programs that it checks. Calls
that could block are made in child processes with a time limit.

cli reads the command line and describes the deployment; examination runs the
checks, one group after the other; report prints the findings. checks.ini lists
every check with all its findings. To add a check, add it there, and yield its
finding in the module of its group.
"""
