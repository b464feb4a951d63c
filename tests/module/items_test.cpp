// The tables of what items offer, against themselves and against the page that is written from them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "module/filter/ItemSequence.h"
#include "module/filter/MapiProperties.h"
#include "tools/itemspage/items_page.h"

namespace {

TEST(Items, AreReadForWhatTheirRowsName) {
  for (const ItemSequence::Row& row : ItemSequence::Of(CHoardexURL::kMessage)->rows) {
    if (row.source == PropertySource::kNone) continue;
    const auto properties = PropertiesOf(row.source);
    ASSERT_LT(row.index, properties.size()) << row.property->name;
    EXPECT_TRUE(!row.MatchesTag() || properties[row.index].tag == row.match) << row.property->name;
  }
  EXPECT_EQ(ItemSequence::Of(CHoardexURL::kUnknown), nullptr);
}

TEST(Items, AreDescribedByTheirPage) {
  const std::string page = ItemsPage();
  if (getenv("HOARDEX_WRITE_ITEMS")) std::ofstream(ITEMS_PAGE, std::ios::binary) << page;
  std::ifstream file(ITEMS_PAGE, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), page)
      << "run module_items with HOARDEX_WRITE_ITEMS=1 in its environment";
}

}  // namespace
