// Damaged stores: a typed error that names the place, never a crash or a walk without end, and the rest readable.
// Random damage, and that it spares whatever it does not touch, is the business of fuzz/.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "tests/support/store_walk.h"
#include "tests/vault/store_surgeon.h"

namespace {

using Clock = std::chrono::steady_clock;
using vault::ErrorCode;

constexpr auto kWalkLimit = std::chrono::seconds(20);  // under sanitizers; a good walk takes some milliseconds

class Hostile : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(Sample("empty.pst"))) GTEST_SKIP() << "no sample stores: set HOARDEX_SAMPLES";
  }
  void TearDown() override { std::filesystem::remove(file_); }

  static std::filesystem::path Sample(const char* name) {
    const char* const folder = std::getenv("HOARDEX_SAMPLES");
    return std::filesystem::path(folder ? folder : "") / name;
  }

  // The error that opening the store gives; fails when it opens.
  std::optional<vault::Error> OpenError(const test::StoreSurgeon& store) {
    store.Save(file_);
    try {
      vault::Store::Open(file_);
    } catch (const vault::Error& error) {
      EXPECT_FALSE(error.sentence().empty());
      return error;
    }
    ADD_FAILURE() << "the store was opened";
    return std::nullopt;
  }

  // Opens and reads everything; only vault::Error may come out, and in time.
  test::Walked Walk(const test::StoreSurgeon& store) {
    store.Save(file_);
    const auto end = Clock::now() + kWalkLimit;
    test::Walked walked;
    try {
      walked = test::WalkStore(*vault::Store::Open(file_), [&] { return Clock::now() < end; });
      EXPECT_LT(Clock::now(), end) << "the walk found no end";
    } catch (const vault::Error& error) {
      walked.errors.push_back(error.what());
    }
    return walked;
  }

  const std::filesystem::path file_ =
      std::filesystem::temp_directory_path() / ("vault-hostile-" + std::to_string(::getpid()) + ".pst");
};

TEST_F(Hostile, EveryBitOfTheHeaderIsCovered) {
  for (const char* name : {"empty.pst", "pstsdk-test_ansi.pst"}) {
    test::StoreSurgeon store(Sample(name));
    const std::size_t covered = store.layout().word == 8 ? 8 + 516 : 8 + 471;
    for (std::size_t at = 0; at < covered; at += at < 16 ? 1 : 7) {
      store.bytes()[at] ^= 1 << at % 8;
      const auto error = OpenError(store);
      ASSERT_TRUE(error) << "byte " << at;
      EXPECT_EQ(error->code(), at < 4 ? ErrorCode::kNotAStore : ErrorCode::kHeaderChecksum) << "byte " << at;
      store.bytes()[at] ^= 1 << at % 8;
    }
  }
}

TEST_F(Hostile, RefusalsSayWhich) {
  struct Case {
    std::size_t at;
    std::uint8_t value;
    ErrorCode code;
    const char* says;
  };
  for (const Case& c :
       {Case{10, 36, ErrorCode::kUnsupportedVersion, "4-kilobyte pages (version 36)"},
        Case{10, 37, ErrorCode::kUnsupportedVersion, "4-kilobyte pages (version 37)"},
        Case{10, 99, ErrorCode::kUnsupportedVersion, "unknown version 99"},
        Case{513, 7, ErrorCode::kUnsupportedVersion, "unknown encoding 7"},
        Case{8, 'A', ErrorCode::kNotAStore, "another kind"}, Case{224, 0x33, ErrorCode::kBadPage, "outside the file"},
        Case{231, 0x7F, ErrorCode::kBadPage, "outside the file"}, Case{216, 0x33, ErrorCode::kBadPage, "another id"}}) {
    test::StoreSurgeon store(Sample("empty.pst"));
    store.bytes()[c.at] = c.value;
    store.SealHeader();
    const auto error = OpenError(store);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), c.code) << c.says;
    EXPECT_NE(error->sentence().find(c.says), std::string::npos) << error->what();
  }
  EXPECT_THROW(vault::Store::Open(file_ / "missing"), vault::Error);
  EXPECT_THROW(vault::Store::Open(std::filesystem::temp_directory_path()), vault::Error);
}

TEST_F(Hostile, TruncatedFiles) {
  const test::StoreSurgeon whole(Sample("pstsdk-sample1.pst"));
  for (std::size_t size : {0, 1, 4, 511, 563, 564, 600, 0x4400, 0x4800, 0x5000, 0x8000, 0x10000, 0x20000}) {
    test::StoreSurgeon cut = whole;
    cut.bytes().resize(size);
    EXPECT_FALSE(Walk(cut).errors.empty()) << size << " bytes";
  }
}

TEST_F(Hostile, DamagedBlocksAreToldWithTheirPlace) {
  test::StoreSurgeon damaged(Sample("ansi-294-messages.pst"));
  for (const auto& part : damaged.parts()) damaged.bytes()[part.offset] ^= part.is_page ? 0 : 0x40;
  const auto errors = Walk(damaged).errors;
  ASSERT_FALSE(errors.empty());
  EXPECT_NE(errors[0].find("a block does not pass its checksum (file offset"), std::string::npos) << errors[0];
}

TEST_F(Hostile, CirclesInTheTreesEnd) {
  for (const char* name : {"ansi-294-messages.pst", "crypt2-high.pst"}) {
    const test::StoreSurgeon whole(Sample(name));
    const vault::Layout& layout = whole.layout();
    const unsigned w = layout.word;
    unsigned circles = 0;
    for (const auto& part : whole.parts()) {
      test::StoreSurgeon damaged = whole;
      const std::uint8_t* const counts = whole.bytes_at(part.offset) + layout.entry_count_at;
      if (!part.is_page || counts[3] == 0) continue;
      // Every child becomes the page itself.
      damaged.Change(part, [&](std::span<std::uint8_t> page) {
        for (unsigned i = 0; i < counts[0]; ++i) {
          std::memcpy(page.data() + i * counts[2] + w, &part.bid, w);
          std::memcpy(page.data() + i * counts[2] + 2 * w, &part.offset, w);
        }
      });
      EXPECT_FALSE(Walk(damaged).errors.empty());
      ++circles;
    }
    EXPECT_GT(circles, 0u) << name;
  }
}

TEST_F(Hostile, SubnodesThatContainThemselvesEnd) {
  const test::StoreSurgeon whole(Sample("four_nesting_levels.pst"));
  const vault::Layout& layout = whole.layout();
  unsigned lists = 0;
  for (const auto& part : whole.parts()) {
    if (part.is_page || !(part.bid & vault::kInternalBlock)) continue;
    test::StoreSurgeon damaged = whole;
    damaged.Change(part, [&](std::span<std::uint8_t> list) {
      if (list[0] != 2 || list[1] != 0) return;
      ++lists;
      for (std::size_t at = layout.subnode_header; at + layout.subnode_entry <= list.size();
           at += layout.subnode_entry) {
        std::memcpy(list.data() + at + 2 * layout.word, &part.bid, layout.word);
      }
    });
    Walk(damaged);
  }
  EXPECT_GT(lists, 2u);
}

}  // namespace
