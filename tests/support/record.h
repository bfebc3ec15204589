/// @file
/// The request record of a Cgi, and all that is in it.
#ifndef ZANCGI_TESTS_SUPPORT_RECORD_H
#define ZANCGI_TESTS_SUPPORT_RECORD_H

#include <zancgi/zancgi.h>

#include <string>

namespace support {

/// The record that this object shares with its copies.
zan_cgi::Cgi::Data& RecordOf(zan_cgi::Cgi& cgi);

/// Every field, one a line.
std::string Describe(const zan_cgi::Cgi::Data& record);

}  // namespace support

#endif
