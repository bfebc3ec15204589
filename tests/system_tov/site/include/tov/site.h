/// @file
/// What this base library, another one than ours, chooses at compile time.
#pragma once

// What is small is defined in the headers, either there for all or once, in
// site.cpp.
#ifdef SITE_INLINE
#define SITE_FUNCTION inline
#define SITE_DEFINES_SMALL
#else
#define SITE_FUNCTION
#endif

namespace site {

/// Makes each class larger than any that it could be taken for.
struct Room {
  unsigned char bytes[512] = {};
};

}  // namespace site
