/// @file
/// Private: checks the layout of the public classes. Existing front ends are
/// compiled against it, so every change breaks them.
#ifndef ZANCGI_LAYOUT_H
#define ZANCGI_LAYOUT_H

#include <zancgi/zancgi.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <type_traits>

namespace zan_cgi {

static_assert(sizeof(Cgi) == sizeof(std::shared_ptr<Cgi::Data>));
static_assert(!std::is_polymorphic_v<Cgi>);
static_assert(std::is_copy_constructible_v<Cgi>);
static_assert(std::has_virtual_destructor_v<Cgi::Data>);

static_assert(std::is_same_v<std::underlying_type_t<Cgi::AuthInfo::AuthMethod>,
                             std::int32_t>);
static_assert(Cgi::AuthInfo::AuthAny == 0);
static_assert(Cgi::AuthInfo::AuthCookie == 1);
static_assert(Cgi::AuthInfo::AuthParams == 2);

#pragma GCC diagnostic push
// Both compilers support offsetof for classes with virtual functions.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

/// Checks that a field has this type and begins at this offset, rounded up to
/// its alignment.
#define ZANCGI_FIELD_AT(record, field, type, end)               \
  static_assert(std::is_same_v<decltype(record::field), type>); \
  static_assert(offsetof(record, field) ==                      \
                ((end) + alignof(type) - 1) / alignof(type) * alignof(type))
#define ZANCGI_FIELD_BEHIND(record, field, type, before) \
  ZANCGI_FIELD_AT(record, field, type,                   \
                  offsetof(record, before) + sizeof(decltype(record::before)))

using Text = std::string;
using Texts = std::map<std::string, std::string>;
using Files = std::map<std::string, Cgi::Data::FileInfo>;
constexpr std::size_t kVirtualTable = sizeof(void*);

ZANCGI_FIELD_AT(Cgi::AuthInfo, auth, Text, 0);
ZANCGI_FIELD_BEHIND(Cgi::AuthInfo, name, Text, auth);
ZANCGI_FIELD_BEHIND(Cgi::AuthInfo, lang_rest, Text, name);
ZANCGI_FIELD_BEHIND(Cgi::AuthInfo, lang_word, Text, lang_rest);
ZANCGI_FIELD_BEHIND(Cgi::AuthInfo, level, std::int32_t, lang_word);
ZANCGI_FIELD_BEHIND(Cgi::AuthInfo, method, Cgi::AuthInfo::AuthMethod, level);
static_assert(sizeof(Cgi::AuthInfo) == 4 * sizeof(std::string) + 8);

ZANCGI_FIELD_AT(Cgi::Data::FileInfo, path, Text, 0);
ZANCGI_FIELD_BEHIND(Cgi::Data::FileInfo, size, std::int64_t, path);
static_assert(sizeof(Cgi::Data::FileInfo) == sizeof(std::string) + 8);

ZANCGI_FIELD_AT(Cgi::Data, tov_name, Text, kVirtualTable);
ZANCGI_FIELD_BEHIND(Cgi::Data, tmp_dir, Text, tov_name);
ZANCGI_FIELD_BEHIND(Cgi::Data, cookies, Texts, tmp_dir);
ZANCGI_FIELD_BEHIND(Cgi::Data, params, Texts, cookies);
ZANCGI_FIELD_BEHIND(Cgi::Data, files, Files, params);
ZANCGI_FIELD_BEHIND(Cgi::Data, parsed, bool, files);
ZANCGI_FIELD_BEHIND(Cgi::Data, authorized, bool, parsed);
ZANCGI_FIELD_BEHIND(Cgi::Data, auth_info, Cgi::AuthInfo, authorized);
ZANCGI_FIELD_BEHIND(Cgi::Data, remote_addr, Text, auth_info);
ZANCGI_FIELD_BEHIND(Cgi::Data, server_addr, Text, remote_addr);
static_assert(sizeof(Cgi::Data) ==
              offsetof(Cgi::Data, server_addr) + sizeof(std::string));

#undef ZANCGI_FIELD_BEHIND
#undef ZANCGI_FIELD_AT
#pragma GCC diagnostic pop

}  // namespace zan_cgi

#endif
