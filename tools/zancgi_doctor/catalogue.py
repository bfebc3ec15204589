"""Every check by its group, with the sentence that --list shows."""


KNOWN = {
    "identity": {
        "rights": "the checks are made with the rights of the front end's user",
    },
    "run-dir": {
        "exists": "the folder of the sockets exists and can be searched",
        "safe": "only trusted accounts can replace a socket",
        "reboot": "the folder is made again after a reboot",
        "names": "nothing but sockets lies in it, under names that can be asked for",
        "length": "its path leaves room for the names of services",
    },
    "socket": {
        "name": "the service's name and the path of its socket are accepted",
        "kind": "it is a socket",
        "safe": "a link in its place is as safe as a socket",
        "access": "the front end's user may connect",
        "strangers": "nobody else may connect",
    },
    "back-end": {
        "connect": "somebody listens",
        "session": "a session is sent only where nobody else can listen",
        "answer": "the answer to whoami is what Authorize expects",
        "length": "the answer tells its length",
        "time": "the answer comes quickly",
        "large-request": "a request with a cookie of 8 KB is answered as well",
    },
    "fcgi": {
        "kind": "the socket of fcgiwrap is a socket",
        "safe": "only trusted accounts can replace it",
        "strangers": "nobody but the web server may connect",
    },
    "tmp-dir": {
        "exists": "the temporary directory exists",
        "writable": "the front end's user may write there",
        "safe": "nobody else can exchange an upload",
        "listing": "nobody else can list the uploads",
        "file-system": "it lies on a file system that suits uploads",
        "space": "there is free space",
        "inodes": "there are free inodes",
        "leftovers": "no old uploads lie around",
        "ageing": "old uploads are removed in time",
    },
    "program": {
        "file": "the front end is a program that its user may run",
        "safe": "only trusted accounts can change it",
        "set-id": "it has no set-uid or set-gid bit",
        "launcher": "a script in its place names the program that it starts",
        "work-dir": "its working directory can be entered",
        "libraries": "its shared libraries are found",
        "search-path": "shared libraries come from trusted folders",
    },
    "pam": {
        "library": "libpam.so.0 can be loaded",
        "service": "the service 'login' is configured",
        "modules": "the modules that it names are there",
    },
    "account": {
        "exists": "there is such an account",
        "numbers": "its numbers bring no rights that are not its own",
        "home": "it has a home that is a folder",
        "way": "only root can change the way to the home",
        "confinement": "a process may be confined to the home",
        "folder": "a confined account has a folder that it may write in",
        "session": "a confined account gets its PAM session",
        "hand-over": "root can put uploads into the home",
        "space": "there is room for the uploads that are copied there",
        "leftovers": "no unfinished copies of uploads lie in the home",
    },
    "nss": {
        "sources": "the modules that look up accounts are there",
    },
    "limits": {
        "descriptors": "enough files may be open",
        "memory": "the limit of memory leaves room for a request",
        "processor": "the limit of processor time leaves room for a request",
        "file-size": "no upload is killed by a limit of the size of files",
    },
    "process": {
        "streams": "standard input, output and error are open",
        "environment": "the environment holds nothing that endangers front ends",
    },
    "log": {
        "target": "the log can be written",
        "reader": "strangers cannot read the log",
        "level": "the level keeps warnings in and session ids out",
    },
    "clock": {
        "time": "the clock is set, and kept right",
    },
}
