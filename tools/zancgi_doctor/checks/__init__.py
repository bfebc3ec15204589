"""The checks, one module for each part of a deployment.

A check_... function takes the deployment, and in some groups one of its services
or accounts, and yields findings. It runs in a child process, so an unexpected
OSError ends only its group.
"""
