/// @file
/// Marks what libtov.so exports.
#ifndef TOV_API_H
#define TOV_API_H

#define TOV_API __attribute__((visibility("default")))

#endif
