#include <gtest/gtest.h>
#include <zancgi/zancgi.h>

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

// Front ends are compiled against this layout: it does not change unnoticed.
namespace {

using zan_cgi::Cgi;
using AuthInfo = Cgi::AuthInfo;

static_assert(sizeof(Cgi) == sizeof(std::shared_ptr<Cgi::Data>));
static_assert(!std::is_polymorphic_v<Cgi>);
static_assert(std::is_copy_constructible_v<Cgi>);
static_assert(std::is_polymorphic_v<Cgi::Data>);
static_assert(std::has_virtual_destructor_v<Cgi::Data>);

static_assert(
    std::is_same_v<std::underlying_type_t<AuthInfo::AuthMethod>, std::int32_t>);
static_assert(AuthInfo::AuthAny == 0);
static_assert(AuthInfo::AuthCookie == 1);
static_assert(AuthInfo::AuthParams == 2);

constexpr std::size_t kString = sizeof(std::string);
static_assert(offsetof(AuthInfo, auth) == 0);
static_assert(offsetof(AuthInfo, name) == kString);
static_assert(offsetof(AuthInfo, lang_rest) == 2 * kString);
static_assert(offsetof(AuthInfo, lang_word) == 3 * kString);
static_assert(offsetof(AuthInfo, level) == 4 * kString);
static_assert(offsetof(AuthInfo, method) == 4 * kString + 4);
static_assert(sizeof(AuthInfo) == 4 * kString + 8);

static_assert(std::is_same_v<decltype(Cgi::Data::FileInfo::path), std::string>);
static_assert(
    std::is_same_v<decltype(Cgi::Data::FileInfo::size), std::int64_t>);

template <class Left, class Right>
bool Before(const Left& left, const Right& right) {
  return reinterpret_cast<const char*>(&left) <
         reinterpret_cast<const char*>(&right);
}

TEST(Layout, OfTheRecordIsInOrder) {
  const Cgi::Data record;
  EXPECT_TRUE(Before(record.tov_name, record.tmp_dir));
  EXPECT_TRUE(Before(record.tmp_dir, record.cookies));
  EXPECT_TRUE(Before(record.cookies, record.params));
  EXPECT_TRUE(Before(record.params, record.files));
  EXPECT_TRUE(Before(record.files, record.parsed));
  EXPECT_TRUE(Before(record.parsed, record.authorized));
  EXPECT_TRUE(Before(record.authorized, record.auth_info));
  EXPECT_TRUE(Before(record.auth_info, record.remote_addr));
  EXPECT_TRUE(Before(record.remote_addr, record.server_addr));
}

}  // namespace
