"""Modules that zancgi-request and zancgi-doctor share."""
