"""Whose rights the checks are made with."""

import os

from zancgi_doctor.findings import finding
from zancgi_doctor.texts import user_name


def check_identity(site):
    outcome = "ok" if site.has_rights else "unchecked"
    caller = user_name(os.geteuid())
    yield finding("identity.rights", site.identity.name, outcome, caller=caller)
