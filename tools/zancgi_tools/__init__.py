"""What zancgi-request and zancgi-doctor have in common."""
