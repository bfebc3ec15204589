/// @file
/// Shared by all headers of the base library: the version, and the macros that
/// mark exported symbols.
#ifndef TOV_API_H
#define TOV_API_H

// Defines the macros that identify the standard library.
#include <cstddef>

#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "libtov needs C++11's std::string: use -D_GLIBCXX_USE_CXX11_ABI=1"
#endif

/// Components of the version.
/// @{
#define TOV_VERSION_MAJOR 1
#define TOV_VERSION_MINOR 1
#define TOV_VERSION_PATCH 0
/// @}

/// The version as one number for comparisons: 1002003 is version 1.2.3.
#define TOV_VERSION \
  (TOV_VERSION_MAJOR * 1000000 + TOV_VERSION_MINOR * 1000 + TOV_VERSION_PATCH)

/// Exports a symbol from libtov.so.
#define TOV_API __attribute__((visibility("default")))

/// Hides a member of an exported class that callers cannot use, so that it may
/// change.
#define TOV_INTERNAL __attribute__((visibility("hidden")))

#endif
