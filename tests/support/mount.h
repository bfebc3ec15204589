/// @file
/// File systems that only one process sees.
#ifndef ZANCGI_TESTS_SUPPORT_MOUNT_H
#define ZANCGI_TESTS_SUPPORT_MOUNT_H

#include <string>

namespace support {

/// Mounts a file system in memory that only this process sees. Needs root.
/// @param options  such as "size=1m"
void MountPrivately(const std::string& path, const std::string& options,
                    unsigned long flags = 0);

}  // namespace support

#endif
