"""Whose rights the checks are made with."""

import os

from zancgi_doctor.findings import BECOME_ROOT, ok, unchecked
from zancgi_doctor.texts import user_name


def check_identity(site):
    name, subject = "identity.rights", site.identity.name
    if site.has_rights:
        yield ok(
            name, subject, f"What the front end may do is checked with the rights of {site.who()}."
        )
    else:
        yield unchecked(
            name,
            subject,
            f"What {site.who()} may do cannot be checked with the rights of user "
            f"{user_name(os.geteuid())}.",
            BECOME_ROOT,
        )
