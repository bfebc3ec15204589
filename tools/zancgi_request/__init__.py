"""Plays one request against a CGI program, without a web server.

See zancgi-request(1). options reads the command line; make_request
makes the request from url, headers, body, form and cookies; servers makes the
variables that each web server would set. exchange runs the program: feeder writes
the body, answer reads the answer. report determines the exit status.
"""
