"""Checks a deployment of front ends made with libzancgi.

Says in plain sentences what is wrong and how to mend it. Looks only: nothing is
created, changed or removed, and the programs that it looks at are not run. What
could block is done in child processes that are ended when their time is up.

cli reads the command line and describes the deployment; examination has it
checked, one module of checks after the other; report shows what was found.
checks.ini lists every check and all that it may say. To add one, write it there,
and yield a finding of its name in the module of its group.
"""
