#include "zancgi/field_cursor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> Items(const std::string& text) {
  std::vector<std::string> items;
  for (zan_cgi::FieldCursor walk(text, '&'); !walk.AtEnd();) {
    items.push_back(walk.Next());
  }
  return items;
}

using Strings = std::vector<std::string>;

TEST(FieldCursor, HasNoItemsInAnEmptyText) { EXPECT_EQ(Items(""), Strings{}); }

TEST(FieldCursor, HandsOutEachItemWithItsSeparator) {
  EXPECT_EQ(Items("a&bc&d"), (Strings{"a&", "bc&", "d"}));
}

TEST(FieldCursor, EndsBehindASeparatorAtTheEnd) {
  EXPECT_EQ(Items("a&"), Strings{"a&"});
}

TEST(FieldCursor, HandsOutEmptyItems) {
  EXPECT_EQ(Items("&&a"), (Strings{"&", "&", "a"}));
}

TEST(FieldCursor, TakesZeroBytesForData) {
  const std::string text("a\0b&c", 5);
  EXPECT_EQ(Items(text), (Strings{std::string("a\0b&", 4), "c"}));
}

}  // namespace
