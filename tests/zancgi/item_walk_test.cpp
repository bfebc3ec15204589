#include "zancgi/item_walk.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> Items(const std::string& text) {
  std::vector<std::string> items;
  for (zan_cgi::ItemWalk walk(text, '&'); !walk.AtEnd();) {
    items.push_back(walk.Next());
  }
  return items;
}

using Strings = std::vector<std::string>;

TEST(ItemWalk, HasNoItemsInAnEmptyText) { EXPECT_EQ(Items(""), Strings{}); }

TEST(ItemWalk, HandsOutEachItemWithItsSeparator) {
  EXPECT_EQ(Items("a&bc&d"), (Strings{"a&", "bc&", "d"}));
}

TEST(ItemWalk, EndsBehindASeparatorAtTheEnd) {
  EXPECT_EQ(Items("a&"), Strings{"a&"});
}

TEST(ItemWalk, HandsOutEmptyItems) {
  EXPECT_EQ(Items("&&a"), (Strings{"&", "&", "a"}));
}

TEST(ItemWalk, TakesZeroBytesForData) {
  const std::string text("a\0b&c", 5);
  EXPECT_EQ(Items(text), (Strings{std::string("a\0b&", 4), "c"}));
}

}  // namespace
