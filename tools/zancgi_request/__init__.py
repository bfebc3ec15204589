"""Plays one request against a CGI program, without a web server.

zancgi-request(1) describes it. settings and options read the command line;
make_request makes the request with its url, headers, body, form and cookies;
servers has what each web server hands to the program. exchange runs it: feeder
writes its body, answer takes what it writes. report finds the exit status.
"""
