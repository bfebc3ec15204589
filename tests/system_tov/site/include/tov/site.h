/// @file
/// What this base library, another one than ours, chooses at compile time.
#ifndef SITE_H
#define SITE_H

#ifdef SITE_INLINE
/// What is small stands in the headers.
#define SITE_FUNCTION inline
#else
#define SITE_FUNCTION
#endif

namespace site {

/// Makes each class larger than any that it could be taken for.
struct Room {
  unsigned char bytes[512] = {};
};

}  // namespace site

#endif
