/// @file
/// File systems that only one process sees.
#ifndef ZANCGI_TESTS_SUPPORT_MOUNT_H
#define ZANCGI_TESTS_SUPPORT_MOUNT_H

#include <zancgi/testing/mount.h>

namespace support {

using zan_cgi::testing::MountPrivately;

}  // namespace support

#endif
