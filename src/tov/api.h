/// @file
/// What all headers of the base library share: its version, and the marks of
/// what libtov.so exports.
#ifndef TOV_API_H
#define TOV_API_H

// Tells which standard library this is.
#include <cstddef>

#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "libtov needs C++11's std::string: use -D_GLIBCXX_USE_CXX11_ABI=1"
#endif

/// A part of the version.
/// @{
#define TOV_VERSION_MAJOR 1
#define TOV_VERSION_MINOR 1
#define TOV_VERSION_PATCH 0
/// @}

/// The version as one number, to be compared: 1002003 is version 1.2.3.
#define TOV_VERSION \
  (TOV_VERSION_MAJOR * 1000000 + TOV_VERSION_MINOR * 1000 + TOV_VERSION_PATCH)

/// Has what it marks exported.
#define TOV_API __attribute__((visibility("default")))

/// Marks what of an exported class nobody outside can call, so that it may
/// change.
#define TOV_INTERNAL __attribute__((visibility("hidden")))

#endif
