/// @file
/// Mounts that only one process sees; not installed.
#ifndef ZANCGI_TESTING_MOUNT_H
#define ZANCGI_TESTING_MOUNT_H

#include <string>

namespace zan_cgi::testing {

/// Mounts a file system in memory that only this process sees. Needs root.
/// @param options  such as "size=1m"
void MountPrivately(const std::string& path, const std::string& options,
                    unsigned long flags = 0);

}  // namespace zan_cgi::testing

#endif
