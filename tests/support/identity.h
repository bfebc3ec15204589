/// @file
/// Who a child process is, and which file systems it sees.
#ifndef ZANCGI_TESTS_SUPPORT_IDENTITY_H
#define ZANCGI_TESTS_SUPPORT_IDENTITY_H

#include <string>

namespace support {

/// Takes on user 65534 and its group for good, when the caller is root.
void BecomeOrdinaryUser();

/// Mounts a file system in memory that only this process sees. Needs root.
/// @param options  such as "size=1m"
void MountPrivately(const std::string& path, const std::string& options,
                    unsigned long flags = 0);

}  // namespace support

#endif
